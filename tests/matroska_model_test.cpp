#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "kapsel/block.h"
#include "kapsel/chapters.h"
#include "kapsel/cluster.h"
#include "kapsel/document.h"
#include "kapsel/segment.h"
#include "kapsel/tracks.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using Bytes = std::vector<unsigned char>;

using kapsel_test::cat;

Bytes contentOf(const ReceiptPtr& r) {
  Bytes b;
  EXPECT_TRUE(load(r, b));
  return b;
}

class ModelTest : public ::testing::Test {
 protected:
  // Writes the element alone into a new file and returns the file's bytes.
  // List items are written even when default: `always` saves like one.
  Bytes saved(const IElement& e, bool always = false) {
    const std::string path = dir_.path("save" + std::to_string(++count_));
    {
      FileStorage fs(path, File::kReadWrite);
      EXPECT_TRUE(always ? e.saveAlways(fs) : e.save(fs, 0));
      fs.file().close();
    }
    return kapsel_test::readFile(path);
  }

  // Loads from a file holding exactly these bytes; the element keeps the file open through its receipts.
  uint64_t loaded(IElement& e, const Bytes& bytes) {
    const std::string path = dir_.path("load" + std::to_string(++count_));
    {
      FileStorage out(path, File::kReadWrite);
      EXPECT_TRUE(out.save(bytes.data(), static_cast<unsigned long>(bytes.size())));
      out.file().close();
    }
    FileStorage in(path, File::kReadOnly);
    return e.load(in, bytes.size());
  }

  kapsel_test::TempDir dir_;
  int count_ = 0;
};

// ---------------------------------------------------------------- defaults

using TrackElt = Tracks::TrackElt;

TEST_F(ModelTest, SegmentInfoAndTrackDefaults) {
  SegInfoElt info;
  const std::string lib = kLibraryIdentification;
  ASSERT_TRUE(lib.size() > 8 && lib.size() < 100 && lib.substr(lib.size() - 8) == " rev.207");
  const Bytes infoPayload = cat({{0x2A, 0xD7, 0xB1, 0x83, 0x0F, 0x42, 0x40},  // TimecodeScale 1000000
                                 {0x44, 0x89, 0x84, 0, 0, 0, 0},               // Duration 0.0
                                 {0x4D, 0x80, static_cast<unsigned char>(0x80 | lib.size())},
                                 Bytes(lib.begin(), lib.end())});
  EXPECT_EQ(saved(info), cat({{0x15, 0x49, 0xA9, 0x66, static_cast<unsigned char>(0x80 | infoPayload.size())},
                              infoPayload}));

  // Values equal to their defaults are left out: "eng", a scale of 1, 8000 Hz mono. "und" is not a default,
  // and the compression algorithm 0 is still stated inside a written encoding.
  TrackElt eng, und, scale, noLacing, enc;
  eng->language_->set("eng");
  und->language_->set("und");
  scale->trackTimecodeScale_->set(1.0);
  noLacing->flagLacing_->set(0);
  enc->contentEncodings_->encodings_.add()->scope_->set(3);
  TElt<Audio, 0xE1, Track::EltName0xE1> mono, stereo;
  mono->samplingFrequency_->set(8000.0);
  mono->channels_->set(1);
  stereo->samplingFrequency_->set(48000.0);
  stereo->channels_->set(2);
  const std::vector<std::pair<const IElement*, Bytes>> rows = {
      {&eng, {}},
      {&und, {0xAE, 0x87, 0x22, 0xB5, 0x9C, 0x83, 'u', 'n', 'd'}},
      {&scale, {}},
      {&noLacing, {0xAE, 0x83, 0x9C, 0x81, 0x00}},
      {&mono, {}},
      {&stereo, {0xE1, 0x89, 0xB5, 0x84, 0x47, 0x3B, 0x80, 0x00, 0x9F, 0x81, 0x02}},
      {&enc, {0xAE, 0x91, 0x6D, 0x80, 0x8E, 0x62, 0x40, 0x8B, 0x50, 0x32, 0x81, 0x03, 0x50, 0x34, 0x84, 0x42, 0x54,
              0x81, 0x00}},
  };
  for (const auto& [e, want] : rows) EXPECT_EQ(saved(*e), want) << e->getName();

  // A loaded track entry without FlagLacing or Language keeps their defaults.
  TrackElt back;
  ASSERT_EQ(loaded(back, {0xAE, 0x83, 0xD7, 0x81, 0x02}), 5u);
  EXPECT_EQ(back->trackNumber_->get(), 2u);
  EXPECT_EQ(back->flagLacing_->get(), 1u);
  EXPECT_EQ(back->language_->get(), "eng");
}

// ---------------------------------------------------------------- blocks and lacing

Bytes header(const SimpleBlock& b) {
  MemoryStorage mem;
  return contentOf(b.writeHeader(mem));
}

// Frames pointing into caller memory, 7 bytes apart; lacing -1 is automatic.
SimpleBlock blockOf(const std::vector<unsigned long>& sizes, const Bytes& pool, int lacing = -1) {
  SimpleBlock b;
  b.setTrackNumber(1);
  b.setKeyframe(true);
  unsigned long at = 0;
  for (unsigned long s : sizes) {
    EXPECT_TRUE(b.addFrame(receiptForConstMemory(pool.data() + at % 1000, s)));
    at += 7;
  }
  if (lacing < 0) {
    b.setAutoLacing();
  } else {
    b.setLacing(static_cast<SimpleBlock::Lacing>(lacing));
  }
  return b;
}

TEST(Lacing, HeaderBytesByHand) {
  const Bytes pool(80000, 0x5A);
  const int xiph = SimpleBlock::kXiphLacing, ebml = SimpleBlock::kEBMLLacing;
  struct Row { std::vector<unsigned long> sizes; int lacing; unsigned long track; short tc; Bytes header; };
  const Row rows[] = {
      {{300, 100, 50}, -1, 1, 0, {0x81, 0x00, 0x00, 0x82, 0x02, 0xFF, 0x2D, 0x64}},
      // 300 unsigned, then -200 signed in two bytes.
      {{300, 100, 50}, ebml, 1, 0, {0x81, 0x00, 0x00, 0x86, 0x02, 0x41, 0x2C, 0x5F, 0x37}},
      // 1000, +1, -996: the last size is never written.
      {{1000, 1001, 5, 9}, -1, 200, -300, {0x40, 0xC8, 0xFE, 0xD4, 0x86, 0x03, 0x43, 0xE8, 0xC0, 0x5C, 0x1B}},
      {{100, 100, 7}, -1, 1, 0, {0x81, 0x00, 0x00, 0x86, 0x02, 0xE4, 0xBF}},  // equal cost goes to EBML
      {{10, 10, 10}, -1, 1, 0, {0x81, 0x00, 0x00, 0x84, 0x02}},
      {{255, 510, 254, 1}, xiph, 1, 0, {0x81, 0x00, 0x00, 0x82, 0x03, 0xFF, 0x00, 0xFF, 0xFF, 0x00, 0xFE}},
  };
  for (const Row& r : rows) {
    SimpleBlock b = blockOf(r.sizes, pool, r.lacing);
    b.setTrackNumber(r.track);
    b.setRelativeTimecode(r.tc);
    EXPECT_EQ(header(b), r.header) << r.sizes.size() << " frames, lacing " << r.lacing;
  }
  // One frame is never laced, whatever was asked for.
  for (int lacing = -1; lacing < 4; ++lacing) {
    SimpleBlock one = blockOf({1234}, pool, lacing);
    one.setRelativeTimecode(-1);
    EXPECT_EQ(header(one), Bytes({0x81, 0xFF, 0xFF, 0x80})) << lacing;
  }
  SimpleBlock flagged = blockOf({10, 10, 10}, pool);
  flagged.setInvisible(true).setDiscardable(true);
  EXPECT_EQ(header(flagged), Bytes({0x81, 0x00, 0x00, 0x8D, 0x02}));

  // At most 256 frames: the count byte holds 255.
  SimpleBlock full;
  MemoryStorage mem;
  for (int i = 0; i < 255; ++i) ASSERT_TRUE(full.addFrame(pool.data(), 3, mem));
  EXPECT_TRUE(full.mayAddFrame());
  EXPECT_TRUE(full.addFrame(receiptForConstMemory(pool.data(), 3)));
  EXPECT_FALSE(full.mayAddFrame() || full.addFrame(receiptForConstMemory(pool.data(), 3)));
  full.setAutoLacing();
  EXPECT_EQ(header(full), Bytes({0x80, 0x00, 0x00, 0x04, 0xFF}));
}

unsigned vsizeLen(uint64_t v) {
  unsigned n = 1;
  while (n < 8 && v >= (uint64_t(1) << (7 * n)) - 1) ++n;
  return n;
}

unsigned signedLen(int64_t d) {
  unsigned n = 1;
  while (n < 8 && (d > (int64_t(1) << (7 * n - 1)) - 1 || d < -((int64_t(1) << (7 * n - 1)) - 1))) ++n;
  return n;
}

uint64_t importBytes(SimpleBlock& b, const Bytes& bytes) {
  HodgePodge data;
  if (!bytes.empty()) data.add(receiptForConstMemory(bytes.data(), bytes.size()));
  return b.importData(data);
}

TEST(Lacing, RandomRoundTrips) {
  std::mt19937 rng(20240611);
  Bytes pool(150000);
  for (auto& b : pool) b = static_cast<unsigned char>(rng());
  auto pick = [&](unsigned long lo, unsigned long hi) {
    return std::uniform_int_distribution<unsigned long>(lo, hi)(rng);
  };
  for (int round = 0; round < 60; ++round) {
    const int kind = round % 5;  // 0..3 the lacing kinds, 4 automatic
    // Without lacing a block holds one frame.
    const unsigned long count = kind == 0 ? 1 : round % 7 == 1 ? 256 : pick(1, 256);
    const unsigned long maxSize = round % 3 == 0 ? 70000 : (round % 3 == 1 ? 2000 : 300);
    const bool equal = kind == SimpleBlock::kFixedSizeLacing || (kind == 4 && round % 2 == 0);
    std::vector<unsigned long> sizes;
    const unsigned long common = pick(0, maxSize);
    for (unsigned long i = 0; i < count; ++i) sizes.push_back(equal ? common : pick(0, maxSize));
    SimpleBlock b = blockOf(sizes, pool, kind == 4 ? -1 : kind);
    b.setTrackNumber(pick(1, 20000));
    b.setRelativeTimecode(static_cast<short>(pick(0, 65535)));
    b.setKeyframe(round % 2);

    // What the header must cost, worked out independently.
    uint64_t xiph = 0, ebml = vsizeLen(sizes[0]);
    for (size_t i = 0; i + 1 < count; ++i) xiph += sizes[i] / 255 + 1;
    for (size_t i = 1; i + 1 < count; ++i) ebml += signedLen(int64_t(sizes[i]) - int64_t(sizes[i - 1]));
    int expected = kind;
    if (count == 1) expected = 0;
    else if (kind == 4) expected = equal ? 2 : (xiph < ebml ? 1 : 3);
    const uint64_t lace = expected == 1 ? xiph : expected == 3 ? ebml : 0;
    const uint64_t headerSize = vsizeLen(b.getTrackNumber()) + 3 + (expected ? 1 + lace : 0);
    ASSERT_EQ(b.effectiveLacing(), expected) << round;

    MemoryStorage mem;
    HodgePodge data;
    b.exportData(data, mem);
    Bytes all;
    ASSERT_TRUE(data.get(all));
    ASSERT_EQ(all.size(), headerSize + std::accumulate(sizes.begin(), sizes.end(), uint64_t(0))) << round;
    SimpleBlock back;
    ASSERT_EQ(importBytes(back, all), headerSize) << round;
    EXPECT_EQ(back.getTrackNumber(), b.getTrackNumber());
    EXPECT_EQ(back.getRelativeTimecode(), b.getRelativeTimecode());
    EXPECT_EQ(back.isKeyframe(), b.isKeyframe());
    EXPECT_EQ(back.getLacing(), expected);
    ASSERT_EQ(back.getNumberOfFrames(), count) << round;
    for (unsigned long i = 0; i < count; ++i) {
      const Bytes frame = contentOf(back.getFrame(i));
      ASSERT_EQ(frame.size(), sizes[i]) << round << " frame " << i;
      ASSERT_TRUE(std::equal(frame.begin(), frame.end(), pool.begin() + i * 7 % 1000)) << round << " frame " << i;
    }
  }
}

TEST(Lacing, ImportRejectsBadData) {
  SimpleBlock b;
  const Bytes bad[] = {
      {},
      {0x81, 0x00},
      {0x81, 0x00, 0x00},
      {0x00, 0x00, 0x00, 0x00, 0x00},                      // no valid track number
      {0x81, 0x00, 0x00, 0x06},                            // laced without a count
      {0x81, 0x00, 0x00, 0x06, 0x05},                      // count without sizes
      {0x81, 0x00, 0x00, 0x02, 0x01, 0xFF, 0xFF, 0x10, 1, 2},  // Xiph size past the end
      {0x81, 0x00, 0x00, 0x06, 0x02, 0x82, 0x80, 1, 2, 3},     // EBML size turns negative
  };
  for (const Bytes& bytes : bad) EXPECT_EQ(importBytes(b, bytes), 0u) << bytes.size() << " bytes";
  // 256 EBML-laced frames: 2^56 - 2 bytes, then 254 of 2^56 + 283691315109953 (one delta, then deltas of 0).
  // The sizes add up to 124 modulo 2^64, which 130 bytes of data would seem to hold.
  Bytes wrapping = {0x81, 0x00, 0x00, 0x06, 0xFF, 0x01, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE,
                    0x01, 0x81, 0x02, 0x04, 0x08, 0x10, 0x20, 0x42};
  wrapping.insert(wrapping.end(), 253, 0xBF);
  wrapping.insert(wrapping.end(), 130, 0x55);
  EXPECT_EQ(importBytes(b, wrapping), 0u);

  // A negative timecode and an unlaced frame read back.
  const Bytes good = {0x82, 0xFF, 0x38, 0x81, 9, 8, 7};  // the block reads its frames from here
  ASSERT_EQ(importBytes(b, good), 4u);
  EXPECT_TRUE(b.getTrackNumber() == 2 && b.getRelativeTimecode() == -200 && b.isDiscardable());
  ASSERT_EQ(b.getNumberOfFrames(), 1u);
  EXPECT_EQ(contentOf(b.getFrame(0)), Bytes({9, 8, 7}));
}

// ---------------------------------------------------------------- clusters, cues, seek head

TEST_F(ModelTest, ClusterCuesAndSeekHead) {
  ClusterElt cluster;
  EXPECT_EQ(saved(cluster, true), Bytes({0x1F, 0x43, 0xB6, 0x75, 0x83, 0xE7, 0x81, 0x00}));
  cluster->timecode_->set(5);
  EXPECT_TRUE(cluster->isDefault());

  // Blocks of both kinds keep their order through a file.
  ClusterElt full;
  full->timecode_->set(7);
  const Bytes frames = {1, 2, 3, 4, 5, 9};
  SimpleBlock laced = blockOf({3}, frames, SimpleBlock::kEBMLLacing), single;
  laced.addFrame(receiptForConstMemory(frames.data() + 3, 2));
  single.setTrackNumber(1);
  single.setRelativeTimecode(10);
  single.addFrame(receiptForConstMemory(frames.data() + 5, 1));
  MemoryStorage mem;
  Cluster::SimpleBlockElt simple;
  laced.exportData(simple->data(), mem);
  Cluster::BlockGroupElt group;
  single.exportData(group->block_->data(), mem);
  group->referenceBlock_.add()->set(-10);
  ASSERT_TRUE(full->blocks_.push_back(simple));
  ASSERT_TRUE(full->blocks_.push_back(group));
  const Bytes fullBytes = {0x1F, 0x43, 0xB6, 0x75, 0x9C, 0xE7, 0x81, 0x07, 0xA3, 0x8B, 0x81, 0x00, 0x00, 0x86, 0x01,
                           0x83, 1, 2, 3, 4, 5, 0xA0, 0x8A, 0xA1, 0x85, 0x81, 0x00, 0x0A, 0x00, 9, 0xFB, 0x81, 0xF6};
  EXPECT_EQ(saved(full), fullBytes);
  ClusterElt back;
  ASSERT_EQ(loaded(back, fullBytes), fullBytes.size());
  EXPECT_EQ(back->blocks_.count(), 2u);
  EXPECT_EQ(saved(back), fullBytes);

  // Block number 1 is the default and is left out.
  TElt<CueTrkPos, 0xB7, CuePoint::EltName0xB7> pos;
  pos->blockNumber_->set(1);
  EXPECT_EQ(saved(pos), Bytes({0xB7, 0x83, 0xF7, 0x81, 0x00}));
  pos->blockNumber_->set(2);
  EXPECT_EQ(saved(pos), Bytes({0xB7, 0x87, 0xF7, 0x81, 0x00, 0x53, 0x78, 0x81, 0x02}));

  SeekHeadElt head;
  SegInfoElt info;
  TracksElt tracks;
  head->indexThis(&info, nullptr);
  EXPECT_TRUE(head->entries_.empty());
  head->indexThis(0x1C53BB6B, 0x1234);
  head->indexThis(&info, &info);
  head->indexThis(&info, &tracks);
  head->indexThis(&info, &info);
  ASSERT_EQ(head->entries_.size(), 4u);
  EXPECT_EQ(head->findIndex(&info), &head->entries_[1]);
  EXPECT_EQ(head->findIndex(&tracks), &head->entries_[2]);
  EXPECT_EQ(head->findIndex(nullptr), &head->entries_[0]);
  EXPECT_EQ(head->findFirst(0x1549A966), &head->entries_[1]);  // the earlier of two
  EXPECT_EQ(head->findFirst(0x1F43B675), nullptr);
  EXPECT_EQ(head->entries_[2]->position_->getOrigin(), &info);

  SeekHeadElt explicitOnly;
  explicitOnly->indexThis(0x1C53BB6B, 0x1234);
  EXPECT_EQ(saved(explicitOnly), Bytes({0x11, 0x4D, 0x9B, 0x74, 0x8F, 0x4D, 0xBB, 0x8C, 0x53, 0xAB, 0x84, 0x1C, 0x53,
                                        0xBB, 0x6B, 0x53, 0xAC, 0x82, 0x12, 0x34}));
}

// ---------------------------------------------------------------- chapters

TEST_F(ModelTest, ChaptersNestedThreeDeep) {
  ChaptersElt chapters;
  auto fill = [](auto& atom, uint64_t uid, const char* name) {
    atom->uid_->set(uid);
    atom->displays_.add()->string_->set(name);
    return &atom->atoms_.add();
  };
  auto* bottom = fill(*fill(chapters->editions_.add()->atoms_.add(), 1, "a"), 2, "b");
  (*bottom)->timeStart_->set(1000);
  (*bottom)->displays_.add()->string_->set("c");
  (*bottom)->uid_->set(3);
  auto atom = [](unsigned char uid, Bytes start, char name, Bytes sub) {
    const unsigned char n = static_cast<unsigned char>(name);
    Bytes p = cat({{0x73, 0xC4, 0x81, uid, 0x91}, start, {0x80, 0x83, 0x85, 0x81, n}, sub});
    return cat({{0xB6, static_cast<unsigned char>(0x80 | p.size())}, p});
  };
  const Bytes inner = atom(1, {0x81, 0x00}, 'a', atom(2, {0x81, 0x00}, 'b', atom(3, {0x82, 0x03, 0xE8}, 'c', {})));
  const Bytes edition = cat({{0x45, 0xB9, static_cast<unsigned char>(0x80 | inner.size())}, inner});
  const Bytes expected = cat({{0x10, 0x43, 0xA7, 0x70, static_cast<unsigned char>(0x80 | edition.size())}, edition});
  EXPECT_EQ(saved(chapters), expected);

  // Loaded back, nested atoms take the sub-atom name and displays the default language.
  ChaptersElt back;
  ASSERT_EQ(loaded(back, expected), expected.size());
  ASSERT_EQ(saved(back), expected);
  const auto& l1 = back->editions_[0]->atoms_[0];
  const auto& l3 = l1->atoms_[0]->atoms_[0];
  EXPECT_STREQ(l1.getName(), "ChapterAtom");
  EXPECT_STREQ(l3.getName(), "SubChapterAtom");
  EXPECT_EQ(l3->uid_->get(), 3u);
  EXPECT_EQ(l3->displays_[0]->language_->get(), "eng");
}

// ---------------------------------------------------------------- laced blocks read by another reader

TEST_F(ModelTest, LacedBlocksReadByFfprobe) {
  if (!kapsel_test::haveTool("ffprobe")) GTEST_SKIP() << "ffprobe not installed";
  struct Planned { short tc; int lacing; std::vector<unsigned long> sizes; };
  // Cluster 2 starts at 1000 and its first block reaches back before it.
  const std::vector<std::vector<Planned>> plan = {
      {{0, 0, {160}}, {20, -1, {300, 100, 50}}, {80, -1, {1000, 1002, 6}}, {140, -1, {64, 64, 64}}},
      {{-800, 0, {78}}, {0, SimpleBlock::kXiphLacing, {510, 2}}, {40, 0, {12}}}};
  Bytes pool(4000);
  for (size_t i = 0; i < pool.size(); ++i) pool[i] = static_cast<unsigned char>(i * 31 + 7);

  WebmDoc doc(kFileFormatMatroska);
  Segment& seg = *doc.segments_.add();
  seg.info_->duration_->set(1060.0);
  Track& track = *seg.tracks_->tracks_.add();
  track.trackNumber_->set(1);
  track.trackUid_->set(0x1234567);
  track.trackType_->set(2);
  track.codecId_->set("A_PCM/INT/LIT");
  track.defaultDuration_->set(20000000);  // later laces are placed 20 ms apart
  track.audio_->bitDepth_->set(16);
  MemoryStorage mem;
  std::vector<int64_t> wantPts, wantSize;
  std::vector<std::string> wantMd5;  // the frame bytes as ffmpeg copies them out
  for (size_t c = 0; c < plan.size(); ++c) {
    auto& cluster = seg.clusters_.add();
    cluster->timecode_->set(c * 1000);
    for (const Planned& p : plan[c]) {
      SimpleBlock b = blockOf(p.sizes, pool, p.lacing);
      b.setRelativeTimecode(p.tc);
      Cluster::SimpleBlockElt elt;
      b.exportData(elt->data(), mem);
      ASSERT_TRUE(cluster->blocks_.push_back(elt));
      for (size_t i = 0; i < p.sizes.size(); ++i) {
        wantMd5.push_back(kapsel_test::md5Hex(pool.data() + i * 7 % 1000, p.sizes[i]));
        wantPts.push_back(int64_t(c) * 1000 + p.tc + int64_t(i) * 20);
        wantSize.push_back(p.sizes[i]);
      }
    }
  }
  const std::string path = dir_.path("laced.mkv");
  {
    FileStorage fs(path, File::kReadWrite);
    ASSERT_TRUE(doc.save(fs));
    fs.file().close();
  }
  std::string err;
  const auto packets = kapsel_test::ffprobePackets(path, &err);
  EXPECT_EQ(err, "");
  ASSERT_EQ(packets.size(), wantPts.size());
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_EQ(packets[i].ptsMs, wantPts[i]) << "packet " << i;
    EXPECT_EQ(packets[i].size, wantSize[i]) << "packet " << i;
    EXPECT_TRUE(packets[i].key) << "packet " << i;
  }
  EXPECT_EQ(kapsel_test::frameMd5(path, 0), wantMd5);
  if (kapsel_test::haveTool("mkvmerge")) {
    const auto r = kapsel_test::mkvmergeJson(path);
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
  }
}

}  // namespace
