#pragma once
// EBML number coding, element IDs, unique IDs and CRC-32.

#include <cstdint>
#include <ostream>

namespace Kapsel {

class IStorage;
class HodgePodgeConstIter;

extern const uint64_t uintMax[9];
extern const uint64_t vsizeUnknown[9];

constexpr uint64_t kUnknownSize = ~0ull;

unsigned vsizeNumBytes(uint64_t value);
unsigned vsizeEncode(uint64_t value, unsigned char* buffer);
void vsizeEncode(uint64_t value, unsigned char* buffer, unsigned numBytes);
unsigned vsizeSignedNumBytes(int64_t value);
unsigned vsizeSignedEncode(int64_t value, unsigned char* buffer);

unsigned vsizeLoad(unsigned char* buffer, IStorage& storage, unsigned maxBytes);
uint64_t vsizeDecodeBytes(const unsigned char* bytes, unsigned& numBytes);
uint64_t vsizeDecodeBytes(const HodgePodgeConstIter& it, unsigned& numBytes);
uint64_t vsizeDecode(const unsigned char* bytes, unsigned& numBytes);
uint64_t vsizeDecode(const HodgePodgeConstIter& it, unsigned& numBytes);
uint64_t vsizeDecode(IStorage& storage, unsigned& numBytes);
int64_t vsizeSignedDecode(const unsigned char* bytes, unsigned& numBytes);
int64_t vsizeSignedDecode(const HodgePodgeConstIter& it, unsigned& numBytes);

unsigned uintNumBytes(uint64_t value);
unsigned uintEncode(uint64_t value, unsigned char* buffer);
unsigned uintEncode(uint64_t value, unsigned char* buffer, unsigned numBytes);
uint64_t uintDecode(const unsigned char* bytes, unsigned numBytes);
unsigned intNumBytes(int64_t value);

unsigned floatEncode(float value, unsigned char* buffer);
float floatDecode(const unsigned char* bytes);
unsigned doubleEncode(double value, unsigned char* buffer);
double doubleDecode(const unsigned char* bytes);

uint64_t loadEbmlId(IStorage& storage);

void createUID(unsigned char* buffer, unsigned numBytes);
uint64_t createUID();
// From now on unique IDs follow from `seed` alone: the same input then gives the same file (reproducible
// outputs, tests). Never use it for files that are meant to differ.
void seedUIDs(uint64_t seed);

class Crc32 {
 public:
  Crc32();
  ~Crc32();
  Crc32(const Crc32&) = delete;
  Crc32& operator=(const Crc32&) = delete;
  void compute(const void* data, uint64_t numBytes);
  uint32_t checksum() const;

 private:
  struct Engine;
  Engine* engine_;
};

struct indent {
  explicit indent(unsigned n) : count(n) {}
  unsigned count;
};
std::ostream& operator<<(std::ostream& os, const indent& in);
std::ostream& serialize(std::ostream& os, const unsigned char* bytes, uint64_t numBytes);

}  // namespace Kapsel
