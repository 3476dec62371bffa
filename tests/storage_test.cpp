#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "kapsel/storage.h"

namespace {

using namespace Kapsel;
using Bytes = std::vector<unsigned char>;

Bytes load(const ReceiptPtr& r) {
  Bytes out(r->numBytes(), 0xEE);
  EXPECT_TRUE(r->load(out.data()));
  return out;
}

void expectRange(const ReceiptPtr& r, uint64_t position, uint64_t numBytes) {
  ASSERT_TRUE(r);
  EXPECT_EQ(r->position(), position);
  EXPECT_EQ(r->numBytes(), numBytes);
}

TEST(NullStorage, CountsPositionsAndChecksSubRanges) {
  NullStorage s(100);
  const unsigned char data[7] = {};
  expectRange(s.save(data, 7), 100, 7);
  EXPECT_EQ(s.skip(5), 5u);
  // A skip of nothing counts as a failure.
  expectRange(s.skipWithReceipt(9), 112, 9);
  EXPECT_FALSE(s.skipWithReceipt(0));
  EXPECT_EQ(s.receipt()->position(), 121u);

  NullStorage::Receipt ten(50, 10);
  expectRange(ten.receipt(4, 6), 54, 6);
  expectRange(ten.receipt(10, 0), 60, 0);
  EXPECT_FALSE(ten.receipt(4, 7));
  EXPECT_FALSE(ten.receipt(11, 0));
}

TEST(MemoryStorage, SavesCopiesAndReceiptsNeverGrowTheirBuffer) {
  MemoryStorage s;
  Bytes src = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  ReceiptPtr r = s.save(src.data(), 10);
  expectRange(r, 0, 10);
  src[0] = 99;  // the store keeps its own copy
  EXPECT_EQ(load(r), Bytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));

  // Every save is a separate buffer; the store itself has no position.
  expectRange(s.save(src.data(), 3), 0, 3);
  EXPECT_FALSE(s.skipWithReceipt(2));
  unsigned char buf[4] = {0xAA, 0xAA, 0xAA, 0xAA};
  ReceiptPtr empty = s.save(src.data(), 0);
  expectRange(empty, 0, 0);
  EXPECT_TRUE(empty->load(buf));
  EXPECT_EQ(buf[0], 0xAA);
  ReceiptPtr fresh = s.receipt();
  ASSERT_TRUE(fresh);
  EXPECT_TRUE(fresh->save(src.data(), 0));
  EXPECT_FALSE(fresh->save(src.data(), 1));

  const unsigned char four[4] = {0x11, 0x22, 0x33, 0x44}, five[5] = {9, 8, 7, 6, 5};
  ReceiptPtr r4 = s.save(four, 4);
  EXPECT_FALSE(r4->save(five, 5));
  EXPECT_TRUE(r4->save(five, 2));
  EXPECT_EQ(load(r4), Bytes({9, 8, 0x33, 0x44}));
}

TEST(MemoryStorage, SubReceiptStartsItsLengthBeyondTheOffset) {
  MemoryStorage s;
  const Bytes src = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9};
  ReceiptPtr r = s.save(src.data(), 10);
  ReceiptPtr sub = r->receipt(2, 3);
  expectRange(sub, 5, 3);
  EXPECT_EQ(load(sub), Bytes({5, 6, 7}));
  EXPECT_EQ(sub->receipt(1, 1)->position(), 7u);
  EXPECT_EQ(r->receipt(0, 0)->position(), 0u);

  // The sub-receipt shares the buffer: writes through it show in the parent.
  const unsigned char x[3] = {0xA0, 0xA1, 0xA2};
  EXPECT_TRUE(sub->save(x, 3));
  EXPECT_EQ(load(r), Bytes({0, 1, 2, 3, 4, 0xA0, 0xA1, 0xA2, 8, 9}));
  EXPECT_FALSE(sub->save(src.data(), 6));  // 5 + 6 > 10

  // Ranges are checked only when read: one past the buffer fails then.
  ReceiptPtr beyond = r->receipt(5, 5);
  expectRange(beyond, 10, 5);
  unsigned char buf[5];
  EXPECT_FALSE(beyond->load(buf));

  // The buffer lives as long as the last receipt over it.
  r = ReceiptPtr();
  EXPECT_EQ(load(sub), Bytes({0xA0, 0xA1, 0xA2}));
}

TEST(MemReceipt, WorksInPlaceOnCallerMemory) {
  unsigned char block[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  ReceiptPtr r = receiptForMemory(block, 8);
  expectRange(r, reinterpret_cast<uintptr_t>(block), 8);
  const unsigned char src[9] = {0xF0, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8};
  EXPECT_FALSE(r->save(src, 9));
  EXPECT_TRUE(r->save(src, 3));
  EXPECT_EQ(r->numBytes(), 8u);
  ReceiptPtr sub = r->receipt(2, 3);
  EXPECT_EQ(sub->position(), reinterpret_cast<uintptr_t>(block + 2));
  EXPECT_EQ(load(sub), Bytes({0xF2, 4, 5}));
  EXPECT_TRUE(sub->save(src + 5, 2));
  EXPECT_EQ(Bytes(block, block + 8), Bytes({0xF0, 0xF1, 0xF5, 0xF6, 5, 6, 7, 8}));

  const unsigned char ro[8] = {8, 7, 6, 5, 4, 3, 2, 1};
  ReceiptPtr c = receiptForConstMemory(ro, 8);
  EXPECT_FALSE(c->save(src, 1));
  EXPECT_EQ(load(c), Bytes({8, 7, 6, 5, 4, 3, 2, 1}));
  ReceiptPtr csub = c->receipt(6, 2);
  EXPECT_EQ(csub->position(), reinterpret_cast<uintptr_t>(ro + 6));
  EXPECT_FALSE(csub->save(src, 1));  // sub-receipts stay read-only
  EXPECT_EQ(load(csub), Bytes({2, 1}));
}

}  // namespace
