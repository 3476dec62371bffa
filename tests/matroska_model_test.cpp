#include <gtest/gtest.h>

#include <cstdint>
#include <numeric>
#include <random>
#include <sstream>
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

Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

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

  EXPECT_EQ(saved(TrackElt()), Bytes());
  TracksElt tracks;
  tracks->tracks_.add();
  EXPECT_EQ(saved(tracks), Bytes({0x16, 0x54, 0xAE, 0x6B, 0x82, 0xAE, 0x80}));

  // "eng" is the default language and is left out; "und" is not.
  tracks->tracks_[0]->language_->set("eng");
  EXPECT_EQ(saved(tracks), Bytes({0x16, 0x54, 0xAE, 0x6B, 0x82, 0xAE, 0x80}));
  tracks->tracks_[0]->language_->set("und");
  EXPECT_EQ(saved(tracks->tracks_[0]), Bytes({0xAE, 0x87, 0x22, 0xB5, 0x9C, 0x83, 'u', 'n', 'd'}));

  // Flags equal to their defaults are left out; a changed one is written.
  TrackElt t;
  t->trackTimecodeScale_->set(1.0);
  EXPECT_EQ(saved(t), Bytes());
  t->flagLacing_->set(0);
  EXPECT_EQ(saved(t), Bytes({0xAE, 0x83, 0x9C, 0x81, 0x00}));

  // 8000 Hz mono is what a reader assumes: nothing is written.
  TElt<Audio, 0xE1, Track::EltName0xE1> audio;
  audio->samplingFrequency_->set(8000.0);
  audio->channels_->set(1);
  EXPECT_EQ(saved(audio), Bytes());
  audio->samplingFrequency_->set(48000.0);
  audio->channels_->set(2);
  EXPECT_EQ(saved(audio), Bytes({0xE1, 0x89, 0xB5, 0x84, 0x47, 0x3B, 0x80, 0x00, 0x9F, 0x81, 0x02}));

  // The compression algorithm 0 is still stated inside a written encoding.
  TrackElt enc;
  enc->contentEncodings_->encodings_.add()->scope_->set(3);
  EXPECT_EQ(saved(enc), Bytes({0xAE, 0x91, 0x6D, 0x80, 0x8E, 0x62, 0x40, 0x8B, 0x50, 0x32, 0x81, 0x03, 0x50, 0x34,
                               0x84, 0x42, 0x54, 0x81, 0x00}));

  // A loaded track entry without FlagLacing or Language keeps their defaults.
  TrackElt back;
  ASSERT_EQ(loaded(back, {0xAE, 0x83, 0xD7, 0x81, 0x02}), 5u);
  EXPECT_EQ(back->trackNumber_->get(), 2u);
  EXPECT_EQ(back->flagLacing_->get(), 1u);
  EXPECT_EQ(back->language_->get(), "eng");
}

// ---------------------------------------------------------------- blocks and lacing

// The block's exported bytes, flattened as a save and a load would.
Bytes exported(const SimpleBlock& b) {
  MemoryStorage mem;
  HodgePodge data;
  b.exportData(data, mem);
  Bytes all;
  EXPECT_TRUE(data.get(all));
  return all;
}

Bytes header(const SimpleBlock& b) {
  MemoryStorage mem;
  return contentOf(b.writeHeader(mem));
}

// Frames pointing into caller memory.
SimpleBlock blockOf(const std::vector<unsigned long>& sizes, const Bytes& pool) {
  SimpleBlock b;
  b.setTrackNumber(1);
  b.setKeyframe(true);
  unsigned long at = 0;
  for (unsigned long s : sizes) {
    EXPECT_TRUE(b.addFrame(receiptForConstMemory(pool.data() + at % 1000, s)));
    at += 7;
  }
  return b;
}

TEST(Lacing, HeaderBytesByHand) {
  const Bytes pool(80000, 0x5A);
  SimpleBlock xiph = blockOf({300, 100, 50}, pool);
  xiph.setAutoLacing();
  EXPECT_EQ(xiph.effectiveLacing(), SimpleBlock::kXiphLacing);
  EXPECT_EQ(header(xiph), Bytes({0x81, 0x00, 0x00, 0x82, 0x02, 0xFF, 0x2D, 0x64}));
  // The same frames as EBML lacing: 300 unsigned, then -200 signed in two bytes.
  xiph.setLacing(SimpleBlock::kEBMLLacing);
  EXPECT_EQ(header(xiph), Bytes({0x81, 0x00, 0x00, 0x86, 0x02, 0x41, 0x2C, 0x5F, 0x37}));

  SimpleBlock ebml = blockOf({1000, 1001, 5, 9}, pool);
  ebml.setAutoLacing();
  ebml.setTrackNumber(200);
  ebml.setRelativeTimecode(-300);
  // 1000, +1, -996: the last size is never written.
  EXPECT_EQ(header(ebml), Bytes({0x40, 0xC8, 0xFE, 0xD4, 0x86, 0x03, 0x43, 0xE8, 0xC0, 0x5C, 0x1B}));

  SimpleBlock tie = blockOf({100, 100, 7}, pool);
  tie.setAutoLacing();
  EXPECT_EQ(header(tie), Bytes({0x81, 0x00, 0x00, 0x86, 0x02, 0xE4, 0xBF}));  // equal cost goes to EBML

  SimpleBlock fixed = blockOf({10, 10, 10}, pool);
  fixed.setAutoLacing();
  fixed.setInvisible(true).setDiscardable(true);
  EXPECT_EQ(header(fixed), Bytes({0x81, 0x00, 0x00, 0x8D, 0x02}));

  SimpleBlock edge = blockOf({255, 510, 254, 1}, pool);
  edge.setLacing(SimpleBlock::kXiphLacing);
  EXPECT_EQ(header(edge), Bytes({0x81, 0x00, 0x00, 0x82, 0x03, 0xFF, 0x00, 0xFF, 0xFF, 0x00, 0xFE}));

  // One frame is never laced, whatever was asked for.
  for (int kind = 0; kind < 5; ++kind) {
    SimpleBlock one = blockOf({1234}, pool);
    one.setRelativeTimecode(-1);
    if (kind < 4) one.setLacing(static_cast<SimpleBlock::Lacing>(kind)); else one.setAutoLacing();
    EXPECT_EQ(header(one), Bytes({0x81, 0xFF, 0xFF, 0x80})) << kind;
  }
  std::ostringstream dump;
  dump << blockOf({1234}, pool);
  EXPECT_EQ(dump.str(), "track 1, ltc 0, keyframe, 1 frame(s), f[0] 1234 bytes");

  // At most 256 frames: the count byte holds 255.
  SimpleBlock full;
  MemoryStorage mem;
  for (int i = 0; i < 255; ++i) ASSERT_TRUE(full.addFrame(pool.data(), 3, mem));
  EXPECT_TRUE(full.mayAddFrame());
  EXPECT_TRUE(full.addFrame(receiptForConstMemory(pool.data(), 3)));
  EXPECT_FALSE(full.mayAddFrame() || full.addFrame(receiptForConstMemory(pool.data(), 3)));
  EXPECT_EQ(full.getNumberOfFrames(), 256u);
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

TEST(Lacing, RandomRoundTrips) {
  std::mt19937 rng(20240611);
  Bytes pool(150000);
  for (auto& b : pool) b = static_cast<unsigned char>(rng());
  auto pick = [&](unsigned long lo, unsigned long hi) { return std::uniform_int_distribution<unsigned long>(lo, hi)(rng); };
  for (int round = 0; round < 60; ++round) {
    const int kind = round % 5;  // 0..3 the lacing kinds, 4 automatic
    // Without lacing a block holds one frame.
    const unsigned long count = kind == 0 ? 1 : round % 7 == 1 ? 256 : pick(1, 256);
    const unsigned long maxSize = round % 3 == 0 ? 70000 : (round % 3 == 1 ? 2000 : 300);
    const bool equal = kind == SimpleBlock::kFixedSizeLacing || (kind == 4 && round % 2 == 0);
    std::vector<unsigned long> sizes, offsets;
    const unsigned long common = pick(0, maxSize);
    SimpleBlock b;
    b.setTrackNumber(pick(1, 20000));
    b.setRelativeTimecode(static_cast<short>(pick(0, 65535)));
    b.setKeyframe(round % 2);
    for (unsigned long i = 0; i < count; ++i) {
      sizes.push_back(equal ? common : pick(0, maxSize));
      offsets.push_back(pick(0, pool.size() - sizes.back()));
      ASSERT_TRUE(b.addFrame(receiptForConstMemory(pool.data() + offsets.back(), sizes.back())));
    }
    if (kind == 4) b.setAutoLacing(); else b.setLacing(static_cast<SimpleBlock::Lacing>(kind));

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

    const Bytes all = exported(b);
    ASSERT_EQ(all.size(), headerSize + std::accumulate(sizes.begin(), sizes.end(), uint64_t(0))) << round;
    HodgePodge data;
    data.add(receiptForConstMemory(all.data(), all.size()));
    SimpleBlock back;
    ASSERT_EQ(back.importData(data), headerSize) << round;
    EXPECT_EQ(back.getTrackNumber(), b.getTrackNumber());
    EXPECT_EQ(back.getRelativeTimecode(), b.getRelativeTimecode());
    EXPECT_EQ(back.isKeyframe(), b.isKeyframe());
    EXPECT_EQ(back.getLacing(), expected);
    ASSERT_EQ(back.getNumberOfFrames(), count) << round;
    for (unsigned long i = 0; i < count; ++i) {
      const Bytes frame = contentOf(back.getFrame(i));
      ASSERT_EQ(frame.size(), sizes[i]) << round << " frame " << i;
      ASSERT_TRUE(std::equal(frame.begin(), frame.end(), pool.begin() + offsets[i])) << round << " frame " << i;
    }
  }
}

uint64_t importBytes(SimpleBlock& b, const Bytes& bytes) {
  HodgePodge data;
  if (!bytes.empty()) data.add(receiptForConstMemory(bytes.data(), bytes.size()));
  return b.importData(data);
}

TEST(Lacing, ImportRejectsBadData) {
  SimpleBlock b;
  EXPECT_EQ(importBytes(b, {}), 0u);
  EXPECT_EQ(importBytes(b, {0x81, 0x00}), 0u);
  EXPECT_EQ(importBytes(b, {0x81, 0x00, 0x00}), 0u);
  EXPECT_EQ(importBytes(b, {0x00, 0x00, 0x00, 0x00, 0x00}), 0u);  // no valid track number
  EXPECT_EQ(importBytes(b, {0x81, 0x00, 0x00, 0x06}), 0u);        // laced without a count
  EXPECT_EQ(importBytes(b, {0x81, 0x00, 0x00, 0x06, 0x05}), 0u);  // count without sizes
  EXPECT_EQ(importBytes(b, {0x81, 0x00, 0x00, 0x02, 0x01, 0xFF, 0xFF, 0x10, 1, 2}), 0u);  // Xiph size past the end
  EXPECT_EQ(importBytes(b, {0x81, 0x00, 0x00, 0x06, 0x02, 0x82, 0x80, 1, 2, 3}), 0u);  // EBML size turns negative

  // A negative timecode and an unlaced frame read back.
  const Bytes good = {0x82, 0xFF, 0x38, 0x81, 9, 8, 7};
  ASSERT_EQ(importBytes(b, good), 4u);
  EXPECT_TRUE(b.getTrackNumber() == 2 && b.getRelativeTimecode() == -200 && b.isDiscardable());
  ASSERT_EQ(b.getNumberOfFrames(), 1u);
  EXPECT_EQ(contentOf(b.getFrame(0)), Bytes({9, 8, 7}));

  // Random bytes never crash the parser; whatever it accepts adds up.
  std::mt19937 rng(7);
  for (int i = 0; i < 3000; ++i) {
    Bytes junk(rng() % 40);
    for (auto& c : junk) c = static_cast<unsigned char>(rng() % 4 == 0 ? 0xFF : rng());
    SimpleBlock j;
    const uint64_t h = importBytes(j, junk);
    if (h == 0) continue;
    uint64_t sum = h;
    for (unsigned long f = 0; f < j.getNumberOfFrames(); ++f) sum += j.getFrame(f)->numBytes();
    EXPECT_LE(sum, junk.size());
  }
}

// ---------------------------------------------------------------- clusters, cues, seek head

TEST_F(ModelTest, ClusterCuesAndSeekHead) {
  ClusterElt cluster;
  EXPECT_EQ(saved(cluster, true), Bytes({0x1F, 0x43, 0xB6, 0x75, 0x83, 0xE7, 0x81, 0x00}));
  cluster->timecode_->set(5);
  EXPECT_TRUE(cluster->isDefault());

  // Blocks of both kinds keep their order through a file, and their frames come back.
  ClusterElt full;
  full->timecode_->set(7);
  const Bytes frames = {1, 2, 3, 4, 5, 9};
  SimpleBlock laced = blockOf({3}, frames), single;
  laced.addFrame(receiptForConstMemory(frames.data() + 3, 2));
  laced.setLacing(SimpleBlock::kEBMLLacing);
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
  EXPECT_EQ(back->timecode_->get(), 7u);
  ASSERT_EQ(back->blocks_.count(), 2u);
  const IElement* first = back->blocks_.elements().front();
  const auto* second = static_cast<const Cluster::BlockGroupElt*>(back->blocks_.elements().back());
  ASSERT_TRUE(first->getId() == 0xA3 && second->getId() == 0xA0);
  SimpleBlock b1, b2;
  ASSERT_EQ(b1.importData(static_cast<const VBinary&>(first->getPayload()).data()), 6u);
  ASSERT_EQ(b1.getNumberOfFrames(), 2u);
  EXPECT_EQ(contentOf(b1.getFrame(0)), Bytes({1, 2, 3}));
  EXPECT_EQ(contentOf(b1.getFrame(1)), Bytes({4, 5}));
  ASSERT_EQ(b2.importData((*second)->block_->data()), 4u);
  EXPECT_EQ(b2.getRelativeTimecode(), 10);
  EXPECT_FALSE(b2.isKeyframe());
  EXPECT_EQ(contentOf(b2.getFrame(0)), Bytes({9}));
  EXPECT_EQ((*second)->referenceBlock_.front()->get(), -10);

  TElt<CueTrkPos, 0xB7, CuePoint::EltName0xB7> pos;
  EXPECT_EQ(saved(pos), Bytes({0xB7, 0x83, 0xF7, 0x81, 0x00}));
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
  auto& top = chapters->editions_.add()->atoms_.add();
  top->uid_->set(1);
  top->displays_.add()->string_->set("a");
  auto& middle = top->atoms_.add();
  middle->uid_->set(2);
  middle->displays_.add()->string_->set("b");
  auto& bottom = middle->atoms_.add();
  bottom->uid_->set(3);
  bottom->timeStart_->set(1000);
  bottom->displays_.add()->string_->set("c");

  auto atom = [](unsigned char uid, Bytes start, char name, Bytes sub) {
    Bytes p = cat({{0x73, 0xC4, 0x81, uid, 0x91}, start, {0x80, 0x83, 0x85, 0x81, static_cast<unsigned char>(name)}, sub});
    return cat({{0xB6, static_cast<unsigned char>(0x80 | p.size())}, p});
  };
  const Bytes inner = atom(1, {0x81, 0x00}, 'a', atom(2, {0x81, 0x00}, 'b', atom(3, {0x82, 0x03, 0xE8}, 'c', {})));
  const Bytes edition = cat({{0x45, 0xB9, static_cast<unsigned char>(0x80 | inner.size())}, inner});
  const Bytes expected = cat({{0x10, 0x43, 0xA7, 0x70, static_cast<unsigned char>(0x80 | edition.size())}, edition});
  EXPECT_EQ(saved(chapters), expected);

  ChaptersElt back;
  ASSERT_EQ(loaded(back, expected), expected.size());
  auto check = [](const auto& a, const char* name, uint64_t uid, const char* display, size_t subs) {
    EXPECT_STREQ(a.getName(), name);
    EXPECT_EQ(a->uid_->get(), uid);
    ASSERT_EQ(a->displays_.size(), 1u);
    EXPECT_EQ(a->displays_[0]->string_->get(), display);
    ASSERT_EQ(a->atoms_.size(), subs);
  };
  ASSERT_EQ(back->editions_.size(), 1u);
  ASSERT_EQ(back->editions_[0]->atoms_.size(), 1u);
  const auto& l1 = back->editions_[0]->atoms_[0];
  check(l1, "ChapterAtom", 1, "a", 1);
  check(l1->atoms_[0], "SubChapterAtom", 2, "b", 1);
  const auto& l3 = l1->atoms_[0]->atoms_[0];
  check(l3, "SubChapterAtom", 3, "c", 0);
  EXPECT_EQ(l3->timeStart_->get(), 1000u);
  EXPECT_EQ(l3->displays_[0]->language_->get(), "eng");
  EXPECT_EQ(saved(back), expected);
}

// ---------------------------------------------------------------- a whole file read by another reader

uint64_t readBigEndian(const Bytes& file, const ReceiptPtr& r) {
  uint64_t v = 0;
  for (uint64_t i = 0; i < r->numBytes(); ++i) v = (v << 8) | file.at(r->position() + i);
  return v;
}

TEST_F(ModelTest, HandBuiltFileReadByFfprobe) {
  if (!kapsel_test::haveTool("ffprobe")) GTEST_SKIP() << "ffprobe not installed";
  struct Planned { short tc; int lacing; std::vector<unsigned long> sizes; };
  // Lacing -1 is automatic; cluster 2 starts at 1000 and its first block reaches back before it.
  const std::vector<std::vector<Planned>> plan = {
      {{0, 0, {160}}, {20, -1, {300, 100, 50}}, {80, -1, {1000, 1002, 6}}, {140, -1, {64, 64, 64}}},
      {{-800, 0, {78}}, {0, SimpleBlock::kXiphLacing, {510, 2}}, {40, 0, {12}}}};
  Bytes pool(4000);
  for (size_t i = 0; i < pool.size(); ++i) pool[i] = static_cast<unsigned char>(i * 31 + 7);

  EbmlDoc::HeadElt head;
  head->docType_->set("matroska");
  head->docTypeVersion_->set(2);
  head->docTypeReadVersion_->set(2);
  MatroskaDoc::SegmentElt seg;
  seg->info_->duration_->set(1060.0);
  auto& track = seg->tracks_->tracks_.add();
  track->trackNumber_->set(1);
  track->trackUid_->set(0x1234567);
  track->trackType_->set(2);
  track->codecId_->set("A_PCM/INT/LIT");
  track->defaultDuration_->set(20000000);  // later laces are placed 20 ms apart
  track->audio_->bitDepth_->set(16);
  MemoryStorage mem;
  std::vector<int64_t> wantPts, wantSize;
  std::vector<std::string> wantMd5;  // the frame bytes as ffmpeg copies them out
  auto& cuePoint = seg->cues_->points_.add();
  cuePoint->time_->set(1000);
  auto& cuePos = cuePoint->positions_.add();
  cuePos->track_->set(1);
  for (size_t c = 0; c < plan.size(); ++c) {
    auto& cluster = seg->clusters_.add();
    cluster->timecode_->set(c * 1000);
    for (const Planned& p : plan[c]) {
      SimpleBlock b = blockOf(p.sizes, pool);
      b.setRelativeTimecode(p.tc);
      if (p.lacing < 0) b.setAutoLacing(); else b.setLacing(static_cast<SimpleBlock::Lacing>(p.lacing));
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
  cuePos->clusterPosition_->setOrigin(&seg);
  cuePos->clusterPosition_->setElt(&seg->clusters_.back());
  auto& seekHead = seg->seekHeads_.add();
  seekHead->indexThis(&seg, &seg->info_);
  seekHead->indexThis(&seg, &seg->tracks_);
  seekHead->indexThis(&seg, &seg->cues_);

  const std::string path = dir_.path("built.mkv");
  {
    FileStorage fs(path, File::kReadWrite);
    ASSERT_TRUE(head.save(fs));
    ASSERT_TRUE(seg.save(fs));
    // Positions of elements written after their reference are patched in place.
    for (auto& e : seekHead->entries_) EXPECT_TRUE(e->position_->rewrite());
    EXPECT_TRUE(cuePos->clusterPosition_->rewrite());
    fs.file().close();
  }
  const Bytes file = kapsel_test::readFile(path);
  ASSERT_EQ(file.size(), seg.storageReceipt()->position() + seg.storageReceipt()->numBytes());
  const uint64_t origin = seg.payloadReceipt()->position();
  EXPECT_EQ(readBigEndian(file, seekHead->entries_[0]->position_.payloadReceipt()),
            seg->info_.storageReceipt()->position() - origin);
  EXPECT_EQ(readBigEndian(file, seekHead->entries_[2]->position_.payloadReceipt()),
            seg->cues_.storageReceipt()->position() - origin);
  EXPECT_EQ(readBigEndian(file, cuePos->clusterPosition_.payloadReceipt()),
            seg->clusters_.back().storageReceipt()->position() - origin);

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
