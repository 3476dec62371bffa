#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kapsel/ebml.h"
#include "kapsel/file.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using kapsel_test::readFile;
using kapsel_test::TempDir;
using Bytes = std::vector<unsigned char>;

uint32_t crcOf(const Bytes& b, uint64_t from, uint64_t n, Crc32* more = nullptr) {
  Crc32 crc;
  Crc32& c = more ? *more : crc;
  c.compute(b.data() + from, n);
  return c.checksum();
}

// What the file should hold once every line is written back, plus the logical size and position.
struct Model {
  Bytes content;
  uint64_t size = 0, pos = 0;
  void put(uint64_t at, const Bytes& b) {
    size = std::max(size, at);
    if (b.empty()) return;  // writing nothing does not lengthen what is stored
    if (content.size() < at + b.size()) content.resize(at + b.size(), 0);
    std::copy(b.begin(), b.end(), content.begin() + static_cast<long>(at));
    size = std::max(size, at + b.size());
  }
  uint64_t readable(uint64_t at, uint64_t n) const {
    return at < content.size() ? std::min<uint64_t>(n, content.size() - at) : 0;
  }
  bool same(const Bytes& got, uint64_t at, uint64_t n) const {
    return std::equal(got.begin(), got.begin() + static_cast<long>(n), content.begin() + static_cast<long>(at));
  }
};

TEST(FileRandomized, MatchesAPlainByteModel) {
  TempDir dir;
  for (unsigned seed = 1; seed <= 4; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 rng(seed);
    auto rnd = [&](uint64_t lo, uint64_t hi) { return std::uniform_int_distribution<uint64_t>(lo, hi)(rng); };
    auto randomBytes = [&](size_t n) {
      Bytes b(n);
      for (auto& c : b) c = static_cast<unsigned char>(rng());
      return b;
    };
    const std::string path = dir.path("r" + std::to_string(seed));
    FileStorage fs(path, File::kReadWrite);
    File& f = fs.file();
    ASSERT_TRUE(f.isOpen());
    Model m;
    std::vector<ReceiptPtr> receipts;
    auto pick = [&]() { return receipts[rnd(0, receipts.size() - 1)]; };

    for (int op = 0; op < 3000; ++op) {
      const unsigned kind = static_cast<unsigned>(rnd(0, 99));
      if (kind < 30) {  // write, now and then larger than the line
        const unsigned long before = f.cache()->lineSize();
        const size_t n = rnd(0, 15) == 0 ? rnd(4097, 40000) : rnd(0, 300);
        const Bytes b = randomBytes(n);
        if (kind % 2) {
          ReceiptPtr r = fs.save(b.data(), n);
          ASSERT_TRUE(r);
          EXPECT_EQ(r->position(), m.pos);
          EXPECT_EQ(r->numBytes(), n);
          if (receipts.size() == 64) receipts.erase(receipts.begin() + static_cast<long>(rnd(0, 63)));
          receipts.push_back(r);
        } else {
          ASSERT_TRUE(f.save(b.data(), n));
        }
        m.put(m.pos, b);
        m.pos += n;
        EXPECT_EQ(f.cache()->lineSize(), n > before ? (n + before - 1) / before * before : before);
      } else if (kind < 45) {  // seek, also through a copy of the handle
        File other(f);
        if (kind % 3 == 0) {
          m.pos = rnd(0, m.size + 6000);
          other.seek(static_cast<int64_t>(m.pos));
        } else if (kind % 3 == 1) {
          const int64_t back = static_cast<int64_t>(std::min<uint64_t>(m.pos, 1500));
          const int64_t d = static_cast<int64_t>(rnd(0, 3000)) - back;
          f.seek(d, File::kRelativeToCurrent);
          m.pos += static_cast<uint64_t>(d);
        } else {
          f.seek(-12345, File::kRelativeToEnd);  // the offset is ignored
          m.pos = m.size;
        }
        m.size = std::max(m.size, m.pos);
      } else if (kind < 65) {  // read
        const size_t n = rnd(0, 40) == 0 ? rnd(4097, 20000) : rnd(0, 600);
        Bytes got(n, 0xCD);
        const uint64_t at = m.pos, expect = m.readable(at, n);
        if (kind % 3 == 0) {
          EXPECT_EQ(f.load(got.data(), n), expect == n);
          m.pos += expect;
        } else if (kind % 3 == 1) {
          EXPECT_EQ(f.peek(got.data(), n), expect);
        } else {
          ReceiptPtr r = fs.load(got.data(), n);
          EXPECT_EQ(static_cast<bool>(r), expect == n);
          EXPECT_TRUE(!r || r->position() == at);
          m.pos += expect;
        }
        EXPECT_TRUE(m.same(got, at, expect)) << "read " << n << " at " << at << " op " << op;
      } else if (kind < 75 && !receipts.empty()) {  // overwrite in place through a receipt
        ReceiptPtr r = pick();
        const uint64_t oldLen = r->numBytes();
        const Bytes b = randomBytes(rnd(0, oldLen + 20));
        ASSERT_TRUE(r->save(b.data(), static_cast<unsigned long>(b.size())));
        EXPECT_EQ(r->numBytes(), std::max<uint64_t>(oldLen, b.size()));
        m.size = std::max(m.size, r->position());
        m.put(r->position(), b);
      } else if (kind < 85 && !receipts.empty()) {  // read back and checksum through a receipt
        ReceiptPtr r = pick();
        const uint64_t p = r->position(), len = r->numBytes();
        Bytes got(len);
        const bool whole = m.readable(p, len) == len;
        EXPECT_EQ(r->load(got.data()), whole);
        m.size = std::max(m.size, p);
        EXPECT_TRUE(!whole || m.same(got, p, len));
        uint64_t off = rnd(0, len), skipLen = rnd(0, len - off);
        ReceiptPtr skip = rnd(0, 3) == 0 ? ReceiptPtr() : r->receipt(off, skipLen);
        if (!skip) off = skipLen = 0;
        Crc32 crc;
        const bool ok = r->calcCrc32(crc, skip);
        if (off > 0) m.size = std::max(m.size, p);
        bool expectOk = m.readable(p, off) == off;
        const uint64_t second = p + off + skipLen, secondLen = len - off - skipLen;
        if (expectOk && secondLen > 0) m.size = std::max(m.size, second);
        expectOk = expectOk && m.readable(second, secondLen) == secondLen;
        ASSERT_EQ(ok, expectOk) << "op " << op;
        if (ok) {
          Crc32 want;
          crcOf(m.content, p, off, &want);
          EXPECT_EQ(crc.checksum(), crcOf(m.content, second, secondLen, &want));
        }
      } else if (kind < 90) {  // truncate, sometimes lengthen
        const uint64_t newSize = rnd(0, 3) == 0 ? m.content.size() + rnd(0, 5000) : rnd(0, m.content.size());
        ASSERT_TRUE(f.setSize(static_cast<int64_t>(newSize)));
        m.content.resize(newSize, 0);
        m.size = newSize;
        m.pos = std::min(m.pos, newSize);
      } else if (kind < 93) {  // everything reaches the disk on close; receipts survive a reopen
        f.close();
        EXPECT_FALSE(f.isOpen());
        ASSERT_EQ(readFile(path), m.content) << "op " << op;
        ASSERT_TRUE(f.open(path, File::kReadWrite));
        EXPECT_EQ(f.cache()->lineSize(), 4096u);
        m.size = m.content.size();
        m.pos = 0;
      } else {  // a checksum over a range leaves the position after it
        const uint64_t start = rnd(0, m.content.size()), n = rnd(0, m.content.size() - start);
        Crc32 crc;
        ASSERT_TRUE(f.calcCrc32(static_cast<int64_t>(start), static_cast<int64_t>(n), crc));
        EXPECT_EQ(crc.checksum(), crcOf(m.content, start, n));
        if (n > 0) m.pos = start + n;
      }
      ASSERT_EQ(f.absolutePosition(), m.pos) << "op " << op << " kind " << kind;
      ASSERT_EQ(f.size(), m.size) << "op " << op << " kind " << kind;
    }
    receipts.clear();
    f.close();
    EXPECT_EQ(readFile(path), m.content);
  }
}

TEST(File, OpenAndSeekGuards) {
  TempDir dir;
  const std::string path = dir.path("a.bin");
  EXPECT_FALSE(File(path, File::kReadOnly).isOpen());
  {
    File f(path, File::kReadWrite);
    ASSERT_TRUE(f.isOpen());
    EXPECT_EQ(f.filename(), path);
    ASSERT_TRUE(save(f, Bytes(100, 0x31)));

    // Copies share one position; a guard puts it back unless told not to.
    File copy(f);
    {
      File::Seek guard(copy, 20, File::kAbsolutePosition);
      EXPECT_EQ(f.absolutePosition(), 20u);
      EXPECT_EQ(guard.absolutePosition(), 100u);
    }
    EXPECT_EQ(f.absolutePosition(), 100u);
    {
      File::Seek guard(f, 30, File::kAbsolutePosition);
      guard.doNotRestore();
    }
    EXPECT_EQ(copy.absolutePosition(), 30u);
  }
  File ro(path, File::kReadOnly);  // an existing file keeps its bytes and starts at 0
  ASSERT_TRUE(ro.isOpen());
  EXPECT_EQ(ro.size(), 100u);
  EXPECT_EQ(ro.absolutePosition(), 0u);
  EXPECT_EQ(File(path, File::kReadWrite).size(), 100u);
}

// Truncation and line growth are covered by the model above; writes beyond the growth limit are not.
TEST(File, HugeRequestsKeepTheLine) {
  TempDir dir;
  File f(dir.path("t.bin"), File::kReadWrite);
  EXPECT_EQ(f.cache()->maxLines(), 1u);
  ASSERT_TRUE(save(f, Bytes(5000, 0x55)));
  EXPECT_EQ(f.cache()->lineSize(), 8192u);
  ASSERT_TRUE(save(f, Bytes(16 * 1024 * 1024 + 1, 0x66)));  // served line by line
  EXPECT_EQ(f.cache()->lineSize(), 8192u);
  f.close();
  EXPECT_EQ(readFile(dir.path("t.bin")).size(), 5000u + 16 * 1024 * 1024 + 1);
}

TEST(FileStorage, ReceiptRangesAndSkips) {
  TempDir dir;
  FileStorage fs(dir.path("c.bin"), File::kReadWrite);
  fs.file().seek(4);
  ReceiptPtr r = fs.save(Bytes(20, 7).data(), 20);
  ASSERT_TRUE(r);
  EXPECT_TRUE(r->receipt(15, 5));
  EXPECT_FALSE(r->receipt(15, 6));
  EXPECT_EQ(r->receipt(6, 6)->position(), 10u);
  fs.file().seek(2);
  ReceiptPtr skipped = fs.skipWithReceipt(30);
  ASSERT_TRUE(skipped);
  EXPECT_EQ(skipped->position(), 2u);
  EXPECT_EQ(fs.receipt()->position(), 32u);
}

// A back end that records what the cache writes back.
struct Recorder : ICacheDataProvider {
  Bytes disk;
  std::vector<std::pair<uint64_t, unsigned long>> saves;
  bool failSaves = false;
  bool load(uint64_t position, unsigned long* n, unsigned char* dst) override {
    *n = static_cast<unsigned long>(position < disk.size() ? std::min<uint64_t>(*n, disk.size() - position) : 0);
    std::copy_n(disk.begin() + static_cast<long>(std::min<uint64_t>(position, disk.size())), *n, dst);
    return true;
  }
  bool save(uint64_t position, unsigned long n, const unsigned char* src) override {
    if (failSaves) return false;
    saves.emplace_back(position, n);
    if (disk.size() < position + n) disk.resize(position + n);
    std::copy_n(src, n, disk.begin() + static_cast<long>(position));
    return true;
  }
};

TEST(TCache, LeastRecentlyUsedWriteBackAndTheTruncateSwap) {
  using Saves = std::vector<std::pair<uint64_t, unsigned long>>;
  Recorder rec;
  const Bytes x(4, 0x11);
  {
    TCache cache(&rec, 3, 16);
    for (uint64_t at : {0, 16, 32, 2}) ASSERT_EQ(cache.save(at, 4, x.data()), 4u);  // 2 touches line 0
    EXPECT_TRUE(rec.saves.empty());  // nothing is written back early
    ASSERT_EQ(cache.save(48, 4, x.data()), 4u);  // evicts the line at 16, the oldest
    EXPECT_EQ(rec.saves, Saves({{16, 4}}));
    EXPECT_EQ(cache.lookup(16), nullptr);
    EXPECT_NE(cache.lookup(0), nullptr);

    // A failed write-back keeps the line dirty and refuses the request.
    rec.failSaves = true;
    EXPECT_EQ(cache.save(64, 4, x.data()), 0u);
    rec.failSaves = false;
    unsigned char buf[4];
    EXPECT_EQ(cache.load(64, 4, buf), 0u);  // the line at 64 was never written: nothing to read
    EXPECT_EQ(rec.saves, Saves({{16, 4}, {32, 4}}));
    rec.saves.clear();
  }
  EXPECT_EQ(rec.saves.size(), 2u);  // destruction writes back what is still dirty

  // A cut at 20 drops the lines above 16, except one swapped into a slot already examined.
  Recorder fresh;
  TCache other(&fresh, 3, 16);
  const Bytes line(16, 0x22);
  ASSERT_EQ(other.save(0, 16, line.data()), 16u);
  ASSERT_EQ(other.save(32, 4, x.data()), 4u);
  ASSERT_EQ(other.save(48, 4, x.data()), 4u);
  other.truncate(20);
  EXPECT_EQ(other.linesInUse(), 2u);
  EXPECT_EQ(other.lookup(32), nullptr);
  EXPECT_NE(other.lookup(48), nullptr);
  other.clear();
  EXPECT_EQ(fresh.saves, Saves({{0, 16}, {48, 4}}));
}

TEST(File, SparseBeyondFourGiB) {
  TempDir dir;
  const std::string path = dir.path("big.bin");
  const uint64_t at = (4ull << 30) + 10;
  const Bytes tail = {1, 2, 3, 4, 5, 6, 7, 8};
  {
    FileStorage fs(path, File::kReadWrite);
    fs.file().seek(static_cast<int64_t>(at));
    ReceiptPtr r = fs.save(tail.data(), 8);
    ASSERT_TRUE(r);
    EXPECT_EQ(r->position(), at);
    Bytes got(8);
    ASSERT_TRUE(r->load(got.data()));
    EXPECT_EQ(got, tail);
  }
  struct stat st {};
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(static_cast<uint64_t>(st.st_size), at + 8);
  {
    File f(path, File::kReadOnly);
    EXPECT_EQ(f.size(), at + 8);
    f.seek(static_cast<int64_t>(at - 2));
    Bytes got(12, 0xCD);
    EXPECT_EQ(f.peek(got.data(), 12), 10u);
    EXPECT_EQ(got, Bytes({0, 0, 1, 2, 3, 4, 5, 6, 7, 8, 0xCD, 0xCD}));
  }
  EXPECT_TRUE(File::remove(path.c_str()));
  EXPECT_FALSE(File::remove(path.c_str()));
}

// Space is claimed ahead of appended data in large steps and what is left unused is given back at close; the bytes
// and size are those of a plain write, and a few bytes peeked from the middle come from the file or the cache alike.
TEST(File, AllocateAheadGivesBackWhatIsLeft) {
  TempDir dir;
  const std::string path = dir.path("ahead.bin");
  Bytes data(3u << 20);
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 13 + (i >> 12));
  auto allocated = [&] {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 ? static_cast<uint64_t>(st.st_blocks) * 512 : 0;
  };
  {
    FileStorage fs(path, File::kReadWrite);
    fs.file().allocateAhead();
    for (size_t at = 0; at < data.size(); at += 100000)
      ASSERT_TRUE(fs.save(data.data() + at, static_cast<unsigned long>(std::min<size_t>(100000, data.size() - at))));
    fs.file().cache()->flushAll();
    if (allocated() < (64u << 20)) GTEST_SKIP() << "this file system claims no space ahead";
    unsigned char peeked[4] = {};
    ASSERT_TRUE(fs.file().peekAt(1234567, 4, peeked));
    EXPECT_EQ(Bytes(peeked, peeked + 4), Bytes(data.begin() + 1234567, data.begin() + 1234571));
  }
  EXPECT_EQ(readFile(path), data);
  EXPECT_LT(allocated(), data.size() + (1u << 20));
}

// Reading ahead gives the bytes a plain read gives, read front to back or jumping about (where the line read ahead
// is not the one wanted), with a short last line.
TEST(File, ReadAheadGivesTheFileBytes) {
  TempDir dir;
  const std::string path = dir.path("ahead.bin");
  Bytes data((1u << 20) + 12345);
  std::mt19937 random(7);
  for (auto& b : data) b = static_cast<unsigned char>(random());
  {
    File f(path, File::kReadWrite);
    ASSERT_TRUE(f.save(data.data(), static_cast<unsigned long>(data.size())));
  }
  File f(path, File::kReadOnly);
  f.cache()->resize(4, 65536);
  f.readAhead();
  for (int round = 0; round < 200; ++round) {
    // Mostly the next bytes; now and then anywhere.
    const uint64_t at = round % 7 == 6 ? random() % data.size() : f.absolutePosition() % data.size();
    const unsigned long n = static_cast<unsigned long>(std::min<uint64_t>(random() % 50000 + 1, data.size() - at));
    Bytes got(n);
    ASSERT_TRUE(f.seek(static_cast<int64_t>(at)));
    ASSERT_TRUE(f.load(got.data(), n)) << at;
    ASSERT_TRUE(std::equal(got.begin(), got.end(), data.begin() + static_cast<std::ptrdiff_t>(at))) << at;
  }
}

TEST(File, FailuresAreReportedAsResults) {
  TempDir dir;
  unsigned char buf[16] = {};
  for (const std::string& bad : {dir.path("missing"), std::string()}) {
    FileStorage fs(bad, File::kReadOnly);
    EXPECT_FALSE(fs.file().isOpen());
    EXPECT_EQ(fs.file().size(), 0x7FFFFFFFFFFFFFFFull);
    EXPECT_FALSE(fs.file().load(buf, 4));
    EXPECT_EQ(fs.peek(buf, 4), 0u);
    EXPECT_FALSE(fs.save(buf, 4));
    EXPECT_FALSE(fs.load(buf, 4));
    EXPECT_FALSE(fs.file().setSize(0));
  }
  File nowhere;
  EXPECT_FALSE(nowhere.open(dir.path("no/such/dir.bin"), File::kReadWrite));
  EXPECT_FALSE(nowhere.isOpen());

  // A read-only file takes writes into the cache, but they cannot reach the disk.
  const std::string path = dir.path("ro.bin");
  { File w(path, File::kReadWrite); ASSERT_TRUE(save(w, Bytes(8, 0x42))); }
  File ro(path, File::kReadOnly);
  EXPECT_FALSE(ro.setSize(2));
  EXPECT_TRUE(ro.save(buf, 4));
  EXPECT_FALSE(ro.hadWriteError());
  ro.close();
  EXPECT_TRUE(ro.hadWriteError());
  EXPECT_EQ(readFile(path), Bytes(8, 0x42));

  File full("/dev/full", File::kReadWrite);
  if (!full.isOpen()) GTEST_SKIP() << "/dev/full is not available";
  ASSERT_TRUE(full.save(buf, 16));  // held by the cache
  full.seek(8192);
  EXPECT_FALSE(full.save(buf, 1));  // the write-back fails, so the request is refused
  EXPECT_TRUE(full.hadWriteError());
  EXPECT_EQ(full.peek(buf, 1), 0u);  // the dirty line still blocks its slot
  full.close();
}

}  // namespace
