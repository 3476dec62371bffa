#include "kapsel/hodgepodge.h"

#include <memory>

#include "kapsel/file.h"

namespace Kapsel {

void HodgePodge::add(const unsigned char* data, unsigned long numBytes, IStorage& storage) {
  receipts_.push_back(storage.save(data, numBytes));
}

void HodgePodge::add(const std::vector<unsigned char>& bytes, IStorage& storage) {
  add(bytes.data(), static_cast<unsigned long>(bytes.size()), storage);
}

void HodgePodge::set(const ReceiptPtr& receipt) {
  receipts_.clear();
  add(receipt);
}

void HodgePodge::set(const unsigned char* data, unsigned long numBytes, IStorage& storage) {
  receipts_.clear();
  add(data, numBytes, storage);
}

void HodgePodge::set(const std::vector<unsigned char>& bytes, IStorage& storage) {
  receipts_.clear();
  add(bytes, storage);
}

uint64_t HodgePodge::numBytes() const {
  uint64_t n = 0;
  for (const auto& r : receipts_)
    if (r) n += r->numBytes();
  return n;
}

bool HodgePodge::get(unsigned char* dst) const {
  if (receipts_.empty()) return false;
  for (const auto& r : receipts_) {
    if (!r || !r->load(dst)) return false;
    dst += r->numBytes();
  }
  return true;
}

bool HodgePodge::get(std::vector<unsigned char>& dst) const {
  dst.resize(numBytes());
  return get(dst.data());
}

bool HodgePodge::operator==(const HodgePodge& other) const {
  if (receipts_.size() != other.receipts_.size()) return false;
  if (receipts_.empty()) return true;
  // Both copies come from this sequence and only as many bytes as there are receipts
  // are compared: the comparison the library has always made, kept as it is.
  std::vector<unsigned char> a, b;
  if (!get(a) || !get(b)) return false;
  const size_t count = std::min(receipts_.size(), a.size());
  return std::equal(a.begin(), a.begin() + static_cast<long>(count), b.begin());
}

ReceiptPtr HodgePodge::save(IStorage& storage) const {
  ReceiptPtr result = storage.receipt();
  if (!result) return result;
  const bool dryRun = storage.isNullStorage();
  // Pieces pass through one buffer per thread, kept from call to call and never zero-filled: a fresh vector per
  // block cost as much as copying the block. Pieces larger than kKept get a buffer of their own.
  constexpr uint64_t kKept = 1 << 20;
  thread_local std::unique_ptr<unsigned char[]> kept(new unsigned char[kKept]);
  std::unique_ptr<unsigned char[]> large;
  for (const auto& r : receipts_) {
    if (!r) return ReceiptPtr();
    ReceiptPtr part;
    const uint64_t n = r->numBytes();
    if (dryRun) {
      // An empty piece counts nothing; skipping 0 bytes would read as a failure.
      if (n == 0) continue;
      part = storage.skipWithReceipt(n);
    } else {
      if (n > kKept) large.reset(new unsigned char[n]);
      unsigned char* buffer = n > kKept ? large.get() : kept.get();
      if (!r->load(buffer)) return ReceiptPtr();
      part = storage.save(buffer, static_cast<unsigned long>(n));
    }
    if (!part) return ReceiptPtr();
    *result += part;
  }
  return result;
}

uint64_t HodgePodge::load(FileStorage& storage, uint64_t numBytes) {
  ReceiptPtr r = storage.skipWithReceipt(numBytes);
  if (r) {
    receipts_.clear();
    receipts_.push_back(r);
  }
  return numBytes;
}

HodgePodgeConstIter::HodgePodgeConstIter(const HodgePodge& sequence, uint64_t position)
    : sequence_(sequence), position_(position) {}

bool HodgePodgeConstIter::updateReceipt(uint64_t position) const {
  if (current_ && receiptStart_ <= position && position < receiptEnd_) return true;
  uint64_t start = 0;
  for (const auto& r : sequence_.receipts()) {
    const uint64_t end = start + (r ? r->numBytes() : 0);
    if (r && start <= position && position < end) {
      current_ = r;
      receiptStart_ = start;
      receiptEnd_ = end;
      return true;
    }
    start = end;
  }
  current_ = ReceiptPtr();
  receiptStart_ = receiptEnd_ = 0;
  return false;
}

bool HodgePodgeConstIter::updateCache(uint64_t position) const {
  if (cacheStart_ <= position && position < cacheEnd_) return true;
  if (!updateReceipt(position)) return false;
  cacheStart_ = position & ~uint64_t(127);
  cacheEnd_ = std::min(cacheStart_ + 128, receiptEnd_);
  cache_.resize(128);
  // The offset is the sum of the two starts, as the library has always read it: exact for
  // the first receipt of a sequence, which is the only one parsed through this cache.
  ReceiptPtr part = current_->receipt(receiptStart_ + cacheStart_, cacheEnd_ - cacheStart_);
  if (!part || !part->load(cache_.data())) {
    cacheStart_ = cacheEnd_ = 0;
    return false;
  }
  return true;
}

unsigned char HodgePodgeConstIter::operator[](int64_t i) const {
  const uint64_t p = position_ + static_cast<uint64_t>(i);
  if (!updateCache(p)) return 0;
  return cache_[p - cacheStart_];
}

ReceiptPtr HodgePodgeConstIter::receipt(uint64_t position, uint64_t numBytes) const {
  if (updateReceipt(position) && position + numBytes <= receiptEnd_)
    return current_->receipt(position - receiptStart_, numBytes);
  return ReceiptPtr();
}

bool load(const ReceiptPtr& receipt, std::vector<unsigned char>& bytes) {
  if (!receipt) return false;
  bytes.resize(receipt->numBytes());
  return receipt->load(bytes.data());
}

ReceiptPtr save(IStorage& storage, const std::vector<unsigned char>& bytes) {
  return storage.save(bytes.data(), static_cast<unsigned long>(bytes.size()));
}

void append(std::vector<unsigned char>& bytes, const unsigned char* data, size_t numBytes) {
  bytes.insert(bytes.end(), data, data + numBytes);
}

void append(std::vector<unsigned char>& bytes, const std::vector<unsigned char>& more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

}  // namespace Kapsel
