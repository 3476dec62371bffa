#include "kapsel/ebml.h"

#include <unistd.h>
#include <libdeflate.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <mutex>
#include <random>

#include "kapsel/hodgepodge.h"
#include "kapsel/storage.h"

namespace Kapsel {

const uint64_t uintMax[9] = {0,
                             0xFFull,
                             0xFFFFull,
                             0xFFFFFFull,
                             0xFFFFFFFFull,
                             0xFFFFFFFFFFull,
                             0xFFFFFFFFFFFFull,
                             0xFFFFFFFFFFFFFFull,
                             0xFFFFFFFFFFFFFFFFull};

const uint64_t vsizeUnknown[9] = {0,
                                  0x7Full,
                                  0x3FFFull,
                                  0x1FFFFFull,
                                  0xFFFFFFFull,
                                  0x7FFFFFFFFull,
                                  0x3FFFFFFFFFFull,
                                  0x1FFFFFFFFFFFFull,
                                  0xFFFFFFFFFFFFFFull};

namespace {

const uint64_t vsizeRange[9] = {0,
                                0x7Eull,
                                0x3FFEull,
                                0x1FFFFEull,
                                0xFFFFFFEull,
                                0x7FFFFFFFEull,
                                0x3FFFFFFFFFEull,
                                0x1FFFFFFFFFFFEull,
                                0xFFFFFFFFFFFFFEull};

const uint64_t vsizeHalfRange[9] = {0,
                                    0x3Full,
                                    0x1FFFull,
                                    0xFFFFFull,
                                    0x7FFFFFFull,
                                    0x3FFFFFFFFull,
                                    0x1FFFFFFFFFFull,
                                    0xFFFFFFFFFFFFull,
                                    0x7FFFFFFFFFFFFFull};

// Length of a vsize from its first byte: the position of the highest set bit.
inline unsigned vsizeLength(unsigned char b) {
  if (b == 0) return 0;
  return static_cast<unsigned>(__builtin_clz(static_cast<unsigned>(b))) - 23;
}

template <class Bytes>
uint64_t decodeWith(const Bytes& at, unsigned& numBytes) {
  const unsigned char first = at(0);
  const unsigned n = vsizeLength(first);
  numBytes = n;
  if (n == 0) return 0;
  uint64_t value = first & static_cast<unsigned char>((0xFFu >> n));
  switch (n) {
    case 8: value = (value << 8) | at(1); value = (value << 8) | at(2); value = (value << 8) | at(3);
            value = (value << 8) | at(4); value = (value << 8) | at(5); value = (value << 8) | at(6);
            value = (value << 8) | at(7); break;
    case 7: value = (value << 8) | at(1); value = (value << 8) | at(2); value = (value << 8) | at(3);
            value = (value << 8) | at(4); value = (value << 8) | at(5); value = (value << 8) | at(6); break;
    case 6: value = (value << 8) | at(1); value = (value << 8) | at(2); value = (value << 8) | at(3);
            value = (value << 8) | at(4); value = (value << 8) | at(5); break;
    case 5: value = (value << 8) | at(1); value = (value << 8) | at(2); value = (value << 8) | at(3);
            value = (value << 8) | at(4); break;
    case 4: value = (value << 8) | at(1); value = (value << 8) | at(2); value = (value << 8) | at(3); break;
    case 3: value = (value << 8) | at(1); value = (value << 8) | at(2); break;
    case 2: value = (value << 8) | at(1); break;
    default: break;
  }
  return value == vsizeUnknown[n] ? ~0ull : value;
}


}  // namespace

unsigned vsizeNumBytes(uint64_t value) {
  unsigned n = 1;
  while (n != 8 && value > vsizeRange[n]) ++n;
  return n;
}

void vsizeEncode(uint64_t value, unsigned char* buffer, unsigned numBytes) {
  for (unsigned i = numBytes; i-- > 0;) {
    buffer[i] = static_cast<unsigned char>(value & 0xFF);
    value >>= 8;
  }
  buffer[0] |= static_cast<unsigned char>(1u << (8 - numBytes));
}

unsigned vsizeEncode(uint64_t value, unsigned char* buffer) {
  const unsigned n = vsizeNumBytes(value);
  vsizeEncode(value, buffer, n);
  return n;
}

unsigned vsizeSignedNumBytes(int64_t value) {
  for (unsigned n = 1; n < 8; ++n) {
    const int64_t half = static_cast<int64_t>(vsizeHalfRange[n]);
    if (-half <= value && value <= half) return n;
  }
  return 8;
}

unsigned vsizeSignedEncode(int64_t value, unsigned char* buffer) {
  const unsigned n = vsizeSignedNumBytes(value);
  vsizeEncode(static_cast<uint64_t>(value) + vsizeHalfRange[n], buffer, n);
  return n;
}

unsigned vsizeLoad(unsigned char* buffer, IStorage& storage, unsigned maxBytes) {
  if (storage.peek(buffer, 1) != 1) return 0;
  unsigned zeros = 0;
  while (zeros < maxBytes && (buffer[0] & (0x80u >> zeros)) == 0) ++zeros;
  const unsigned n = zeros + 1;
  if (n > maxBytes) return 0;
  if (n > 1 && storage.peek(buffer, n) != n) return 0;
  return static_cast<unsigned>(storage.skip(n));
}

uint64_t vsizeDecodeBytes(const unsigned char* bytes, unsigned& numBytes) {
  return decodeWith([bytes](unsigned i) { return bytes[i]; }, numBytes);
}

uint64_t vsizeDecodeBytes(const HodgePodgeConstIter& it, unsigned& numBytes) {
  return decodeWith([&it](unsigned i) { return it[i]; }, numBytes);
}

uint64_t vsizeDecode(const unsigned char* bytes, unsigned& numBytes) { return vsizeDecodeBytes(bytes, numBytes); }
uint64_t vsizeDecode(const HodgePodgeConstIter& it, unsigned& numBytes) { return vsizeDecodeBytes(it, numBytes); }

uint64_t vsizeDecode(IStorage& storage, unsigned& numBytes) {
  unsigned char buffer[8];
  if (vsizeLoad(buffer, storage, 8) == 0) {
    numBytes = 0;
    return ~0ull;
  }
  return vsizeDecodeBytes(buffer, numBytes);
}

int64_t vsizeSignedDecode(const unsigned char* bytes, unsigned& numBytes) {
  const uint64_t v = vsizeDecodeBytes(bytes, numBytes);
  return static_cast<int64_t>(v - vsizeHalfRange[numBytes]);
}

int64_t vsizeSignedDecode(const HodgePodgeConstIter& it, unsigned& numBytes) {
  const uint64_t v = vsizeDecodeBytes(it, numBytes);
  return static_cast<int64_t>(v - vsizeHalfRange[numBytes]);
}

unsigned uintNumBytes(uint64_t value) {
  unsigned n = 1;
  while (n < 8 && value > uintMax[n]) ++n;
  return n;
}

unsigned uintEncode(uint64_t value, unsigned char* buffer, unsigned numBytes) {
  for (unsigned i = numBytes; i-- > 0;) {
    buffer[i] = static_cast<unsigned char>(value & 0xFF);
    value >>= 8;
  }
  return numBytes;
}

unsigned uintEncode(uint64_t value, unsigned char* buffer) { return uintEncode(value, buffer, uintNumBytes(value)); }

uint64_t uintDecode(const unsigned char* bytes, unsigned numBytes) {
  uint64_t v = 0;
  for (unsigned i = 0; i < numBytes; ++i) v = (v << 8) | bytes[i];
  return v;
}

unsigned intNumBytes(int64_t value) {
  for (unsigned n = 1; n < 8; ++n) {
    const int64_t lim = int64_t(1) << (8 * n - 1);
    if (-lim <= value && value < lim) return n;
  }
  return 8;
}

unsigned floatEncode(float value, unsigned char* buffer) {
  uint32_t bits;
  std::memcpy(&bits, &value, 4);
  return uintEncode(bits, buffer, 4);
}

float floatDecode(const unsigned char* bytes) {
  const uint32_t bits = static_cast<uint32_t>(uintDecode(bytes, 4));
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

unsigned doubleEncode(double value, unsigned char* buffer) {
  uint64_t bits;
  std::memcpy(&bits, &value, 8);
  return uintEncode(bits, buffer, 8);
}

double doubleDecode(const unsigned char* bytes) {
  const uint64_t bits = uintDecode(bytes, 8);
  double d;
  std::memcpy(&d, &bits, 8);
  return d;
}

uint64_t loadEbmlId(IStorage& storage) {
  unsigned char buffer[8];
  const unsigned n = vsizeLoad(buffer, storage, 4);
  if (n == 0) return 0;
  return uintDecode(buffer, n);
}

namespace {

// Seeded once per process (again in a forked child) from the wall clock, a high-resolution clock and the
// process id, so that files made in the same second differ; the lock makes every draw thread-safe.
std::mutex uidMutex;
std::mt19937_64 uidDraws;
pid_t uidSeededFor = 0;
bool uidFixedSeed = false;

std::mt19937_64& uidGenerator(std::unique_lock<std::mutex>& lock) {
  std::mt19937_64& generator = uidDraws;
  pid_t& seededFor = uidSeededFor;
  lock = std::unique_lock<std::mutex>(uidMutex);
  if (!uidFixedSeed && seededFor != ::getpid()) {
    seededFor = ::getpid();
    const auto now = std::chrono::high_resolution_clock::now().time_since_epoch().count();
    std::seed_seq seq{static_cast<uint64_t>(std::time(nullptr)), static_cast<uint64_t>(now),
                      static_cast<uint64_t>(seededFor), static_cast<uint64_t>(std::random_device{}())};
    generator.seed(seq);
  }
  return generator;
}

}  // namespace

void seedUIDs(uint64_t seed) {
  std::lock_guard<std::mutex> lock(uidMutex);
  uidDraws.seed(seed);
  uidFixedSeed = true;
}

void createUID(unsigned char* buffer, unsigned numBytes) {
  std::unique_lock<std::mutex> lock;
  std::mt19937_64& generator = uidGenerator(lock);
  for (unsigned i = 0; i < numBytes; ++i) buffer[i] = static_cast<unsigned char>(generator() >> 56);
}

uint64_t createUID() {
  unsigned char b[8];
  createUID(b, 8);
  return uintDecode(b, 8) >> 7;
}

struct Crc32::Engine {
  uint32_t state = 0;
};

Crc32::Crc32() : engine_(new Engine) {}
Crc32::~Crc32() { delete engine_; }

void Crc32::compute(const void* data, uint64_t numBytes) {
  engine_->state = libdeflate_crc32(engine_->state, data, static_cast<size_t>(numBytes));
}

uint32_t Crc32::checksum() const { return engine_->state; }

std::ostream& operator<<(std::ostream& os, const indent& in) {
  static const char eight[] = "        ";
  for (unsigned i = 0; i < in.count / 8; ++i) os << eight;
  for (unsigned i = 0; i < in.count % 8; ++i) os << ' ';
  return os;
}

std::ostream& serialize(std::ostream& os, const unsigned char* bytes, uint64_t numBytes) {
  const char fill = os.fill('0');
  os << std::hex << std::uppercase;
  for (uint64_t i = 0; i < numBytes; ++i) os << std::setw(2) << static_cast<unsigned>(bytes[i]);
  os << std::dec << std::nouppercase;
  os.fill(fill);
  return os;
}

}  // namespace Kapsel
