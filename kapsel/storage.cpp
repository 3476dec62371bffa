#include "kapsel/storage.h"

#include <cstring>

namespace Kapsel {

ReceiptPtr IStorage::skipWithReceipt(uint64_t numBytes) {
  ReceiptPtr r = receipt();
  if (!r) return ReceiptPtr();
  if (skip(numBytes) == 0) return ReceiptPtr();
  r->add(numBytes);
  return r;
}

ReceiptPtr NullStorage::Receipt::receipt(uint64_t offset, uint64_t numBytes) const {
  if (offset + numBytes > numBytes_) return ReceiptPtr();
  return ReceiptPtr(new Receipt(position_ + offset, numBytes));
}

ReceiptPtr NullStorage::receipt() const { return ReceiptPtr(new Receipt(position_, 0)); }

ReceiptPtr NullStorage::save(const unsigned char*, unsigned long numBytes) {
  ReceiptPtr r(new Receipt(position_, 0));
  position_ += numBytes;
  r->add(numBytes);
  return r;
}

bool MemoryStorage::Receipt::save(const unsigned char* data, unsigned long numBytes) {
  if (numBytes == 0) return true;
  if (buffer_->size() < static_cast<uint64_t>(position_) + numBytes) return false;
  std::memcpy(buffer_->data() + position_, data, numBytes);
  if (numBytes > numBytes_) numBytes_ = static_cast<uint32_t>(numBytes);
  return true;
}

bool MemoryStorage::Receipt::load(unsigned char* data) {
  if (numBytes_ == 0) return true;
  // A range outside the buffer fails instead of reading past it.
  if (static_cast<uint64_t>(position_) + numBytes_ > buffer_->size()) return false;
  std::memcpy(data, buffer_->data() + position_, numBytes_);
  return true;
}

ReceiptPtr MemoryStorage::Receipt::receipt(uint64_t offset, uint64_t numBytes) const {
  // The sub-range starts numBytes beyond the offset; kept as the library has always done it.
  const uint32_t pos = position_ + static_cast<uint32_t>(offset) + static_cast<uint32_t>(numBytes);
  return ReceiptPtr(new Receipt(buffer_, pos, static_cast<uint32_t>(numBytes)));
}

ReceiptPtr MemoryStorage::receipt() const {
  return ReceiptPtr(new Receipt(Buffer(new std::vector<unsigned char>()), 0, 0));
}

ReceiptPtr MemoryStorage::save(const unsigned char* data, unsigned long numBytes) {
  Buffer buffer(new std::vector<unsigned char>(data, data + numBytes));
  return ReceiptPtr(new Receipt(buffer, 0, static_cast<uint32_t>(numBytes)));
}

bool MemReceipt::save(const unsigned char* data, unsigned long numBytes) {
  if (numBytes_ < numBytes) return false;
  if (numBytes) std::memcpy(address_, data, numBytes);
  return true;
}

bool MemReceipt::load(unsigned char* data) {
  if (numBytes_) std::memcpy(data, address_, numBytes_);
  return true;
}

ReceiptPtr MemReceipt::receipt(uint64_t offset, uint64_t numBytes) const {
  return ReceiptPtr(new MemReceipt(address_ + offset, static_cast<uint32_t>(numBytes)));
}

ReceiptPtr ConstMemReceipt::receipt(uint64_t offset, uint64_t numBytes) const {
  return ReceiptPtr(new ConstMemReceipt(address_ + offset, static_cast<uint32_t>(numBytes)));
}

ReceiptPtr receiptForMemory(void* address, unsigned long numBytes) {
  return ReceiptPtr(new MemReceipt(address, static_cast<uint32_t>(numBytes)));
}

ReceiptPtr receiptForConstMemory(const void* address, unsigned long numBytes) {
  return ReceiptPtr(new ConstMemReceipt(address, static_cast<uint32_t>(numBytes)));
}

}  // namespace Kapsel
