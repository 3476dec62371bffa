#pragma once
// Abstract byte stores and the receipts they hand out.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kapsel/shared_ptr.h"

namespace Kapsel {

class Crc32;

class IStorage {
 public:
  class IReceipt;
  using ReceiptPtr = TSharedPtr<IReceipt, IReceipt>;

  class IReceipt {
   public:
    virtual ~IReceipt() = default;
    virtual uint64_t position() const = 0;
    virtual uint64_t numBytes() const = 0;
    virtual IReceipt& setNumBytes(uint64_t numBytes) = 0;
    virtual IReceipt& add(uint64_t numBytes) = 0;
    virtual bool save(const unsigned char* data, unsigned long numBytes) = 0;
    virtual bool load(unsigned char* data) = 0;
    // The first numBytes bytes (at most numBytes()); a file reads only these.
    virtual bool peek(unsigned char* data, unsigned long numBytes) {
      ReceiptPtr head = receipt(0, numBytes);
      return numBytes <= this->numBytes() && head && head->load(data);
    }
    virtual bool calcCrc32(Crc32& crc, const ReceiptPtr& receiptSkip) = 0;
    virtual ReceiptPtr receipt(uint64_t offset, uint64_t numBytes) const = 0;

    IReceipt& operator+=(const ReceiptPtr& other) {
      if (other) add(other->numBytes());
      return *this;
    }
  };

  virtual ~IStorage() = default;
  virtual bool isNullStorage() const { return false; }
  virtual ReceiptPtr receipt() const = 0;
  virtual ReceiptPtr save(const unsigned char* data, unsigned long numBytes) = 0;
  virtual ReceiptPtr load(unsigned char* data, unsigned long numBytes) = 0;
  virtual unsigned long peek(unsigned char* data, unsigned long numBytes) = 0;
  virtual uint64_t skip(uint64_t numBytes) = 0;

  ReceiptPtr skipWithReceipt(uint64_t numBytes);
};

using ReceiptPtr = IStorage::ReceiptPtr;

// Counts bytes only: dry runs learn positions and sizes through it.
class NullStorage : public IStorage {
 public:
  class Receipt : public IReceipt {
   public:
    Receipt(uint64_t position, uint64_t numBytes) : position_(position), numBytes_(numBytes) {}
    uint64_t position() const override { return position_; }
    uint64_t numBytes() const override { return numBytes_; }
    IReceipt& setNumBytes(uint64_t n) override { numBytes_ = n; return *this; }
    IReceipt& add(uint64_t n) override { numBytes_ += n; return *this; }
    bool save(const unsigned char*, unsigned long) override { return false; }
    bool load(unsigned char*) override { return false; }
    bool calcCrc32(Crc32&, const ReceiptPtr&) override { return false; }
    ReceiptPtr receipt(uint64_t offset, uint64_t numBytes) const override;

   private:
    uint64_t position_;
    uint64_t numBytes_;
  };

  explicit NullStorage(uint64_t position = 0) : position_(position) {}
  bool isNullStorage() const override { return true; }
  ReceiptPtr receipt() const override;
  ReceiptPtr save(const unsigned char* data, unsigned long numBytes) override;
  ReceiptPtr load(unsigned char*, unsigned long) override { return ReceiptPtr(); }
  unsigned long peek(unsigned char*, unsigned long) override { return 0; }
  uint64_t skip(uint64_t numBytes) override { position_ += numBytes; return numBytes; }

 private:
  uint64_t position_;
};

// Every save makes a separate owned buffer.
class MemoryStorage : public IStorage {
 public:
  using Buffer = TSharedPtr<std::vector<unsigned char>>;

  class Receipt : public IReceipt {
   public:
    Receipt(const Buffer& buffer, uint32_t position, uint32_t numBytes)
        : buffer_(buffer), position_(position), numBytes_(numBytes) {}
    uint64_t position() const override { return position_; }
    uint64_t numBytes() const override { return numBytes_; }
    IReceipt& setNumBytes(uint64_t n) override { numBytes_ = static_cast<uint32_t>(n); return *this; }
    IReceipt& add(uint64_t n) override { numBytes_ += static_cast<uint32_t>(n); return *this; }
    bool save(const unsigned char* data, unsigned long numBytes) override;
    bool load(unsigned char* data) override;
    bool calcCrc32(Crc32&, const ReceiptPtr&) override { return false; }
    ReceiptPtr receipt(uint64_t offset, uint64_t numBytes) const override;

   private:
    Buffer buffer_;
    uint32_t position_;
    uint32_t numBytes_;
  };

  ReceiptPtr receipt() const override;
  ReceiptPtr save(const unsigned char* data, unsigned long numBytes) override;
  ReceiptPtr load(unsigned char*, unsigned long) override { return ReceiptPtr(); }
  unsigned long peek(unsigned char*, unsigned long) override { return 0; }
  uint64_t skip(uint64_t) override { return 0; }
};

// A receipt over a caller's memory block; the memory is neither copied nor owned.
class MemReceipt : public IStorage::IReceipt {
 public:
  MemReceipt(void* address, uint32_t numBytes) : address_(static_cast<unsigned char*>(address)), numBytes_(numBytes) {}
  uint64_t position() const override { return reinterpret_cast<uintptr_t>(address_); }
  uint64_t numBytes() const override { return numBytes_; }
  IReceipt& setNumBytes(uint64_t n) override { numBytes_ = static_cast<uint32_t>(n); return *this; }
  IReceipt& add(uint64_t n) override { numBytes_ += static_cast<uint32_t>(n); return *this; }
  bool save(const unsigned char* data, unsigned long numBytes) override;
  bool load(unsigned char* data) override;
  bool calcCrc32(Crc32&, const ReceiptPtr&) override { return false; }
  ReceiptPtr receipt(uint64_t offset, uint64_t numBytes) const override;

 protected:
  unsigned char* address_;
  uint32_t numBytes_;
};

class ConstMemReceipt : public MemReceipt {
 public:
  ConstMemReceipt(const void* address, uint32_t numBytes) : MemReceipt(const_cast<void*>(address), numBytes) {}
  bool save(const unsigned char*, unsigned long) override { return false; }
  ReceiptPtr receipt(uint64_t offset, uint64_t numBytes) const override;
};

ReceiptPtr receiptForMemory(void* address, unsigned long numBytes);
ReceiptPtr receiptForConstMemory(const void* address, unsigned long numBytes);

}  // namespace Kapsel
