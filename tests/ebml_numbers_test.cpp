#include <gtest/gtest.h>

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "kapsel/ebml.h"
#include "kapsel/file.h"
#include "kapsel/storage.h"

namespace {

using namespace Kapsel;
using Bytes = std::vector<unsigned char>;

Bytes vsize(uint64_t value) {
  unsigned char buf[8] = {};
  const unsigned n = vsizeEncode(value, buf);
  return Bytes(buf, buf + n);
}

Bytes vsizeFixed(uint64_t value, unsigned n) {
  unsigned char buf[8] = {};
  vsizeEncode(value, buf, n);
  return Bytes(buf, buf + n);
}

Bytes signedVsize(int64_t value) {
  unsigned char buf[8] = {};
  const unsigned n = vsizeSignedEncode(value, buf);
  return Bytes(buf, buf + n);
}

// A file holding the given bytes, removed when the test ends.
class TempBytesFile {
 public:
  explicit TempBytesFile(const Bytes& bytes) {
    char name[] = "/tmp/kapsel_ebml_XXXXXX";
    const int fd = mkstemp(name);
    path_ = name;
    if (fd >= 0) {
      if (!bytes.empty()) EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
      close(fd);
    }
  }
  ~TempBytesFile() { std::remove(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(VsizeEncode, LengthBoundariesAvoidTheUnknownPattern) {
  EXPECT_EQ(vsizeNumBytes(0), 1u);
  EXPECT_EQ(vsize(0), (Bytes{0x80}));
  EXPECT_EQ(vsizeNumBytes(126), 1u);
  EXPECT_EQ(vsize(126), (Bytes{0xFE}));
  // 127 in one byte would read back as unknown.
  EXPECT_EQ(vsizeNumBytes(127), 2u);
  EXPECT_EQ(vsize(127), (Bytes{0x40, 0x7F}));
  EXPECT_EQ(vsize(0x3FFE), (Bytes{0x7F, 0xFE}));
  EXPECT_EQ(vsizeNumBytes(0x3FFF), 3u);
  EXPECT_EQ(vsize(0x3FFF), (Bytes{0x20, 0x3F, 0xFF}));
  EXPECT_EQ(vsize(0x1FFFFE), (Bytes{0x3F, 0xFF, 0xFE}));
  EXPECT_EQ(vsize(0x1FFFFF), (Bytes{0x10, 0x1F, 0xFF, 0xFF}));
  EXPECT_EQ(vsize(0xFFFFFFFFFFFFFEull), (Bytes{0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}));
  // Past the 8-byte range the width stays 8 and the top bits are lost.
  EXPECT_EQ(vsizeNumBytes(0xFFFFFFFFFFFFFFull), 8u);
  EXPECT_EQ(vsizeNumBytes(~0ull), 8u);
}

TEST(VsizeEncode, FixedWidth) {
  EXPECT_EQ(vsizeFixed(5, 4), (Bytes{0x10, 0x00, 0x00, 0x05}));
  EXPECT_EQ(vsizeFixed(0, 8), (Bytes{0x01, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(vsizeFixed(vsizeUnknown[8], 8), (Bytes{0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(vsizeFixed(vsizeUnknown[1], 1), (Bytes{0xFF}));
  // No range check: the marker is ORed over what is left.
  EXPECT_EQ(vsizeFixed(0x1FF, 1), (Bytes{0xFF}));
}

TEST(VsizeDecode, UnknownOfEveryWidthIsAllOnes) {
  for (unsigned n = 1; n <= 8; ++n) {
    const Bytes b = vsizeFixed(vsizeUnknown[n], n);
    unsigned used = 99;
    EXPECT_EQ(vsizeDecode(b.data(), used), ~0ull) << n;
    EXPECT_EQ(used, n);
  }
  unsigned used = 99;
  const unsigned char fe[] = {0xFE};
  EXPECT_EQ(vsizeDecode(fe, used), 126u);
  EXPECT_EQ(used, 1u);
  const unsigned char zero[] = {0x00, 0xFF};
  EXPECT_EQ(vsizeDecode(zero, used), 0u);
  EXPECT_EQ(used, 0u);
  // Non-minimal widths decode to the same value.
  const unsigned char wide[] = {0x10, 0x00, 0x00, 0x05};
  EXPECT_EQ(vsizeDecode(wide, used), 5u);
  EXPECT_EQ(used, 4u);
}

TEST(VsizeDecode, RoundTripsAcrossAllWidths) {
  const uint64_t values[] = {0, 1, 126, 127, 128, 0x3FFE, 0x3FFF, 0x4000, 0x1FFFFE, 0x1FFFFF, 0xFFFFFFE, 0xFFFFFFF,
                             0x7FFFFFFFEull, 0x3FFFFFFFFFEull, 0x1FFFFFFFFFFFEull, 0x1FFFFFFFFFFFFull,
                             0xFFFFFFFFFFFFFEull};
  for (uint64_t v : values) {
    const Bytes b = vsize(v);
    unsigned used = 0;
    EXPECT_EQ(vsizeDecode(b.data(), used), v);
    EXPECT_EQ(used, b.size());
  }
}

TEST(SignedVsize, BiasedByHalfRange) {
  EXPECT_EQ(signedVsize(0), (Bytes{0xBF}));
  EXPECT_EQ(signedVsize(-63), (Bytes{0x80}));
  EXPECT_EQ(signedVsize(63), (Bytes{0xFE}));
  EXPECT_EQ(signedVsize(-64), (Bytes{0x5F, 0xBF}));
  EXPECT_EQ(signedVsize(64), (Bytes{0x60, 0x3F}));
  EXPECT_EQ(vsizeSignedNumBytes(0x1FFF), 2u);
  EXPECT_EQ(vsizeSignedNumBytes(0x2000), 3u);
  EXPECT_EQ(vsizeSignedNumBytes(-0x1FFF), 2u);
  const int64_t values[] = {0, 1, -1, 63, -63, 64, -64, 0x1FFF, -0x1FFF, 0x2000, -0x2000, 1000000, -1000000,
                            0x7FFFFFFFFFFFFFll, -0x7FFFFFFFFFFFFFll};
  for (int64_t v : values) {
    const Bytes b = signedVsize(v);
    unsigned used = 0;
    EXPECT_EQ(vsizeSignedDecode(b.data(), used), v);
    EXPECT_EQ(used, b.size());
  }
}

TEST(FixedWidth, UnsignedAndSignedWidths) {
  EXPECT_EQ(uintNumBytes(0), 1u);
  EXPECT_EQ(uintNumBytes(0xFF), 1u);
  EXPECT_EQ(uintNumBytes(0x100), 2u);
  EXPECT_EQ(uintNumBytes(0xFFFFFFFFull), 4u);
  EXPECT_EQ(uintNumBytes(0x100000000ull), 5u);
  EXPECT_EQ(uintNumBytes(~0ull), 8u);
  EXPECT_EQ(intNumBytes(0), 1u);
  EXPECT_EQ(intNumBytes(127), 1u);
  EXPECT_EQ(intNumBytes(-128), 1u);
  EXPECT_EQ(intNumBytes(128), 2u);
  EXPECT_EQ(intNumBytes(-129), 2u);
  EXPECT_EQ(intNumBytes(INT64_MIN), 8u);
  EXPECT_EQ(intNumBytes(INT64_MAX), 8u);

  unsigned char buf[8] = {};
  EXPECT_EQ(uintEncode(0x010203, buf), 3u);
  EXPECT_EQ(Bytes(buf, buf + 3), (Bytes{0x01, 0x02, 0x03}));
  EXPECT_EQ(uintEncode(0, buf), 1u);
  EXPECT_EQ(buf[0], 0x00);
  EXPECT_EQ(uintEncode(0xAABBCCDD, buf, 2), 2u);
  EXPECT_EQ(Bytes(buf, buf + 2), (Bytes{0xCC, 0xDD}));
  EXPECT_EQ(uintEncode(static_cast<uint64_t>(-2ll), buf, intNumBytes(-2)), 1u);
  EXPECT_EQ(buf[0], 0xFE);
  EXPECT_EQ(uintEncode(static_cast<uint64_t>(-129ll), buf, intNumBytes(-129)), 2u);
  EXPECT_EQ(Bytes(buf, buf + 2), (Bytes{0xFF, 0x7F}));

  const unsigned char be[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
  EXPECT_EQ(uintDecode(be, 0), 0u);
  EXPECT_EQ(uintDecode(be, 2), 0x1234u);
  EXPECT_EQ(uintDecode(be, 8), 0x123456789ABCDEF0ull);
}

TEST(FixedWidth, FloatsAreBigEndianBitPatterns) {
  unsigned char buf[8] = {};
  EXPECT_EQ(floatEncode(1.0f, buf), 4u);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0x3F, 0x80, 0x00, 0x00}));
  EXPECT_EQ(floatDecode(buf), 1.0f);
  EXPECT_EQ(floatEncode(-2.5f, buf), 4u);
  EXPECT_EQ(Bytes(buf, buf + 4), (Bytes{0xC0, 0x20, 0x00, 0x00}));
  EXPECT_EQ(doubleEncode(1.0, buf), 8u);
  EXPECT_EQ(Bytes(buf, buf + 8), (Bytes{0x3F, 0xF0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(doubleDecode(buf), 1.0);
  EXPECT_EQ(doubleEncode(0.1, buf), 8u);
  EXPECT_EQ(Bytes(buf, buf + 8), (Bytes{0x3F, 0xB9, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9A}));
  EXPECT_EQ(doubleDecode(buf), 0.1);
  doubleEncode(std::nan(""), buf);
  EXPECT_TRUE(std::isnan(doubleDecode(buf)));
}

TEST(EbmlIdLoad, AcceptsOneToFourBytesAndRefusesTheRest) {
  TempBytesFile file({0x1A, 0x45, 0xDF, 0xA3, 0xEC, 0x42, 0x86, 0x0F, 0x01});
  FileStorage fs(file.path(), File::kReadOnly);
  ASSERT_TRUE(fs.file().isOpen());
  EXPECT_EQ(loadEbmlId(fs), 0x1A45DFA3u);
  EXPECT_EQ(fs.file().absolutePosition(), 4u);
  EXPECT_EQ(loadEbmlId(fs), 0xECu);
  EXPECT_EQ(loadEbmlId(fs), 0x4286u);
  EXPECT_EQ(fs.file().absolutePosition(), 7u);
  // A first byte below 0x10 would be an ID of more than four bytes.
  EXPECT_EQ(loadEbmlId(fs), 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 7u);
  EXPECT_EQ(loadEbmlId(fs), 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 7u);
}

TEST(EbmlIdLoad, TruncatedAndEmpty) {
  TempBytesFile file({0x1A, 0x45});
  FileStorage fs(file.path(), File::kReadOnly);
  EXPECT_EQ(loadEbmlId(fs), 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 0u);
  fs.file().seek(2);
  EXPECT_EQ(loadEbmlId(fs), 0u);
}

TEST(VsizeFromStorage, SizesAndFailures) {
  TempBytesFile file({0x81, 0x40, 0x7F, 0xFF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x10});
  FileStorage fs(file.path(), File::kReadOnly);
  unsigned used = 0;
  EXPECT_EQ(vsizeDecode(fs, used), 1u);
  EXPECT_EQ(used, 1u);
  EXPECT_EQ(vsizeDecode(fs, used), 127u);
  EXPECT_EQ(used, 2u);
  EXPECT_EQ(vsizeDecode(fs, used), ~0ull);
  EXPECT_EQ(used, 1u);
  EXPECT_EQ(vsizeDecode(fs, used), ~0ull);
  EXPECT_EQ(used, 8u);
  EXPECT_EQ(fs.file().absolutePosition(), 12u);
  // 00 is no vsize at all; 10 wants four bytes where one is left.
  EXPECT_EQ(vsizeDecode(fs, used), ~0ull);
  EXPECT_EQ(used, 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 12u);
  fs.file().seek(13);
  EXPECT_EQ(vsizeDecode(fs, used), ~0ull);
  EXPECT_EQ(used, 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 13u);
}

TEST(Crc32Sum, CheckValueAndStoredOrder) {
  Crc32 crc;
  EXPECT_EQ(crc.checksum(), 0u);
  crc.compute("123456789", 9);
  EXPECT_EQ(crc.checksum(), 0xCBF43926u);
  unsigned char stored[4];
  uintEncode(crc.checksum(), stored, 4);
  EXPECT_EQ(Bytes(stored, stored + 4), (Bytes{0xCB, 0xF4, 0x39, 0x26}));

  // Split feeding after an intermediate checksum gives the same sum.
  Crc32 split;
  split.compute("1234", 4);
  (void)split.checksum();
  split.compute("56789", 5);
  EXPECT_EQ(split.checksum(), 0xCBF43926u);
}

TEST(UniqueIds, TopSevenBitsAreClear) {
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(createUID() >> 57, 0u);
  // Bytes come from rand() scaled onto 0..255; they must not all be equal.
  unsigned char buf[64];
  createUID(buf, sizeof buf);
  bool varied = false;
  for (unsigned char b : buf) varied |= b != buf[0];
  EXPECT_TRUE(varied);
}

TEST(DumpHelpers, IndentAndSerialize) {
  std::ostringstream os;
  os << '[' << indent(0) << '|' << indent(3) << '|' << indent(8) << '|' << indent(11) << ']';
  EXPECT_EQ(os.str(), "[|   |        |           ]");

  std::ostringstream hex;
  const unsigned char bytes[] = {0x00, 0x0A, 0xBC, 0xFF};
  serialize(hex, bytes, 4) << ' ' << 255;
  EXPECT_EQ(hex.str(), "000ABCFF 255");
  std::ostringstream none;
  serialize(none, bytes, 0);
  EXPECT_EQ(none.str(), "");
}

}  // namespace
