#include <gtest/gtest.h>

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "kapsel/ebml.h"
#include "kapsel/file.h"
#include "kapsel/storage.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using Bytes = std::vector<unsigned char>;

// Width 0: the encoder picks the minimal one.
Bytes vsize(uint64_t value, unsigned n = 0) {
  unsigned char buf[8] = {};
  if (n == 0) {
    n = vsizeEncode(value, buf);
  } else {
    vsizeEncode(value, buf, n);
  }
  return Bytes(buf, buf + n);
}

// Writes the bytes into a file of the directory and returns its path.
std::string fileWith(const kapsel_test::TempDir& dir, const Bytes& bytes, const char* name = "in.bin") {
  kapsel_test::writeFile(dir.path(name), bytes);
  return dir.path(name);
}

TEST(Vsize, HandEncodedBytes) {
  struct Case {
    uint64_t value;
    unsigned width;
    Bytes disk;
  } cases[] = {
      {0, 0, {0x80}},
      {126, 0, {0xFE}},
      {127, 0, {0x40, 0x7F}},  // 127 in one byte would read back as unknown
      {0x3FFF, 0, {0x20, 0x3F, 0xFF}},
      {0x1FFFFF, 0, {0x10, 0x1F, 0xFF, 0xFF}},
      {0xFFFFFFFFFFFFFEull, 0, {0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}},
      {5, 4, {0x10, 0x00, 0x00, 0x05}},
      {0, 8, {0x01, 0, 0, 0, 0, 0, 0, 0}},
      {0x1FF, 1, {0xFF}},  // no range check: the marker is ORed over what is left
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    EXPECT_EQ(vsize(c.value, c.width), c.disk);
    unsigned used = 0;
    EXPECT_EQ(vsizeDecode(c.disk.data(), used), c.value < vsizeUnknown[c.disk.size()] ? c.value : ~0ull);
    EXPECT_EQ(used, c.disk.size());
  }
  // Past the 8-byte range the width stays 8 and the top bits are lost.
  EXPECT_EQ(vsizeNumBytes(~0ull), 8u);
  unsigned used = 99;
  const unsigned char zero[] = {0x00, 0xFF};
  EXPECT_EQ(vsizeDecode(zero, used), 0u);
  EXPECT_EQ(used, 0u);
}

TEST(Vsize, EveryWidthRoundTripsAndReservesAllOnes) {
  for (unsigned n = 1; n <= 8; ++n) {
    SCOPED_TRACE(n);
    unsigned used = 0;
    const Bytes top = vsize(vsizeUnknown[n] - 1);
    ASSERT_EQ(top.size(), n);
    EXPECT_EQ(vsizeDecode(top.data(), used), vsizeUnknown[n] - 1);
    EXPECT_EQ(used, n);
    EXPECT_EQ(vsizeDecode(vsize(vsizeUnknown[n], n).data(), used), ~0ull);
    EXPECT_EQ(used, n);
    EXPECT_EQ(vsizeNumBytes(vsizeUnknown[n]), n < 8 ? n + 1 : 8u);
  }
}

TEST(Vsize, SignedIsBiasedByHalfRange) {
  const auto encode = [](int64_t value) {
    unsigned char buf[8] = {};
    return Bytes(buf, buf + vsizeSignedEncode(value, buf));
  };
  EXPECT_EQ(encode(0), (Bytes{0xBF}));
  EXPECT_EQ(encode(-63), (Bytes{0x80}));
  EXPECT_EQ(encode(63), (Bytes{0xFE}));
  EXPECT_EQ(encode(-64), (Bytes{0x5F, 0xBF}));
  EXPECT_EQ(encode(64), (Bytes{0x60, 0x3F}));
  EXPECT_EQ(vsizeSignedNumBytes(0x1FFF), 2u);
  EXPECT_EQ(vsizeSignedNumBytes(0x2000), 3u);
  EXPECT_EQ(vsizeSignedNumBytes(-0x1FFF), 2u);
  for (int64_t v : {0ll, -1ll, 0x1FFFll, -0x2000ll, 1000000ll, -1000000ll, 0x7FFFFFFFFFFFFFll, -0x7FFFFFFFFFFFFFll}) {
    const Bytes b = encode(v);
    unsigned used = 0;
    EXPECT_EQ(vsizeSignedDecode(b.data(), used), v);
    EXPECT_EQ(used, b.size());
  }
}

// Widths and encodings at the common boundaries are pinned through the integer and float payloads;
// here only what those do not reach: the 4/5-byte step, cutting to a given width, and a zero-width read.
TEST(FixedWidth, WidthStepsAndTruncation) {
  EXPECT_EQ(uintNumBytes(0xFFFFFFFFull), 4u);
  EXPECT_EQ(uintNumBytes(0x100000000ull), 5u);
  unsigned char buf[8] = {};
  EXPECT_EQ(uintEncode(0xAABBCCDD, buf, 2), 2u);
  EXPECT_EQ(Bytes(buf, buf + 2), (Bytes{0xCC, 0xDD}));
  const unsigned char be[] = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE, 0xF0};
  EXPECT_EQ(uintDecode(be, 0), 0u);
  EXPECT_EQ(uintDecode(be, 8), 0x123456789ABCDEF0ull);
}

TEST(FromStorage, IdsOfOneToFourBytes) {
  kapsel_test::TempDir dir;
  FileStorage fs(fileWith(dir, {0x1A, 0x45, 0xDF, 0xA3, 0xEC, 0x42, 0x86, 0x0F, 0x01}), File::kReadOnly);
  ASSERT_TRUE(fs.file().isOpen());
  EXPECT_EQ(loadEbmlId(fs), 0x1A45DFA3u);
  EXPECT_EQ(loadEbmlId(fs), 0xECu);
  EXPECT_EQ(loadEbmlId(fs), 0x4286u);
  EXPECT_EQ(fs.file().absolutePosition(), 7u);
  // A first byte below 0x10 would be an ID of more than four bytes.
  EXPECT_EQ(loadEbmlId(fs), 0u);
  EXPECT_EQ(fs.file().absolutePosition(), 7u);

  FileStorage cut(fileWith(dir, {0x1A, 0x45}, "cut.bin"), File::kReadOnly);
  EXPECT_EQ(loadEbmlId(cut), 0u);
  EXPECT_EQ(cut.file().absolutePosition(), 0u);
  cut.file().seek(2);
  EXPECT_EQ(loadEbmlId(cut), 0u);
}

TEST(FromStorage, SizesAndFailures) {
  kapsel_test::TempDir dir;
  const Bytes disk = {0x81, 0x40, 0x7F, 0xFF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x10};
  FileStorage fs(fileWith(dir, disk), File::kReadOnly);
  const std::pair<uint64_t, unsigned> expected[] = {{1, 1}, {127, 2}, {~0ull, 1}, {~0ull, 8}};
  unsigned used = 0;
  for (const auto& e : expected) {
    EXPECT_EQ(vsizeDecode(fs, used), e.first);
    EXPECT_EQ(used, e.second);
  }
  EXPECT_EQ(fs.file().absolutePosition(), 12u);
  // 00 is no vsize at all; 10 wants four bytes where one is left. Neither moves the file.
  for (uint64_t at : {12, 13}) {
    fs.file().seek(at);
    EXPECT_EQ(vsizeDecode(fs, used), ~0ull);
    EXPECT_EQ(used, 0u);
    EXPECT_EQ(fs.file().absolutePosition(), at);
  }
}

// The byte fill is checked with the process and thread tests of the hostile inputs.
TEST(UniqueIds, TopSevenBitsClear) {
  for (int i = 0; i < 2000; ++i) EXPECT_EQ(createUID() >> 57, 0u);
}

TEST(DumpHelpers, IndentAndSerialize) {
  std::ostringstream os;
  os << '[' << indent(0) << '|' << indent(3) << '|' << indent(11) << ']';
  EXPECT_EQ(os.str(), "[|   |           ]");
  std::ostringstream hex;
  const unsigned char bytes[] = {0x00, 0x0A, 0xBC, 0xFF};
  serialize(hex, bytes, 4) << ' ' << 255;
  serialize(hex, bytes, 0);
  EXPECT_EQ(hex.str(), "000ABCFF 255");
}

}  // namespace
