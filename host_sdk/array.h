#pragma once
// The host's growable array.

#include <cassert>
#include <cstdint>
#include <vector>

template <typename T>
class Array_c {
 public:
  using iterator = typename std::vector<T>::iterator;
  using const_iterator = typename std::vector<T>::const_iterator;

  uint32_t GetCount() const { return static_cast<uint32_t>(items_.size()); }
  bool IsEmpty() const { return items_.empty(); }

  T& operator[](uint32_t index) {
    assert(index < items_.size());
    return items_[index];
  }
  const T& operator[](uint32_t index) const {
    assert(index < items_.size());
    return items_[index];
  }

  void Add(const T& item) { items_.push_back(item); }
  void Clear() { items_.clear(); }

  iterator begin() { return items_.begin(); }
  iterator end() { return items_.end(); }
  const_iterator begin() const { return items_.begin(); }
  const_iterator end() const { return items_.end(); }

 private:
  std::vector<T> items_;
};
