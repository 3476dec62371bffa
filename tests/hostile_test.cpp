// Hostile and damaged inputs: bounded depth and memory, reading past damage, no stale references,
// unknown elements kept, CRC-32 in either byte order, unique IDs that differ between processes.

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>
#include <thread>

#include "kapsel/kapsel.h"
#include "support/readers.h"

using namespace Kapsel;
using namespace kapsel_test;

namespace {

using Bytes = std::vector<unsigned char>;

Bytes idBytes(uint64_t id) {
  unsigned char b[8];
  return Bytes(b, b + uintEncode(id, b));
}

// An element with a minimal size field.
Bytes elt(uint64_t id, const Bytes& payload) {
  unsigned char b[8];
  const unsigned n = vsizeEncode(payload.size(), b);
  return cat({idBytes(id), Bytes(b, b + n), payload});
}

Bytes uintElt(uint64_t id, uint64_t v) {
  unsigned char b[8];
  return elt(id, Bytes(b, b + uintEncode(v, b)));
}

Bytes text(uint64_t id, const std::string& s) { return elt(id, Bytes(s.begin(), s.end())); }

const Bytes kHeader = elt(0x1A45DFA3, cat({uintElt(0x4286, 1), uintElt(0x42F7, 1), uintElt(0x42F2, 4),
                                            uintElt(0x42F3, 8), text(0x4282, "matroska"), uintElt(0x4287, 4),
                                            uintElt(0x4285, 2)}));
const Bytes kTracks = elt(0x1654AE6B, elt(0xAE, cat({uintElt(0xD7, 1), uintElt(0x83, 1), text(0x86, "V_VP8")})));

Bytes segment(const Bytes& payload) { return cat({kHeader, elt(0x18538067, payload)}); }

Bytes cluster(uint64_t time, int blocks, size_t frameBytes = 2) {
  Bytes payload = uintElt(0xE7, time);
  for (int i = 0; i < blocks; ++i) {
    const Bytes block = elt(0xA3, cat({{0x81, 0x00, static_cast<unsigned char>(i), 0x80}, Bytes(frameBytes, 0xAB)}));
    payload.insert(payload.end(), block.begin(), block.end());
  }
  return elt(0x1F43B675, payload);
}

struct Loaded {
  TempDir dir;
  WebmDoc doc;
  std::unique_ptr<FileStorage> storage;
  explicit Loaded(const Bytes& bytes, bool keepUnknown = false) {
    writeFile(dir.path("in.mkv"), bytes);
    storage.reset(new FileStorage(dir.path("in.mkv"), File::kReadOnly));
    doc.setKeepUnknown(keepUnknown);
    doc.loadAndKeepReceipts(*storage, storage->file().size());
  }
  Segment& seg() { return *doc.segments_.front(); }
  Bytes saved(TFileFormat format = kFileFormatMatroska) {
    const std::string out = dir.path("out.mkv");
    {
      FileStorage s(out, File::kReadWrite);
      s.file().setSize(0);
      doc.setFileFormat(format);
      EXPECT_TRUE(doc.save(s));
      s.file().close();
    }
    return readFile(out);
  }
};

// One raw element header: ID, where its payload starts and its size.
struct Raw {
  uint64_t id = 0;
  size_t payload = 0;
  uint64_t size = 0;
  size_t end() const { return payload + size; }
};

Raw rawAt(const Bytes& b, size_t at) {
  Raw r;
  unsigned n = 1;
  while (n < 4 && !(b[at] & (0x80 >> (n - 1)))) ++n;
  r.id = uintDecode(&b[at], n);
  unsigned m = 1;
  while (m < 8 && !(b[at + n] & (0x80 >> (m - 1)))) ++m;
  r.size = uintDecode(&b[at + n], m) & (uintMax[m] >> m);
  r.payload = at + n + m;
  return r;
}

// The children of a raw element, in file order.
std::vector<Raw> children(const Bytes& b, const Raw& parent) {
  std::vector<Raw> out;
  for (size_t at = parent.payload; at < parent.end(); at = out.back().end()) out.push_back(rawAt(b, at));
  return out;
}

const Raw* child(const std::vector<Raw>& kids, uint64_t id) {
  for (const auto& k : kids)
    if (k.id == id) return &k;
  return nullptr;
}

// What a function returns when run in a child process.
int64_t fromChild(const std::function<int64_t()>& fn) {
  int fds[2];
  if (pipe(fds) != 0) return -1;
  const pid_t pid = fork();
  if (pid == 0) {
    const int64_t v = fn();
    (void)!write(fds[1], &v, sizeof v);
    _exit(0);
  }
  int64_t v = -1;
  close(fds[1]);
  (void)!read(fds[0], &v, sizeof v);
  close(fds[0]);
  waitpid(pid, nullptr, 0);
  return v;
}

// Peak resident memory that a function adds, measured in a child process (KiB).
int64_t addedPeakKiB(const std::function<void()>& fn) {
  return fromChild([&] {
    rusage before{}, after{};
    getrusage(RUSAGE_SELF, &before);
    fn();
    getrusage(RUSAGE_SELF, &after);
    return int64_t{after.ru_maxrss - before.ru_maxrss};
  });
}

}  // namespace

TEST(HostileFiles, NestingDeeperThanTheLimitIsPassedOverAndTheNextSiblingLoads) {
  // Chapter atoms nested 10,000 deep with known sizes, then a sibling atom with UID 7.
  const int levels = 10000;
  // Built inside out: headers collected in reverse, then laid out once.
  const Bytes uid = uintElt(0x73C4, 1);
  std::vector<size_t> sizes;
  std::vector<Bytes> headers;
  size_t size = uid.size();
  for (int i = 0; i < levels; ++i) {
    unsigned char b[8];
    const unsigned n = vsizeEncode(size, b);
    headers.push_back(cat({{0xB6}, Bytes(b, b + n)}));
    size += headers.back().size();
    sizes.push_back(size);
  }
  Bytes inner;
  for (auto it = headers.rbegin(); it != headers.rend(); ++it) inner.insert(inner.end(), it->begin(), it->end());
  inner.insert(inner.end(), uid.begin(), uid.end());
  const Bytes sibling = elt(0xB6, uintElt(0x73C4, 7));
  const Bytes file = segment(cat({kTracks, elt(0x1043A770, elt(0x45B9, cat({inner, sibling})))}));
  Loaded in(file);
  auto& atomsLoaded = in.seg().chapters_->editions_.front()->atoms_;
  ASSERT_EQ(atomsLoaded.size(), 2u);
  EXPECT_EQ(atomsLoaded.back()->uid_->get(), 7u);
  // Segment, Chapters and EditionEntry take three levels: atoms 0 to 60 load, atom 61 is passed over whole
  // and is the one damaged range.
  int below = 0;
  for (const ChapAtom* a = &*atomsLoaded.front(); !a->atoms_.empty(); a = &*a->atoms_.front()) ++below;
  EXPECT_EQ(below, static_cast<int>(kMaxLoadDepth) - 4);
  size_t at = file.size() - sibling.size() - sizes[levels - 1];
  for (int k = 0; k < 61; ++k) at += sizes[levels - 1 - k] - sizes[levels - 2 - k];
  ASSERT_EQ(in.doc.damagedRanges().size(), 1u);
  EXPECT_EQ(in.doc.damagedRanges().front(), (TByteRange{at, at + sizes[levels - 1 - 61]}));

  // The same with open sizes (100 KB of B6 FF): no crash, nothing past the limit.
  Bytes open;
  for (int i = 0; i < 50000; ++i) open.insert(open.end(), {0xB6, 0xFF});
  Loaded deep(segment(elt(0x1043A770, elt(0x45B9, open))));
  EXPECT_EQ(deep.doc.segments_.size(), 1u);
}

TEST(HostileFiles, MemoryFollowsTheInputNotItsClaims) {
  const Bytes clusters = cat({cluster(0, 3), cluster(100, 3), cluster(200, 3)});
  const uint64_t firstCluster = kTracks.size() + 0;  // placed after the seek heads, below
  auto seekEntry = [](uint64_t id, uint64_t pos) {
    return elt(0x4DBB, cat({elt(0x53AB, idBytes(id)), elt(0x53AC, {static_cast<unsigned char>(pos >> 8),
                                                                     static_cast<unsigned char>(pos)})}));
  };
  struct Case {
    const char* name;
    std::function<Bytes(uint64_t headsSize)> heads;  // seek heads at the start of the segment
    size_t seekHeads, clusters;
  };
  const Case cases[] = {
      // 64 entries naming the first cluster: it loads once, and the clusters after it follow.
      {"repeated entries",
       [&](uint64_t size) {
         Bytes entries;
         for (int i = 0; i < 64; ++i) entries = cat({entries, seekEntry(0x1F43B675, size + firstCluster)});
         return elt(0x114D9B74, entries);
       },
       1, 3},
      // A seek head naming itself.
      {"self", [&](uint64_t) { return elt(0x114D9B74, seekEntry(0x114D9B74, 0)); }, 1, 0},
      // Two seek heads naming each other.
      {"chained",
       [&](uint64_t) {
         const Bytes one = elt(0x114D9B74, seekEntry(0x114D9B74, 0x40));
         return cat({one, elt(0xEC, Bytes(0x40 - one.size() - 2, 0)), elt(0x114D9B74, seekEntry(0x114D9B74, 0))});
       },
       2, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const uint64_t size = c.heads(0).size();
    Loaded in(segment(cat({c.heads(size), kTracks, clusters})));
    MatroskaDoc doc;
    FileStorage& st = *in.storage;
    st.file().seek(0);
    ASSERT_TRUE(doc.loadSeekHead(st, st.file().size()));
    doc.loadViaSeekHead(st, nullptr, true);
    EXPECT_EQ(doc.segments_.front()->seekHeads_.size(), c.seekHeads);
    EXPECT_EQ(doc.segments_.front()->clusters_.size(), c.clusters);
  }

  // A 1 MB cluster named by 64 seek entries: the load adds memory of the order of the file, not 64 times it.
  Bytes big = cluster(0, 2000, 500);
  const uint64_t headSize = elt(0x114D9B74, Bytes(64 * seekEntry(0x1F43B675, 0x1000).size())).size();
  Bytes entries;
  for (int i = 0; i < 64; ++i) entries = cat({entries, seekEntry(0x1F43B675, headSize + kTracks.size())});
  Loaded in(segment(cat({elt(0x114D9B74, entries), kTracks, big})));
  const uint64_t fileSize = in.storage->file().size();
  const int64_t kib = addedPeakKiB([&] {
    MatroskaDoc doc;
    in.storage->file().seek(0);
    doc.loadSeekHead(*in.storage, fileSize);
    doc.loadViaSeekHead(*in.storage, nullptr, true);
    if (doc.segments_.front()->clusters_.size() != 1) _exit(1);
  });
  EXPECT_GT(kib, 0);
  EXPECT_LT(static_cast<uint64_t>(kib) * 1024, LoadScope::budgetFor(fileSize));

  // Sizes that claim terabytes: a Segment and a Cluster cut to the file, noted as one range past its end.
  const Bytes blocks = cluster(0, 2);
  const Bytes claimed = {0x01, 0x04, 0, 0, 0, 0, 0, 0};  // 2^50 bytes
  const Bytes huge = cat({kHeader, idBytes(0x18538067), {0x01, 0, 0x01, 0, 0, 0, 0, 0}, kTracks, idBytes(0x1F43B675),
                          claimed, Bytes(blocks.begin() + 5, blocks.end())});
  Loaded claims(huge);
  ASSERT_EQ(claims.doc.segments_.size(), 1u);
  ASSERT_EQ(claims.seg().clusters_.size(), 1u);
  EXPECT_EQ(claims.seg().clusters_.front()->blocks_.count(), 2u);
  const uint64_t clusterPayload = kHeader.size() + 12 + kTracks.size() + 12;
  EXPECT_EQ(claims.doc.damagedRanges(), (std::vector<TByteRange>{{huge.size(), clusterPayload + (1ull << 50)}}));
}

TEST(HostileFiles, ReadingGoesOnAtTheNextClusterAfterDamage) {
  const Bytes c1 = cluster(0, 4), c2 = cluster(100, 4), c3 = cluster(200, 4);
  const Bytes good = segment(cat({kTracks, c1, c2, c3}));
  const size_t c2At = good.size() - c3.size() - c2.size();
  // One byte inserted inside the second block of the first cluster.
  Bytes bad = good;
  const size_t insertAt = c2At - c1.size() + 5 + 3 + 8 + 4;
  bad.insert(bad.begin() + static_cast<long>(insertAt), 0xEE);
  Loaded in(bad);
  ASSERT_EQ(in.seg().clusters_.size(), 3u);
  EXPECT_EQ(in.seg().clusters_.back()->blocks_.count(), 4u);
  // From inside the first cluster to the second, one byte later; and the last cluster, which now runs one byte
  // past the segment.
  ASSERT_EQ(in.doc.damagedRanges().size(), 2u);
  const TByteRange r = in.doc.damagedRanges().front();
  EXPECT_GT(r.begin, insertAt);
  EXPECT_EQ(r.end, c2At + 1);
  EXPECT_EQ(in.doc.damagedRanges().back(), (TByteRange{good.size() - c3.size() + 1, good.size()}));

  // A file cut short: the segment is noted as running past the end; a save leaves no stale reference.
  Bytes cut(good.begin(), good.begin() + static_cast<long>(c2At + 10));
  Loaded shortFile(cut);
  ASSERT_EQ(shortFile.doc.damagedRanges().size(), 1u);
  EXPECT_EQ(shortFile.doc.damagedRanges().front(), (TByteRange{cut.size(), good.size()}));
}

TEST(HostileFiles, ReferencesToElementsNeverLoadedAreDroppedOnSave) {
  const Bytes sample = readFile(KAPSEL_SOURCE_DIR "/samples/sample.webm");
  ASSERT_GT(sample.size(), 1000u);
  Loaded in(Bytes(sample.begin(), sample.begin() + 1000));
  const Bytes out = in.saved(kFileFormatWebm);
  // Every seek entry left points at an element with the ID it names.
  const Raw seg = rawAt(out, rawAt(out, 0).end());
  const auto top = children(out, seg);
  ASSERT_EQ(top.front().id, 0x114D9B74u);
  for (const Raw& entry : children(out, top.front())) {
    const auto kids = children(out, entry);
    const Raw* id = child(kids, 0x53AB);
    const Raw* pos = child(kids, 0x53AC);
    ASSERT_TRUE(id && pos);
    const Raw target = rawAt(out, seg.payload + uintDecode(&out[pos->payload], static_cast<unsigned>(pos->size)));
    EXPECT_EQ(target.id, uintDecode(&out[id->payload], static_cast<unsigned>(id->size)));
  }
  for (const Raw& t : top) EXPECT_NE(t.id, 0x1C53BB6Bu) << "cues of clusters that were cut off";
  if (haveTool("mkvmerge")) {
    writeFile(in.dir.path("cut.webm"), out);
    EXPECT_EQ(mkvmergeJson(in.dir.path("cut.webm")).exitCode, 0);
  }
}

TEST(HostileFiles, UnknownElementsAreKeptInTheirPlaceWhenAsked) {
  const Bytes unknownFirst = elt(0x5FF1, {1, 2, 3});
  const Bytes unknownTrack = elt(0x7FF2, {4, 5});
  const Bytes unknownTop = elt(0x1F0000AA, {6});
  const Bytes file = segment(cat({elt(0x1549A966, cat({unknownFirst, uintElt(0x2AD7B1, 1000000)})),
                                  elt(0x1654AE6B, elt(0xAE, cat({uintElt(0xD7, 1), unknownTrack, uintElt(0x83, 1),
                                                                  text(0x86, "V_VP8")}))),
                                  unknownTop, cluster(0, 1)}));
  for (bool keep : {false, true}) {
    SCOPED_TRACE(keep);
    Loaded in(file, keep);
    const Bytes out = in.saved();
    const Raw seg = rawAt(out, rawAt(out, 0).end());
    const auto top = children(out, seg);
    const Raw* info = child(top, 0x1549A966);
    const Raw* tracks = child(top, 0x1654AE6B);
    ASSERT_TRUE(info && tracks);
    const auto infoKids = children(out, *info);
    const auto trackKids = children(out, children(out, *tracks).front());
    EXPECT_EQ(infoKids.front().id == 0x5FF1, keep);
    EXPECT_EQ(child(trackKids, 0x7FF2) != nullptr, keep);
    if (keep) {
      // After TrackNumber, as in the input, with its bytes; the top-level one after Tracks.
      EXPECT_EQ(trackKids[1].id, 0x7FF2u);
      EXPECT_EQ(Bytes(out.begin() + static_cast<long>(trackKids[1].payload), out.begin() + static_cast<long>(trackKids[1].end())),
                (Bytes{4, 5}));
      EXPECT_EQ(top[static_cast<size_t>(tracks - top.data()) + 1].id, 0x1F0000AAu);
    } else {
      EXPECT_EQ(child(top, 0x1F0000AA), nullptr);
    }
  }
}

TEST(HostileFiles, Crc32MatchesInEitherByteOrderAndSavesInTheOrderAsked) {
  const Bytes payload = cat({uintElt(0x2AD7B1, 1000000), text(0x4D80, "x")});
  Crc32 crc;
  crc.compute(payload.data(), payload.size());
  const uint32_t sum = crc.checksum();
  auto withCrc = [&](uint32_t value) {
    return elt(0x1549A966, cat({{0xBF, 0x84, static_cast<unsigned char>(value >> 24), static_cast<unsigned char>(value >> 16),
                                 static_cast<unsigned char>(value >> 8), static_cast<unsigned char>(value)},
                                payload}));
  };
  const struct {
    uint32_t stored;
    TCrc32Found found;
  } cases[] = {{sum, kCrc32FoundBigEndian}, {__builtin_bswap32(sum), kCrc32FoundLittleEndian}, {sum ^ 1, kCrc32Mismatch}};
  for (const auto& c : cases) {
    Loaded in(segment(cat({withCrc(c.stored), kTracks})));
    EXPECT_EQ(in.seg().info_.crc32Order(), c.found);
    EXPECT_EQ(in.seg().info_.crc32Matched(), c.found != kCrc32Mismatch);
  }
  for (TCrc32Order order : {kCrc32BigEndian, kCrc32LittleEndian}) {
    Loaded in(segment(cat({elt(0x1549A966, payload), kTracks, cluster(0, 2)})));
    in.doc.setCrc32(true, order);
    Loaded again(in.saved());
    const TCrc32Found want = order == kCrc32LittleEndian ? kCrc32FoundLittleEndian : kCrc32FoundBigEndian;
    EXPECT_EQ(again.seg().info_.crc32Order(), want);
    EXPECT_EQ(again.seg().tracks_.crc32Order(), want);
    EXPECT_EQ(again.seg().clusters_.front().crc32Order(), want);
  }
}

TEST(HostileFiles, UniqueIdsDifferBetweenProcessesAndThreadsAndUseEveryByte) {
  // Drawn in the parent first: children forked afterwards must not repeat each other.
  createUID();
  std::set<uint64_t> seen;
  for (int i = 0; i < 3; ++i)
    seen.insert(static_cast<uint64_t>(fromChild([] { return static_cast<int64_t>(createUID()); })));
  EXPECT_EQ(seen.size(), 3u);

  std::vector<std::thread> threads;
  std::vector<std::set<uint64_t>> perThread(4);
  for (auto& set : perThread)
    threads.emplace_back([&set] {
      for (int i = 0; i < 1000; ++i) set.insert(createUID());
    });
  for (auto& t : threads) t.join();
  std::set<uint64_t> all;
  for (auto& set : perThread) all.insert(set.begin(), set.end());
  EXPECT_EQ(all.size(), 4000u);

  std::set<unsigned> bytes;
  unsigned char buffer[4096];
  createUID(buffer, sizeof buffer);
  bytes.insert(buffer, buffer + sizeof buffer);
  EXPECT_EQ(bytes.size(), 256u);
}
