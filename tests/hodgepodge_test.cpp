#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "kapsel/file.h"
#include "kapsel/hodgepodge.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using kapsel_test::TempDir;
using Bytes = std::vector<unsigned char>;

Bytes counting(size_t n, unsigned first) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<unsigned char>(1 + (first + i) % 251);
  return b;
}

TEST(HodgePodge, DryRunsFailedStoresAndLoading) {
  TempDir dir;
  FileStorage fs(dir.path("h.bin"), File::kReadWrite);
  MemoryStorage mem;
  HodgePodge h;
  Bytes out;
  EXPECT_FALSE(h.get(out));
  NullStorage null(7);
  ReceiptPtr none = h.save(null);
  ASSERT_TRUE(none);
  EXPECT_EQ(none->position(), 7u);

  // A dry run reads nothing and passes over empty pieces, as the real save does.
  h.add(Bytes{1, 2, 3}, fs);
  h.add(Bytes{4, 5, 6, 7, 8}, fs);
  h.add(Bytes{}, mem);
  h.add(Bytes{9, 10}, mem);
  NullStorage at100(100);
  ReceiptPtr dry = h.save(at100);
  ASSERT_TRUE(dry);
  EXPECT_EQ(dry->position(), 100u);
  EXPECT_EQ(dry->numBytes(), 10u);
  EXPECT_EQ(at100.receipt()->position(), 110u);

  // A failed store adds a null receipt, which spoils get and save but not the count.
  FileStorage broken(dir.path("no/such.bin"), File::kReadWrite);
  h.add(Bytes{11}, broken);
  EXPECT_EQ(h.size(), 5u);
  EXPECT_EQ(h.numBytes(), 10u);
  EXPECT_FALSE(h.get(out));
  EXPECT_FALSE(h.save(mem));

  // Loading only remembers where the bytes are.
  fs.file().seek(2);
  EXPECT_EQ(h.load(fs, 4), 4u);
  EXPECT_EQ(fs.file().absolutePosition(), 6u);
  ASSERT_EQ(h.size(), 1u);
  EXPECT_EQ(h[0]->position(), 2u);
  ASSERT_TRUE(h.get(out));
  EXPECT_EQ(out, Bytes({3, 4, 5, 6}));
}

TEST(HodgePodge, RandomSequencesMatchTheirFlattenedBytes) {
  TempDir dir;
  FileStorage fs(dir.path("r.bin"), File::kReadWrite);
  MemoryStorage mem;
  std::vector<Bytes> owned;  // memory that const-memory receipts point into
  owned.reserve(1000);
  std::mt19937 rng(7);
  auto rnd = [&](uint64_t lo, uint64_t hi) { return std::uniform_int_distribution<uint64_t>(lo, hi)(rng); };
  for (int round = 0; round < 60; ++round) {
    HodgePodge h;
    Bytes flat;
    std::vector<uint64_t> kinds, starts;
    for (int p = static_cast<int>(rnd(1, 10)); p > 0; --p) {
      const Bytes piece = counting(rnd(0, 400), static_cast<unsigned>(rng()));
      const auto size = static_cast<unsigned long>(piece.size());
      const uint64_t kind = rnd(0, 2);
      if (kind == 2) owned.push_back(piece);
      ReceiptPtr r = kind == 0   ? mem.save(piece.data(), size)
                     : kind == 1 ? fs.save(piece.data(), size)
                                 : receiptForConstMemory(owned.back().data(), size);
      if (rnd(0, 5) == 0) {
        h.set(r);
        flat.clear();
        kinds.clear();
        starts.clear();
      } else {
        h.add(r);
      }
      starts.push_back(flat.size());
      kinds.push_back(kind);
      flat.insert(flat.end(), piece.begin(), piece.end());
    }
    ASSERT_EQ(h.numBytes(), flat.size());
    Bytes got;
    ASSERT_TRUE(h.get(got));
    ASSERT_EQ(got, flat);

    fs.file().seek(0, File::kRelativeToEnd);
    const uint64_t end = fs.file().absolutePosition();
    ReceiptPtr saved = h.save(fs);
    ASSERT_TRUE(saved);
    EXPECT_EQ(saved->position(), end);
    ASSERT_TRUE(load(saved, got));
    EXPECT_EQ(got, flat);
    NullStorage dry(1000);
    ReceiptPtr counted = h.save(dry);
    ASSERT_TRUE(counted);
    EXPECT_EQ(counted->numBytes(), flat.size());

    // Sub-ranges exist only inside one receipt; a zero-length receipt never holds a position.
    HodgePodgeConstIter it(h);
    for (int q = 0; q < 40; ++q) {
      const uint64_t pos = rnd(0, flat.size() + 2), n = rnd(0, 200);
      size_t k = 0;
      while (k + 1 < starts.size() && starts[k + 1] <= pos) ++k;
      const uint64_t rEnd = k + 1 < starts.size() ? starts[k + 1] : flat.size();
      const bool inside = pos < flat.size() && pos + n <= rEnd;
      ReceiptPtr sub = it.receipt(pos, n);
      ASSERT_EQ(static_cast<bool>(sub), inside) << pos << "+" << n;
      if (!inside) continue;
      ASSERT_EQ(sub->numBytes(), n);
      if (kinds[k] == 0) {
        EXPECT_EQ(sub->position(), pos - starts[k] + n);  // a memory sub-receipt starts n further on
      } else {
        ASSERT_TRUE(load(sub, got));
        EXPECT_TRUE(std::equal(got.begin(), got.end(), flat.begin() + static_cast<long>(pos)));
      }
    }

    // Byte access, read through the cache, is exact within a file-backed first receipt.
    HodgePodge single;
    single.add(saved);
    HodgePodgeConstIter bytes(single);
    for (int q = 0; q < 300; ++q) {
      const uint64_t pos = rnd(0, flat.size() + 130);
      const int64_t i = static_cast<int64_t>(rnd(0, 260)) - 130;
      bytes.setpos(pos);
      const uint64_t at = pos + static_cast<uint64_t>(i);
      ASSERT_EQ(bytes[i], at < flat.size() ? flat[at] : 0) << pos << " " << i;
      ASSERT_EQ(*bytes, pos < flat.size() ? flat[pos] : 0);
    }
  }
}

TEST(HodgePodgeConstIter, CachesOneAlignedWindowOf128BytesOffsetByTheReceiptStart) {
  TempDir dir;
  FileStorage fs(dir.path("c.bin"), File::kReadWrite);
  const Bytes data = counting(300, 0), a = counting(3, 100), b = counting(1000, 0);
  ReceiptPtr r = fs.save(data.data(), 300);
  HodgePodge h;
  h.add(r);
  HodgePodgeConstIter it(h, 5);
  EXPECT_EQ(*it, data[5]);
  const Bytes changed(300, 0xEE);
  ASSERT_TRUE(r->save(changed.data(), 300));
  EXPECT_EQ(it[0], data[5]);  // still the old window [0, 128)
  EXPECT_EQ(it[122], data[127]);
  EXPECT_EQ(it[123], 0xEE);  // position 128: a new window
  it.setpos(299);
  EXPECT_EQ(*it, 0xEE);  // the last window is cut at the receipt's end
  EXPECT_EQ(it[1], 0);

  // In a later receipt the window is read its start (3) too far on: position 200 reads b[128 + 3 + 72].
  FileStorage other(dir.path("o.bin"), File::kReadWrite);
  HodgePodge two;
  two.add(other.save(a.data(), 3));
  two.add(other.save(b.data(), 1000));
  HodgePodgeConstIter ti(two);
  EXPECT_EQ(ti[2], a[2]);
  EXPECT_EQ(ti[200], b[203]);
  EXPECT_EQ(ti[255], b[258]);
  EXPECT_EQ(ti[900], 0);  // the shifted window runs past the receipt: nothing is read

  // Over a memory receipt the window is also shifted by its own length.
  MemoryStorage mem;
  HodgePodge m;
  m.add(mem.save(data.data(), 300));
  HodgePodgeConstIter mi(m);
  EXPECT_EQ(mi[0], data[128]);
  EXPECT_EQ(mi[127], data[255]);
  EXPECT_EQ(mi[128], 0);
}

TEST(HodgePodge, EqualityComparesCountsAndThenOnlyItsOwnBytes) {
  MemoryStorage mem;
  NullStorage null(0);
  HodgePodge a, b, c, unreadable;
  a.add(Bytes{1, 2, 3}, mem);
  a.add(Bytes{4}, mem);
  b.add(Bytes{9, 9}, mem);
  b.add(Bytes{9, 9, 9}, mem);
  unreadable.add(Bytes{1, 2}, null);
  unreadable.add(Bytes{3, 4}, null);
  c.add(Bytes{1, 2, 3, 4}, mem);
  EXPECT_TRUE(a == b);  // same number of receipts, whatever the bytes
  EXPECT_FALSE(a == c);  // same bytes, different number of receipts
  EXPECT_TRUE(a != c);
  EXPECT_TRUE(HodgePodge() == HodgePodge());
  EXPECT_FALSE(HodgePodge() == a);
  EXPECT_TRUE(a == unreadable);
  EXPECT_FALSE(unreadable == a);
}

}  // namespace
