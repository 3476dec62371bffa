#pragma once
// Compressed data as the host passes it around, and the sample records built from it.

#include <cstdint>

class IPacket {
 public:
  enum TPacketType {
    kPacketTypeData = 0,
    kPacketTypeDescriptor = 7,  // decoder configuration
  };

  virtual const uint8_t* GetData() const = 0;
  virtual uint32_t GetSize() const = 0;
  virtual int64_t GetTimeValue() const = 0;
  virtual uint64_t GetTimeUnits() const = 0;  // units per second
  virtual TPacketType GetType() const = 0;
  virtual void Release() = 0;

 protected:
  virtual ~IPacket() = default;
};

class IPacketBundle {
 public:
  virtual uint32_t GetCount() const = 0;
  // Borrowed; null when out of range.
  virtual IPacket* GetPacket(uint32_t index) const = 0;
  // Removed from the bundle; the caller must Release it. Null when out of range.
  virtual IPacket* TakePacket(uint32_t index) = 0;
  // First packet of that type at or after startIndex, or null.
  virtual IPacket* Find(IPacket::TPacketType type, const void* descriptor = nullptr, uint32_t startIndex = 0) const = 0;
  // Destroys the bundle and every packet it still holds.
  virtual void Release() = 0;

 protected:
  virtual ~IPacketBundle() = default;
};

struct KVImage_t {
  int64_t time = 0;
  uint64_t timeUnits = 1000;  // units per second
  int64_t compositionOffset = 0;  // same units; decode time = time - compositionOffset
  bool notKeyFrame = false;
  IPacketBundle* data = nullptr;  // first packet is the compressed frame
  IPacketBundle* descriptors = nullptr;  // may hold a decoder configuration packet
};

struct KVAudio_t {
  IPacketBundle* descriptors = nullptr;
  IPacketBundle* packets = nullptr;  // each packet carries its own time
};
