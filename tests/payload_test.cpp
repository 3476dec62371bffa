#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "kapsel/element.h"
#include "kapsel/file.h"
#include "kapsel/payload.h"
#include "kapsel/storage.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using Bytes = std::vector<unsigned char>;

KAPSEL_ELT_NAME(0x4286, "Number");
KAPSEL_ELT_NAME(0x4282, "Text");
KAPSEL_ELT_NAME(0x53AC, "Position");

class Payload : public ::testing::Test {
 protected:
  // Saves a payload or an element alone into a fresh file and returns what landed on disk.
  template <class T>
  Bytes saved(const T& item, const char* name = "out.bin") {
    const std::string path = dir_.path(name);
    std::remove(path.c_str());
    {
      FileStorage fs(path, File::kReadWrite);
      ReceiptPtr r = item.save(fs);
      EXPECT_TRUE(r);
      if (r) {
        EXPECT_EQ(r->position(), 0u);
        EXPECT_EQ(r->numBytes(), fs.file().absolutePosition());
      }
      fs.file().close();  // receipts share the file: closing is what writes it back
    }
    return kapsel_test::readFile(path);
  }

  // Loads the payload from a file holding exactly these bytes.
  uint64_t loaded(IPayload& payload, const Bytes& bytes) {
    kapsel_test::writeFile(dir_.path("in.bin"), bytes);
    FileStorage fs(dir_.path("in.bin"), File::kReadOnly);
    const uint64_t n = payload.load(fs, bytes.size(), nullptr);
    if (n != 0) {
      EXPECT_EQ(fs.file().absolutePosition(), bytes.size());
    }
    return n;
  }

  // Saves, then loads the file's bytes into a fresh payload of the same kind.
  template <class P>
  P roundTrip(const P& in, const Bytes& expected) {
    const Bytes disk = saved(in);
    EXPECT_EQ(disk, expected);
    P out;
    EXPECT_EQ(loaded(out, disk), disk.size());
    return out;
  }

  kapsel_test::TempDir dir_;
};

TEST_F(Payload, IntegersAreMinimalBigEndian) {
  const std::pair<uint64_t, Bytes> unsignedRows[] = {
      {0, {0x00}}, {0xFF, {0xFF}}, {0x100, {0x01, 0x00}}, {0x0102030405ull, {1, 2, 3, 4, 5}}, {~0ull, Bytes(8, 0xFF)}};
  for (const auto& row : unsignedRows) {
    VUInt v;
    v.set(row.first);
    EXPECT_EQ(v.calcSize(), row.second.size());
    EXPECT_EQ(roundTrip(v, row.second).get(), row.first);
  }
  const std::pair<int64_t, Bytes> signedRows[] = {{0, {0x00}},           {-1, {0xFF}},  {127, {0x7F}},
                                                  {128, {0x00, 0x80}},   {-128, {0x80}}, {-129, {0xFF, 0x7F}},
                                                  {INT64_MIN, {0x80, 0, 0, 0, 0, 0, 0, 0}}};
  for (const auto& row : signedRows) {
    VInt v;
    v.set(row.first);
    EXPECT_EQ(v.calcSize(), row.second.size());
    EXPECT_EQ(roundTrip(v, row.second).get(), row.first);
  }

  // Leading zero bytes are accepted and dropped again; past eight bytes the low eight are kept.
  VUInt wide;
  EXPECT_EQ(loaded(wide, {0x00, 0x00, 0x00, 0x05}), 4u);
  EXPECT_EQ(saved(wide), Bytes({0x05}));
  EXPECT_EQ(loaded(wide, {0xAA, 0x01, 0, 0, 0, 0, 0, 0, 0x02}), 9u);
  EXPECT_EQ(wide.get(), 0x0100000000000002ull);
  VInt sign;
  EXPECT_EQ(loaded(sign, {0x00, 0xFF}), 2u);
  EXPECT_EQ(sign.get(), 255);
  EXPECT_EQ(loaded(sign, Bytes(8, 0xFF)), 8u);
  EXPECT_EQ(sign.get(), -1);

  // A size hint is counted but not written.
  VUInt hinted(4);
  hinted.set(5);
  EXPECT_EQ(hinted.calcSize(), 4u);
  EXPECT_EQ(saved(hinted), Bytes({0x05}));
  VInt signedHinted(3);
  signedHinted.set(-2);
  EXPECT_EQ(signedHinted.calcSize(), 3u);
  EXPECT_EQ(saved(signedHinted), Bytes({0xFE}));
}

TEST_F(Payload, FloatWidthFollowsWhatWasLoaded) {
  VFloat single;
  single.set(1.5);
  EXPECT_EQ(roundTrip(single, {0x3F, 0xC0, 0x00, 0x00}).get(), 1.5);
  // 0.1 is not exact in single precision: four bytes lose the tail.
  single.set(0.1);
  EXPECT_EQ(roundTrip(single, {0x3D, 0xCC, 0xCC, 0xCD}).get(), static_cast<double>(0.1f));

  const Bytes doubleOnePointFive = {0x3F, 0xF8, 0, 0, 0, 0, 0, 0};
  VFloat v;
  EXPECT_EQ(loaded(v, doubleOnePointFive), 8u);
  EXPECT_EQ(v.get(), 1.5);
  EXPECT_EQ(saved(v), doubleOnePointFive);
  EXPECT_EQ(loaded(v, {0xC0, 0x00, 0x00, 0x00}), 4u);
  EXPECT_EQ(v.get(), -2.0);
  EXPECT_EQ(v.calcSize(), 4u);

  VFloat wide(8);
  wide.set(0.1);
  EXPECT_EQ(roundTrip(wide, {0x3F, 0xB9, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9A}).get(), 0.1);
}

TEST_F(Payload, DateCountsNanosecondsFrom2001) {
  VDate date;
  date.setTime(978307201);
  EXPECT_EQ(roundTrip(date, {0, 0, 0, 0, 0x3B, 0x9A, 0xCA, 0x00}).get(), 1000000000);
  // Before 2001 the value is negative and stays so through eight bytes.
  date.setTime(0);
  const VDate back = roundTrip(date, {0xF2, 0x6C, 0x5A, 0xC8, 0xEE, 0xCB, 0x00, 0x00});
  EXPECT_EQ(back.get(), -978307200000000000LL);
  EXPECT_EQ(back.getTime(), 0);
}

TEST_F(Payload, StringsAndBytesKeepEveryByte) {
  VString hinted(8);
  hinted.set("ab");
  EXPECT_EQ(hinted.calcSize(), 8u);
  EXPECT_EQ(saved(hinted), Bytes({0x61, 0x62}));
  VString text;
  text.set("old");
  EXPECT_EQ(loaded(text, {}), 0u);
  EXPECT_EQ(text.get(), "");
  const Bytes embedded = {0x61, 0x00, 0x62};
  EXPECT_EQ(loaded(text, embedded), 3u);
  EXPECT_EQ(text.get(), std::string("a\0b", 3));
  EXPECT_EQ(saved(text), embedded);
  text.set(static_cast<const char*>(nullptr));
  EXPECT_EQ(text.get(), "");

  // A fixed-size value: a short payload fills the front, a long one keeps the first N bytes.
  const unsigned char four[4] = {0xDE, 0xAD, 0xBE, 0xEF};
  VBytes<4> id;
  id.set(four);
  const auto back = roundTrip(id, Bytes(four, four + 4));
  EXPECT_EQ(Bytes(back.get().begin(), back.get().end()), Bytes(four, four + 4));
  VBytes<4> odd;
  EXPECT_EQ(loaded(odd, {0x01, 0x02}), 2u);
  EXPECT_EQ(Bytes(odd.get().begin(), odd.get().end()), Bytes({0x01, 0x02, 0x00, 0x00}));
  EXPECT_EQ(loaded(odd, {0x09, 0x08, 0x07, 0x06, 0x05, 0x04}), 6u);
  EXPECT_EQ(Bytes(odd.get().begin(), odd.get().end()), Bytes({0x09, 0x08, 0x07, 0x06}));
}

TEST_F(Payload, BinaryIsCopiedThroughReceipts) {
  const Bytes data = {0x01, 0x02, 0x03, 0x00, 0xFF};
  MemoryStorage memory;
  VBinary binary;
  binary.set(data, memory);
  EXPECT_EQ(binary.calcSize(), 5u);
  VBinary back = roundTrip(binary, data);
  Bytes got;
  ASSERT_TRUE(back.get(got));
  EXPECT_EQ(got, data);
  // The loaded value refers to the first file; saving it copies from there.
  EXPECT_EQ(saved(back, "copy.bin"), data);

  VBinary empty;
  EXPECT_TRUE(empty.get(got));
  EXPECT_TRUE(got.empty());
}

TEST_F(Payload, EltPositionWidth) {
  VEltPosition p;
  EXPECT_EQ(p.calcSize(), 8u);
  p.setPosition(300);
  EXPECT_EQ(p.maxSize(), 2u);
  const VEltPosition back = roundTrip(p, {0x01, 0x2C});
  EXPECT_EQ(back.position(), 300u);
  EXPECT_EQ(back.maxSize(), 2u);
  p.setPosition(0);
  EXPECT_EQ(saved(p), Bytes({0x00}));

  // Narrowing a reference without a position keeps it without one.
  VEltPosition none;
  none.setMaxSize(4);
  EXPECT_FALSE(none.hasPosition());
  none.setMaxSize(20);
  EXPECT_EQ(none.maxSize(), 8u);
  EXPECT_EQ(none.position(), ~0ull);
  EXPECT_EQ(loaded(none, {}), 0u);
  EXPECT_FALSE(none.hasPosition());
}

TEST_F(Payload, EltPositionIsRelativeToOriginPayload) {
  TElt<VString, 0x4282, EltName0x4282> origin;
  TElt<VUInt, 0x4286, EltName0x4286> target;
  TElt<VEltPosition, 0x53AC, EltName0x53AC> ref;
  origin->set("abcd");
  target->set(1);
  ref->setOrigin(&origin);
  ref->setElt(&target);
  EXPECT_EQ(ref->getOriginPosition(), 0u);  // the origin has not been saved yet
  {
    FileStorage fs(dir_.path("out.bin"), File::kReadWrite);
    ASSERT_TRUE(origin.save(fs));  // 0..6, payload at 3
    ASSERT_TRUE(target.save(fs));  // 7..10
    EXPECT_EQ(ref->getOriginPosition(), 3u);
    ASSERT_TRUE(ref.save(fs));  // 11..14, value 7 - 3
    // The target moves; rewrite patches the held byte in place.
    ASSERT_TRUE(target.save(fs));  // 15..18
    EXPECT_TRUE(ref->rewrite());
    fs.file().close();
  }
  EXPECT_EQ(kapsel_test::readFile(dir_.path("out.bin")),
            Bytes({0x42, 0x82, 0x84, 0x61, 0x62, 0x63, 0x64, 0x42, 0x86, 0x81, 0x01, 0x53, 0xAC, 0x81, 0x0C, 0x42,
                   0x86, 0x81, 0x01}));
}

TEST_F(Payload, EltPositionWidensWhenTargetMovesFar) {
  TElt<VUInt, 0x4286, EltName0x4286> target;
  TElt<VEltPosition, 0x53AC, EltName0x53AC> ref;
  target->set(1);
  ref->setElt(&target);
  {
    FileStorage fs(dir_.path("out.bin"), File::kReadWrite);
    ASSERT_TRUE(target.save(fs));  // at 0
    ASSERT_TRUE(ref.save(fs));     // 53 AC 81 00 at 4
    fs.file().seek(300);
    ASSERT_TRUE(target.save(fs));
    // One held byte cannot carry 300: the element must announce the two it writes.
    EXPECT_EQ(ref->calcSize(), 2u);
    fs.file().seek(8);
    ASSERT_TRUE(ref.save(fs));
    fs.file().close();
  }
  const Bytes disk = kapsel_test::readFile(dir_.path("out.bin"));
  ASSERT_GE(disk.size(), 13u);
  EXPECT_EQ(Bytes(disk.begin() + 4, disk.begin() + 13), Bytes({0x53, 0xAC, 0x81, 0x00, 0x53, 0xAC, 0x82, 0x01, 0x2C}));
}

TEST_F(Payload, ValuesEqualToTheirDefaultAreNotWritten) {
  TElt<VUInt, 0x4286, EltName0x4286> number;
  number->init(5);
  EXPECT_EQ(number.calcSize(), 0u);
  EXPECT_TRUE(saved(number).empty());
  number->set(6);
  EXPECT_EQ(saved(number), Bytes({0x42, 0x86, 0x81, 0x06}));
  number->set(5);
  number.alwaysSave();
  EXPECT_EQ(saved(number), Bytes({0x42, 0x86, 0x81, 0x05}));

  TElt<VString, 0x4282, EltName0x4282> text;
  text->init("eng");
  TElt<VFloat, 0x4286, EltName0x4286> rate;
  rate->init(1.0);
  TElt<VInt, 0x4286, EltName0x4286> offset;
  offset->init(-1);
  // Unix 978307200 is the zero of dates, which is also their default.
  TElt<VDate, 0x4286, EltName0x4286> date;
  date->setTime(978307200);
  TElt<VBytes<4>, 0x4286, EltName0x4286> bytes;
  TElt<VBinary, 0x4286, EltName0x4286> binary;
  TElt<VEltPosition, 0x4286, EltName0x4286> position;
  for (const IElement* e : std::vector<const IElement*>{&text, &rate, &offset, &date, &bytes, &binary, &position}) {
    EXPECT_EQ(e->calcSize(), 0u);
    EXPECT_TRUE(saved(*e).empty());
  }

  // The empty receipt of a skipped element sits at the current position.
  FileStorage fs(dir_.path("out.bin"), File::kReadWrite);
  fs.file().seek(7);
  ReceiptPtr r = text.save(fs);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->position(), 7u);
  EXPECT_EQ(r->numBytes(), 0u);

  // A loaded value equal to the default is default again.
  VUInt one;
  one.setDefault(1);
  one.set(9);
  EXPECT_EQ(loaded(one, {0x01}), 1u);
  EXPECT_TRUE(one.isDefault());
  VString und;
  und.setDefault("und");
  EXPECT_EQ(loaded(und, {0x75, 0x6E, 0x64}), 3u);
  EXPECT_TRUE(und.isDefault());
}

}  // namespace
