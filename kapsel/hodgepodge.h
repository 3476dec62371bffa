#pragma once
// A byte sequence made of stored ranges (receipts), not held in memory.

#include <cstdint>
#include <deque>
#include <vector>

#include "kapsel/storage.h"

namespace Kapsel {

class FileStorage;

class HodgePodge {
 public:
  using Receipts = std::vector<ReceiptPtr>;

  void add(const ReceiptPtr& receipt) { receipts_.push_back(receipt); }
  void add(const unsigned char* data, unsigned long numBytes, IStorage& storage);
  void add(const std::vector<unsigned char>& bytes, IStorage& storage);
  void set(const ReceiptPtr& receipt);
  void set(const unsigned char* data, unsigned long numBytes, IStorage& storage);
  void set(const std::vector<unsigned char>& bytes, IStorage& storage);
  void clear() { receipts_.clear(); }

  uint64_t numBytes() const;
  bool get(unsigned char* dst) const;
  bool get(std::vector<unsigned char>& dst) const;
  bool operator==(const HodgePodge& other) const;
  bool operator!=(const HodgePodge& other) const { return !(*this == other); }
  ReceiptPtr save(IStorage& storage) const;
  uint64_t load(FileStorage& storage, uint64_t numBytes);

  const Receipts& receipts() const { return receipts_; }
  size_t size() const { return receipts_.size(); }
  const ReceiptPtr& operator[](size_t i) const { return receipts_[i]; }

 private:
  Receipts receipts_;
};

class HodgePodgeConstIter {
 public:
  explicit HodgePodgeConstIter(const HodgePodge& sequence, uint64_t position = 0);

  void setpos(uint64_t position) { position_ = position; }
  uint64_t pos() const { return position_; }
  unsigned char operator[](int64_t i) const;
  unsigned char operator*() const { return (*this)[0]; }
  ReceiptPtr receipt(uint64_t position, uint64_t numBytes) const;

 private:
  bool updateReceipt(uint64_t position) const;
  bool updateCache(uint64_t position) const;

  const HodgePodge& sequence_;
  uint64_t position_;
  mutable ReceiptPtr current_;
  mutable uint64_t receiptStart_ = 0, receiptEnd_ = 0;
  mutable std::vector<unsigned char> cache_;
  mutable uint64_t cacheStart_ = 0, cacheEnd_ = 0;
};

bool load(const ReceiptPtr& receipt, std::vector<unsigned char>& bytes);
ReceiptPtr save(IStorage& storage, const std::vector<unsigned char>& bytes);
void append(std::vector<unsigned char>& bytes, const unsigned char* data, size_t numBytes);
void append(std::vector<unsigned char>& bytes, const std::vector<unsigned char>& more);

}  // namespace Kapsel
