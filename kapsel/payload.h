#pragma once
// Leaf payload kinds: numbers, dates, strings, binaries, fixed bytes and position references.

#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "kapsel/element.h"
#include "kapsel/hodgepodge.h"

namespace Kapsel {

template <class T>
class VPayload : public IPayload {
 public:
  explicit VPayload(uint64_t sizeHint = 0) : sizeHint_(sizeHint), default_(), value_() {}
  void setDefault(const T& value) { default_ = value; }
  const T& getDefault() const { return default_; }
  void set(const T& value) { value_ = value; }
  const T& get() const { return value_; }
  // Sets default and value at once.
  void init(const T& value) { default_ = value; value_ = value; }
  bool isDefault() const override { return value_ == default_; }
  uint64_t sizeHint() const { return sizeHint_; }
  void setSizeHint(uint64_t hint) { sizeHint_ = hint; }

 protected:
  uint64_t sizeHint_;
  T default_;
  T value_;
};

class VUInt : public VPayload<uint64_t> {
 public:
  explicit VUInt(uint64_t sizeHint = 0) : VPayload(sizeHint) {}
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;
};

class VInt : public VPayload<int64_t> {
 public:
  explicit VInt(uint64_t sizeHint = 0) : VPayload(sizeHint) {}
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;
};

class VFloat : public VPayload<double> {
 public:
  explicit VFloat(uint64_t sizeHint = 4) : VPayload(sizeHint) {}
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;
};

// Nanoseconds since 2001-01-01 00:00:00 UTC.
class VDate : public VPayload<int64_t> {
 public:
  static constexpr int64_t kEpochOffsetSeconds = 978307200;
  explicit VDate(uint64_t sizeHint = 8) : VPayload(sizeHint) {}
  void setTime(int64_t unixSeconds) { value_ = unixSeconds * 1000000000LL - kEpochOffsetSeconds * 1000000000LL; }
  int64_t getTime() const { return value_ / 1000000000LL + kEpochOffsetSeconds; }
  uint64_t calcSize() const override { return 8; }
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;
};

class VString : public VPayload<std::string> {
 public:
  explicit VString(uint64_t sizeHint = 0) : VPayload(sizeHint) {}
  using VPayload::set;
  void set(const char* text) { value_ = text ? text : ""; }
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;
};

class VBinary : public IPayload {
 public:
  void set(const unsigned char* data, unsigned long numBytes, IStorage& storage) { value_.set(data, numBytes, storage); }
  void set(const std::vector<unsigned char>& bytes, IStorage& storage) { value_.set(bytes, storage); }
  void set(const HodgePodge& bytes) { value_ = bytes; }
  void setDefault(const unsigned char* data, unsigned long numBytes, IStorage& storage) { default_.set(data, numBytes, storage); }
  void setDefault(const std::vector<unsigned char>& bytes, IStorage& storage) { default_.set(bytes, storage); }
  void setDefault(const HodgePodge& bytes) { default_ = bytes; }
  bool get(std::vector<unsigned char>& bytes) const;
  const HodgePodge& data() const { return value_; }
  HodgePodge& data() { return value_; }
  uint64_t numBytes() const { return value_.numBytes(); }

  bool isDefault() const override;
  uint64_t calcSize() const override { return value_.numBytes(); }
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;

 private:
  HodgePodge value_;
  HodgePodge default_;
};

template <unsigned N>
class VBytes : public IPayload {
 public:
  VBytes() { value_.fill(0); default_.fill(0); }
  void set(const unsigned char* bytes) { std::memcpy(value_.data(), bytes, N); }
  void setDefault(const unsigned char* bytes) { std::memcpy(default_.data(), bytes, N); }
  const std::array<unsigned char, N>& get() const { return value_; }
  bool isDefault() const override { return value_ == default_; }
  uint64_t calcSize() const override { return N; }
  ReceiptPtr save(IStorage& storage) const override { return storage.save(value_.data(), N); }
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) override;

 private:
  std::array<unsigned char, N> value_;
  std::array<unsigned char, N> default_;
};

// A position in the file: of a referenced element relative to an origin, or explicit.
class VEltPosition : public IPayload {
 public:
  VEltPosition() = default;
  void setOrigin(const IElement* origin) { origin_ = origin; }
  const IElement* getOrigin() const { return origin_; }
  void setElt(const IElement* element) { elt_ = element; }
  const IElement* getElt() const { return elt_; }
  void setMaxSize(uint64_t width);
  uint64_t maxSize() const { return width_; }
  void setPosition(uint64_t position);
  bool hasPosition() const { return position_ < uintMax[width_]; }
  uint64_t position() const { return position_; }
  virtual uint64_t getOriginPosition() const;
  void discardReceipt() { receipt_ = ReceiptPtr(); }
  bool rewrite();
  // A position read from a file whose target was never found: saving it would point nowhere.
  bool isDangling() const { return fromLoad_ && !elt_; }

  bool isDefault() const override;
  uint64_t calcSize() const override;
  ReceiptPtr save(IStorage& storage) const override;
  uint64_t load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad* delegate) override;

 private:
  const IElement* origin_ = nullptr;
  const IElement* elt_ = nullptr;
  uint64_t position_ = ~0ull;
  uint64_t width_ = 8;
  bool fromLoad_ = false;
  mutable ReceiptPtr receipt_;
};

template <unsigned N>
uint64_t VBytes<N>::load(FileStorage& storage, uint64_t payloadSize, IDelegateLoad*) {
  unsigned char buffer[N] = {};
  uint64_t n = payloadSize < N ? payloadSize : N;
  if (n > 0 && !storage.load(buffer, static_cast<unsigned long>(n))) return 0;
  if (payloadSize > n && storage.skip(payloadSize - n) == 0) return 0;
  std::memcpy(value_.data(), buffer, N);
  return payloadSize;
}

}  // namespace Kapsel
