#pragma once
// Append-only tables whose records never move once stored.

#include <cstdint>
#include <cstring>
#include <new>

template <class T, unsigned ChunkSize = 65536>
class TDataTable {
 public:
  TDataTable() = default;
  TDataTable(const TDataTable& other) { *this = other; }
  TDataTable& operator=(const TDataTable& other) {
    if (this == &other) return *this;
    clear();
    for (uint32_t i = 0; i < other.count_; ++i) add(other[i]);
    return *this;
  }
  ~TDataTable() {
    clear();
    delete[] chunks_;
  }

  void add(const T& record) {
    const uint32_t chunk = count_ >> 16;
    if (chunk >= capacity_) grow();
    if (chunks_[chunk] == nullptr) chunks_[chunk] = new T[ChunkSize]();
    chunks_[chunk][count_ & 0xFFFF] = record;
    ++count_;
  }
  void clear() {
    for (uint32_t i = 0; i < capacity_; ++i) {
      delete[] chunks_[i];
      chunks_[i] = nullptr;
    }
    count_ = 0;
  }
  const T& operator[](uint32_t i) const { return chunks_[i >> 16][i & 0xFFFF]; }
  uint32_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  uint32_t capacity() const { return capacity_; }

 private:
  static_assert(ChunkSize == 65536, "the count splits into a 16-bit chunk index and a 16-bit offset");
  void grow() {
    const uint32_t next = capacity_ == 0 ? 256 : capacity_ * 2;
    T** chunks = new T*[next]();
    if (chunks_) std::memcpy(chunks, chunks_, sizeof(T*) * capacity_);
    delete[] chunks_;
    chunks_ = chunks;
    capacity_ = next;
  }

  T** chunks_ = nullptr;
  uint32_t capacity_ = 0;
  uint32_t count_ = 0;
};
