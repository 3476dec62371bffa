#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "kapsel/element.h"
#include "kapsel/file.h"
#include "kapsel/payload.h"
#include "kapsel/storage.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using Bytes = std::vector<unsigned char>;

using kapsel_test::readFile;
using kapsel_test::writeFile;

KAPSEL_ELT_NAME(0x4286, "Number");
KAPSEL_ELT_NAME(0x4282, "Text");
KAPSEL_ELT_NAME(0x53AC, "Position");

class PayloadRoundTrip : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto* info = ::testing::UnitTest::GetInstance()->current_test_info();
    path_ = ::testing::TempDir() + "kapsel_payload_" + info->name() + "_" + std::to_string(getpid()) + ".bin";
    std::remove(path_.c_str());
  }
  void TearDown() override { std::remove(path_.c_str()); }

  // Saves the payload alone into a new file and returns what landed on disk.
  Bytes saved(const IPayload& payload) {
    std::remove(path_.c_str());
    {
      FileStorage fs(path_, File::kReadWrite);
      ReceiptPtr r = payload.save(fs);
      EXPECT_TRUE(r);
      if (r) {
        EXPECT_EQ(r->position(), 0u);
        EXPECT_EQ(r->numBytes(), fs.file().absolutePosition());
      }
      fs.file().close();  // receipts share the file: closing is what writes it back
    }
    return readFile(path_);
  }

  Bytes savedElement(const IElement& element) {
    std::remove(path_.c_str());
    {
      FileStorage fs(path_, File::kReadWrite);
      ReceiptPtr r = element.save(fs);
      EXPECT_TRUE(r);
      if (r) {
        EXPECT_EQ(r->numBytes(), fs.file().absolutePosition());
      }
      fs.file().close();
    }
    return readFile(path_);
  }

  // Loads the payload from a file holding exactly these bytes.
  uint64_t loaded(IPayload& payload, const Bytes& bytes) {
    writeFile(path_, bytes);
    FileStorage fs(path_, File::kReadOnly);
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

  std::string path_;
};

TEST_F(PayloadRoundTrip, UIntIsMinimalBigEndian) {
  struct Case {
    uint64_t value;
    Bytes disk;
  } cases[] = {
      {0, {0x00}},
      {0xFF, {0xFF}},
      {0x100, {0x01, 0x00}},
      {0x0102030405ull, {0x01, 0x02, 0x03, 0x04, 0x05}},
      {~0ull, Bytes(8, 0xFF)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    VUInt v;
    v.set(c.value);
    EXPECT_EQ(v.calcSize(), c.disk.size());
    EXPECT_EQ(roundTrip(v, c.disk).get(), c.value);
  }
}

TEST_F(PayloadRoundTrip, UIntSizeHintIsCountedButNotWritten) {
  VUInt v(4);
  v.set(5);
  EXPECT_EQ(v.calcSize(), 4u);
  EXPECT_EQ(saved(v), Bytes({0x05}));

  // Leading zero bytes on disk are accepted; the value goes back out minimal.
  VUInt wide;
  EXPECT_EQ(loaded(wide, {0x00, 0x00, 0x00, 0x05}), 4u);
  EXPECT_EQ(wide.get(), 5u);
  EXPECT_EQ(saved(wide), Bytes({0x05}));

  // More than eight bytes: the low eight are kept.
  VUInt tooWide;
  EXPECT_EQ(loaded(tooWide, {0xAA, 0x01, 0, 0, 0, 0, 0, 0, 0x02}), 9u);
  EXPECT_EQ(tooWide.get(), 0x0100000000000002ull);
}

TEST_F(PayloadRoundTrip, IntIsTwosComplement) {
  struct Case {
    int64_t value;
    Bytes disk;
  } cases[] = {
      {0, {0x00}},
      {-1, {0xFF}},
      {127, {0x7F}},
      {128, {0x00, 0x80}},
      {-128, {0x80}},
      {-129, {0xFF, 0x7F}},
      {std::numeric_limits<int64_t>::min(), {0x80, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.value);
    VInt v;
    v.set(c.value);
    EXPECT_EQ(v.calcSize(), c.disk.size());
    EXPECT_EQ(roundTrip(v, c.disk).get(), c.value);
  }

  VInt v;
  EXPECT_EQ(loaded(v, {0xFF}), 1u);
  EXPECT_EQ(v.get(), -1);
  EXPECT_EQ(loaded(v, {0x7F}), 1u);
  EXPECT_EQ(v.get(), 127);
  EXPECT_EQ(loaded(v, {0x00, 0xFF}), 2u);
  EXPECT_EQ(v.get(), 255);
  EXPECT_EQ(loaded(v, Bytes(8, 0xFF)), 8u);
  EXPECT_EQ(v.get(), -1);

  VInt hinted(3);
  hinted.set(-2);
  EXPECT_EQ(hinted.calcSize(), 3u);
  EXPECT_EQ(saved(hinted), Bytes({0xFE}));
}

TEST_F(PayloadRoundTrip, FloatWidthFollowsWhatWasLoaded) {
  VFloat single;
  single.set(1.5);
  EXPECT_EQ(single.calcSize(), 4u);
  VFloat back = roundTrip(single, {0x3F, 0xC0, 0x00, 0x00});
  EXPECT_EQ(back.get(), 1.5);
  EXPECT_EQ(back.calcSize(), 4u);

  // 0.1 is not exact in single precision: four bytes lose the tail.
  single.set(0.1);
  EXPECT_EQ(roundTrip(single, {0x3D, 0xCC, 0xCC, 0xCD}).get(), static_cast<double>(0.1f));

  const Bytes doubleOnePointFive = {0x3F, 0xF8, 0, 0, 0, 0, 0, 0};
  VFloat loadedDouble;
  EXPECT_EQ(loaded(loadedDouble, doubleOnePointFive), 8u);
  EXPECT_EQ(loadedDouble.get(), 1.5);
  EXPECT_EQ(loadedDouble.calcSize(), 8u);
  EXPECT_EQ(saved(loadedDouble), doubleOnePointFive);

  // And a four-byte value narrows it again.
  EXPECT_EQ(loaded(loadedDouble, {0xC0, 0x00, 0x00, 0x00}), 4u);
  EXPECT_EQ(loadedDouble.get(), -2.0);
  EXPECT_EQ(loadedDouble.calcSize(), 4u);

  VFloat wide(8);
  wide.set(0.1);
  EXPECT_EQ(roundTrip(wide, {0x3F, 0xB9, 0x99, 0x99, 0x99, 0x99, 0x99, 0x9A}).get(), 0.1);
}

TEST_F(PayloadRoundTrip, DateCountsNanosecondsFrom2001) {
  VDate date;
  date.setTime(978307200);
  EXPECT_EQ(date.get(), 0);
  EXPECT_EQ(date.calcSize(), 8u);
  EXPECT_EQ(roundTrip(date, Bytes(8, 0x00)).getTime(), 978307200);

  date.setTime(978307201);
  EXPECT_EQ(roundTrip(date, {0, 0, 0, 0, 0x3B, 0x9A, 0xCA, 0x00}).get(), 1000000000);

  // Before 2001 the value is negative and stays so through eight bytes.
  date.setTime(0);
  const VDate back = roundTrip(date, {0xF2, 0x6C, 0x5A, 0xC8, 0xEE, 0xCB, 0x00, 0x00});
  EXPECT_EQ(back.get(), -978307200000000000LL);
  EXPECT_EQ(back.getTime(), 0);
}

TEST_F(PayloadRoundTrip, StringKeepsEveryByte) {
  VString text;
  text.set("abc");
  EXPECT_EQ(roundTrip(text, {0x61, 0x62, 0x63}).get(), "abc");

  VString hinted(8);
  hinted.set("ab");
  EXPECT_EQ(hinted.calcSize(), 8u);
  EXPECT_EQ(saved(hinted), Bytes({0x61, 0x62}));

  VString embedded;
  EXPECT_EQ(loaded(embedded, {0x61, 0x00, 0x62}), 3u);
  EXPECT_EQ(embedded.get().size(), 3u);
  EXPECT_EQ(embedded.get(), std::string("a\0b", 3));
  EXPECT_EQ(saved(embedded), Bytes({0x61, 0x00, 0x62}));

  VString empty;
  empty.set("old");
  FileStorage unopened;
  EXPECT_EQ(empty.load(unopened, 0, nullptr), 0u);
  EXPECT_EQ(empty.get(), "");
  EXPECT_EQ(empty.calcSize(), 0u);
  EXPECT_TRUE(saved(empty).empty());

  text.set(static_cast<const char*>(nullptr));
  EXPECT_EQ(text.get(), "");
}

TEST_F(PayloadRoundTrip, BinaryIsCopiedThroughReceipts) {
  const Bytes data = {0x01, 0x02, 0x03, 0x00, 0xFF};
  MemoryStorage memory;
  VBinary binary;
  EXPECT_TRUE(binary.isDefault());
  binary.set(data, memory);
  EXPECT_FALSE(binary.isDefault());
  EXPECT_EQ(binary.calcSize(), 5u);

  VBinary back = roundTrip(binary, data);
  EXPECT_EQ(back.numBytes(), 5u);
  Bytes got;
  ASSERT_TRUE(back.get(got));
  EXPECT_EQ(got, data);

  // The loaded value refers to the first file; saving it copies from there.
  const std::string second = path_ + ".copy";
  std::remove(second.c_str());
  {
    FileStorage fs(second, File::kReadWrite);
    ReceiptPtr r = back.save(fs);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->numBytes(), 5u);
    fs.file().close();
  }
  EXPECT_EQ(readFile(second), data);
  std::remove(second.c_str());

  VBinary empty;
  Bytes none = {0x42};
  EXPECT_TRUE(empty.get(none));
  EXPECT_TRUE(none.empty());
}

TEST_F(PayloadRoundTrip, FixedBytes) {
  const unsigned char four[4] = {0xDE, 0xAD, 0xBE, 0xEF};
  VBytes<4> id;
  EXPECT_TRUE(id.isDefault());
  id.set(four);
  EXPECT_FALSE(id.isDefault());
  EXPECT_EQ(id.calcSize(), 4u);
  const auto back = roundTrip(id, Bytes(four, four + 4));
  EXPECT_EQ(back.get()[0], 0xDE);
  EXPECT_EQ(back.get()[3], 0xEF);
  id.setDefault(four);
  EXPECT_TRUE(id.isDefault());

  Bytes sixteen(16);
  for (unsigned i = 0; i < 16; ++i) sixteen[i] = static_cast<unsigned char>(0xF0 + i);
  VBytes<16> uid;
  uid.set(sixteen.data());
  EXPECT_EQ(uid.calcSize(), 16u);
  const auto uidBack = roundTrip(uid, sixteen);
  EXPECT_EQ(Bytes(uidBack.get().begin(), uidBack.get().end()), sixteen);

  // A short payload fills the front; a long one keeps the first N bytes and is consumed whole.
  VBytes<4> odd;
  EXPECT_EQ(loaded(odd, {0x01, 0x02}), 2u);
  EXPECT_EQ(Bytes(odd.get().begin(), odd.get().end()), Bytes({0x01, 0x02, 0x00, 0x00}));
  EXPECT_EQ(loaded(odd, {0x09, 0x08, 0x07, 0x06, 0x05, 0x04}), 6u);
  EXPECT_EQ(Bytes(odd.get().begin(), odd.get().end()), Bytes({0x09, 0x08, 0x07, 0x06}));
}

TEST_F(PayloadRoundTrip, EltPositionExplicit) {
  VEltPosition fresh;
  EXPECT_TRUE(fresh.isDefault());
  EXPECT_FALSE(fresh.hasPosition());
  EXPECT_EQ(fresh.maxSize(), 8u);
  EXPECT_EQ(fresh.calcSize(), 8u);
  EXPECT_EQ(fresh.getOriginPosition(), 0u);

  VEltPosition p;
  p.setPosition(300);
  EXPECT_EQ(p.maxSize(), 2u);
  EXPECT_TRUE(p.hasPosition());
  EXPECT_FALSE(p.isDefault());
  const VEltPosition back = roundTrip(p, {0x01, 0x2C});
  EXPECT_EQ(back.position(), 300u);
  EXPECT_EQ(back.maxSize(), 2u);
  EXPECT_TRUE(back.hasPosition());

  p.setPosition(0);
  EXPECT_EQ(p.maxSize(), 1u);
  EXPECT_EQ(saved(p), Bytes({0x00}));

  // Narrowing a reference without a position keeps it without one.
  VEltPosition none;
  none.setMaxSize(4);
  EXPECT_FALSE(none.hasPosition());
  EXPECT_EQ(none.position(), 0xFFFFFFFFull);
  none.setMaxSize(20);
  EXPECT_EQ(none.maxSize(), 8u);
  EXPECT_EQ(none.position(), ~0ull);

  VEltPosition empty;
  EXPECT_EQ(loaded(empty, {}), 0u);
  EXPECT_FALSE(empty.hasPosition());
}

TEST_F(PayloadRoundTrip, EltPositionIsRelativeToOriginPayload) {
  TElt<VString, 0x4282, EltName0x4282> origin;
  TElt<VUInt, 0x4286, EltName0x4286> target;
  TElt<VEltPosition, 0x53AC, EltName0x53AC> ref;
  origin->set("abcd");
  target->set(1);
  ref->setOrigin(&origin);
  ref->setElt(&target);
  EXPECT_FALSE(ref->isDefault());
  EXPECT_EQ(ref->getOriginPosition(), 0u);  // the origin has not been saved yet
  {
    FileStorage fs(path_, File::kReadWrite);
    ASSERT_TRUE(origin.save(fs));  // 0..6, payload at 3
    ASSERT_TRUE(target.save(fs));  // 7..10
    EXPECT_EQ(ref->getOriginPosition(), 3u);
    EXPECT_EQ(ref->calcSize(), 1u);
    ASSERT_TRUE(ref.save(fs));  // 11..14, value 7 - 3
    // The target moves; rewrite patches the held byte in place.
    ASSERT_TRUE(target.save(fs));  // 15..18
    EXPECT_TRUE(ref->rewrite());
    fs.file().close();
  }
  EXPECT_EQ(readFile(path_), Bytes({0x42, 0x82, 0x84, 0x61, 0x62, 0x63, 0x64, 0x42, 0x86, 0x81, 0x01, 0x53, 0xAC,
                                    0x81, 0x0C, 0x42, 0x86, 0x81, 0x01}));
}

TEST_F(PayloadRoundTrip, EltPositionWidensWhenTargetMovesFar) {
  TElt<VUInt, 0x4286, EltName0x4286> target;
  TElt<VEltPosition, 0x53AC, EltName0x53AC> ref;
  target->set(1);
  ref->setElt(&target);
  {
    FileStorage fs(path_, File::kReadWrite);
    ASSERT_TRUE(target.save(fs));  // at 0
    ASSERT_TRUE(ref.save(fs));     // 53 AC 81 00 at 4
    EXPECT_EQ(ref->calcSize(), 1u);
    fs.file().seek(300);
    ASSERT_TRUE(target.save(fs));
    // One held byte cannot carry 300: the element must announce the two it writes.
    EXPECT_EQ(ref->calcSize(), 2u);
    fs.file().seek(8);
    ASSERT_TRUE(ref.save(fs));
    fs.file().close();
  }
  const Bytes disk = readFile(path_);
  ASSERT_GE(disk.size(), 13u);
  EXPECT_EQ(Bytes(disk.begin() + 4, disk.begin() + 13), Bytes({0x53, 0xAC, 0x81, 0x00, 0x53, 0xAC, 0x82, 0x01, 0x2C}));
}

class PayloadDefaults : public PayloadRoundTrip {};

TEST_F(PayloadDefaults, ValuesEqualToTheirDefaultAreNotWritten) {
  TElt<VUInt, 0x4286, EltName0x4286> number;
  number->init(5);
  EXPECT_FALSE(number.mustSave());
  EXPECT_EQ(number.calcSize(), 0u);
  EXPECT_TRUE(savedElement(number).empty());
  number->set(6);
  EXPECT_EQ(number.calcSize(), 4u);
  EXPECT_EQ(savedElement(number), Bytes({0x42, 0x86, 0x81, 0x06}));
  number->set(5);
  number.alwaysSave();
  EXPECT_EQ(savedElement(number), Bytes({0x42, 0x86, 0x81, 0x05}));

  TElt<VString, 0x4282, EltName0x4282> text;
  text->init("eng");
  EXPECT_EQ(text.calcSize(), 0u);
  EXPECT_TRUE(savedElement(text).empty());

  TElt<VFloat, 0x4286, EltName0x4286> rate;
  rate->init(1.0);
  EXPECT_TRUE(savedElement(rate).empty());

  TElt<VInt, 0x4286, EltName0x4286> offset;
  offset->init(-1);
  EXPECT_TRUE(savedElement(offset).empty());

  // Unix 978307200 is the zero of dates, which is also their default.
  TElt<VDate, 0x4286, EltName0x4286> date;
  date->setTime(978307200);
  EXPECT_TRUE(savedElement(date).empty());

  TElt<VBytes<4>, 0x4286, EltName0x4286> bytes;
  TElt<VBinary, 0x4286, EltName0x4286> binary;
  TElt<VEltPosition, 0x4286, EltName0x4286> position;
  EXPECT_EQ(bytes.calcSize() + binary.calcSize() + position.calcSize(), 0u);
  EXPECT_TRUE(savedElement(bytes).empty());
  EXPECT_TRUE(savedElement(binary).empty());
  EXPECT_TRUE(savedElement(position).empty());

  // The empty receipt of a skipped element sits at the current position.
  {
    FileStorage fs(path_, File::kReadWrite);
    fs.file().seek(7);
    ReceiptPtr r = text.save(fs);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->position(), 7u);
    EXPECT_EQ(r->numBytes(), 0u);
  }
}

TEST_F(PayloadDefaults, LoadedDefaultIsDefaultAgain) {
  VUInt number;
  number.setDefault(1);
  number.set(9);
  EXPECT_EQ(loaded(number, {0x01}), 1u);
  EXPECT_TRUE(number.isDefault());

  VString text;
  text.setDefault("und");
  EXPECT_EQ(loaded(text, {0x75, 0x6E, 0x64}), 3u);
  EXPECT_TRUE(text.isDefault());
}

}  // namespace
