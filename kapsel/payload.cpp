#include "kapsel/payload.h"

#include <algorithm>

namespace Kapsel {

namespace {

// Reads a whole leaf payload; sizes were already bounded by the file's length.
bool readPayload(FileStorage& storage, uint64_t payloadSize, std::vector<unsigned char>& buffer) {
  buffer.resize(payloadSize);
  return payloadSize == 0 || storage.load(buffer.data(), static_cast<unsigned long>(payloadSize));
}

// Numbers wider than 8 bytes keep their low 8 bytes.
bool readNumber(FileStorage& storage, uint64_t payloadSize, uint64_t& value, unsigned& width) {
  unsigned char buffer[8];
  const uint64_t skip = payloadSize > 8 ? payloadSize - 8 : 0;
  if (skip && storage.skip(skip) == 0) return false;
  width = static_cast<unsigned>(payloadSize - skip);
  if (width && !storage.load(buffer, width)) return false;
  value = uintDecode(buffer, width);
  return true;
}

}  // namespace

uint64_t VUInt::calcSize() const { return std::max<uint64_t>(uintNumBytes(value_), sizeHint_); }

ReceiptPtr VUInt::save(IStorage& storage) const {
  unsigned char buffer[8];
  return storage.save(buffer, uintEncode(value_, buffer));
}

uint64_t VUInt::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  uint64_t v;
  unsigned w;
  if (!readNumber(storage, payloadSize, v, w)) return 0;
  value_ = v;
  return payloadSize;
}

uint64_t VInt::calcSize() const { return std::max<uint64_t>(intNumBytes(value_), sizeHint_); }

ReceiptPtr VInt::save(IStorage& storage) const {
  unsigned char buffer[8];
  return storage.save(buffer, uintEncode(static_cast<uint64_t>(value_), buffer, intNumBytes(value_)));
}

uint64_t VInt::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  uint64_t v;
  unsigned w;
  if (!readNumber(storage, payloadSize, v, w)) return 0;
  if (w > 0 && w < 8 && v > uintMax[w] / 2) v = v - uintMax[w] - 1;
  value_ = static_cast<int64_t>(v);
  return payloadSize;
}

uint64_t VFloat::calcSize() const { return sizeHint_ >= 5 ? 8 : 4; }

ReceiptPtr VFloat::save(IStorage& storage) const {
  unsigned char buffer[8];
  if (sizeHint_ >= 5) return storage.save(buffer, doubleEncode(value_, buffer));
  return storage.save(buffer, floatEncode(static_cast<float>(value_), buffer));
}

uint64_t VFloat::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  unsigned char buffer[8];
  if (payloadSize >= 5) {
    if (payloadSize > 8 && storage.skip(payloadSize - 8) == 0) return 0;
    if (payloadSize < 8) return storage.skip(payloadSize) ? payloadSize : 0;
    if (!storage.load(buffer, 8)) return 0;
    value_ = doubleDecode(buffer);
    sizeHint_ = 8;
  } else {
    if (payloadSize < 4) return payloadSize == 0 ? 0 : (storage.skip(payloadSize) ? payloadSize : 0);
    if (!storage.load(buffer, 4)) return 0;
    value_ = floatDecode(buffer);
    sizeHint_ = 4;
  }
  return payloadSize;
}

ReceiptPtr VDate::save(IStorage& storage) const {
  unsigned char buffer[8];
  return storage.save(buffer, uintEncode(static_cast<uint64_t>(value_), buffer, 8));
}

uint64_t VDate::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  uint64_t v;
  unsigned w;
  if (!readNumber(storage, payloadSize, v, w)) return 0;
  value_ = static_cast<int64_t>(v);
  return payloadSize;
}

uint64_t VString::calcSize() const { return std::max<uint64_t>(value_.size(), sizeHint_); }

ReceiptPtr VString::save(IStorage& storage) const {
  return storage.save(reinterpret_cast<const unsigned char*>(value_.data()), static_cast<unsigned long>(value_.size()));
}

uint64_t VString::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  if (payloadSize == 0) {
    value_.clear();
    return 0;
  }
  std::vector<unsigned char> buffer;
  if (!readPayload(storage, payloadSize, buffer)) return 0;
  value_.assign(buffer.begin(), buffer.end());
  return payloadSize;
}

bool VBinary::get(std::vector<unsigned char>& bytes) const {
  if (value_.size() == 0) {
    bytes.clear();
    return true;
  }
  return value_.get(bytes);
}

bool VBinary::isDefault() const {
  // An empty value equals an empty default whatever the receipts say.
  if (value_.numBytes() == 0 && default_.numBytes() == 0) return true;
  return value_ == default_;
}

ReceiptPtr VBinary::save(IStorage& storage) const { return value_.save(storage); }

uint64_t VBinary::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  return value_.load(storage, payloadSize);
}

void VEltPosition::setMaxSize(uint64_t width) {
  if (width > 8) width = 8;
  if (width == 0) width = 1;
  if (position_ == uintMax[width_]) position_ = uintMax[width];
  width_ = width;
}

void VEltPosition::setPosition(uint64_t position) {
  discardReceipt();
  width_ = std::min(uintNumBytes(position), 8u);
  origin_ = nullptr;
  elt_ = nullptr;
  position_ = position;
  fromLoad_ = false;
}

uint64_t VEltPosition::getOriginPosition() const {
  if (!origin_) return 0;
  ReceiptPtr r = origin_->payloadReceipt();
  return r ? r->position() : 0;
}

bool VEltPosition::isDefault() const {
  if (elt_) return false;
  return position_ == uintMax[8];
}

uint64_t VEltPosition::calcSize() const {
  if (elt_) {
    ReceiptPtr target = elt_->storageReceipt();
    if (target) {
      // The held width, unless the target has since moved beyond it: never fewer bytes than save writes.
      if (receipt_)
        return std::max<uint64_t>(receipt_->numBytes(), uintNumBytes(target->position() - getOriginPosition()));
      return uintNumBytes(target->position());
    }
  }
  return width_;
}

ReceiptPtr VEltPosition::save(IStorage& storage) const {
  const unsigned n = static_cast<unsigned>(calcSize());
  uint64_t value = elt_ ? uintMax[n] : position_;
  if (elt_) {
    ReceiptPtr target = elt_->storageReceipt();
    if (target) value = target->position();
  }
  value -= getOriginPosition();
  // Through a VUInt: calcSize promised n bytes, the save writes the minimal width and the
  // element's size field follows what was written.
  VUInt tmp(n);
  tmp.set(value);
  receipt_ = tmp.save(storage);
  return receipt_;
}

bool VEltPosition::rewrite() {
  if (!receipt_ || !elt_) return false;
  ReceiptPtr target = elt_->storageReceipt();
  if (!target) return false;
  const uint64_t value = target->position() - getOriginPosition();
  const unsigned n = static_cast<unsigned>(std::min<uint64_t>(receipt_->numBytes(), 8));
  if (n == 0) return false;
  // A value that outgrew the held width keeps only its low bytes; the dry run makes that rare.
  unsigned char buffer[8];
  uintEncode(value, buffer, n);
  return receipt_->save(buffer, n);
}

uint64_t VEltPosition::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  uint64_t v;
  unsigned w;
  if (!readNumber(storage, payloadSize, v, w) || w == 0) return 0;
  width_ = w;
  position_ = v;
  fromLoad_ = true;
  return payloadSize;
}

}  // namespace Kapsel
