// Whole documents: the EBML header, save and load of full segments, references, CRC-32,
// the optimiser, and files written by other muxers.

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "kapsel/kapsel.h"
#include "support/readers.h"

namespace {

using namespace Kapsel;
using namespace kapsel_test;
using Bytes = std::vector<unsigned char>;

// ---------------------------------------------------------------- an independent look at the bytes

struct RawElt {
  uint64_t id = 0;
  size_t start = 0, payload = 0, end = 0;
  bool open = false;  // all-ones size
};

// One element header at pos; an unknown size runs to the limit.
bool rawElement(const Bytes& b, size_t pos, size_t limit, RawElt& e) {
  if (pos >= limit) return false;
  unsigned idLen = 1;
  while (idLen <= 4 && !(b[pos] & (0x80 >> (idLen - 1)))) ++idLen;
  if (idLen > 4 || pos + idLen >= limit) return false;
  e.id = 0;
  for (unsigned i = 0; i < idLen; ++i) e.id = e.id << 8 | b[pos + i];
  const size_t p = pos + idLen;
  unsigned sl = 1;
  while (sl <= 8 && !(b[p] & (0x80 >> (sl - 1)))) ++sl;
  if (sl > 8 || p + sl > limit) return false;
  uint64_t size = b[p] & (0xFF >> sl);
  bool unknown = size == (0xFFu >> sl);
  for (unsigned i = 1; i < sl; ++i) {
    size = size << 8 | b[p + i];
    unknown = unknown && b[p + i] == 0xFF;
  }
  e.start = pos;
  e.payload = p + sl;
  e.open = unknown;
  e.end = unknown ? limit : static_cast<size_t>(std::min<uint64_t>(limit, e.payload + size));
  return true;
}

size_t sizeFieldAt(const RawElt& e) {
  return e.start + (e.id > 0xFFFFFF ? 4 : e.id > 0xFFFF ? 3 : e.id > 0xFF ? 2 : 1);
}

std::vector<RawElt> rawChildren(const Bytes& b, size_t from, size_t to) {
  std::vector<RawElt> out;
  RawElt e;
  for (; from < to && rawElement(b, from, to, e); from = e.end) out.push_back(e);
  return out;
}

std::vector<RawElt> rawChildren(const Bytes& b, const RawElt& parent) {
  return rawChildren(b, parent.payload, parent.end);
}

const RawElt* rawChild(const std::vector<RawElt>& kids, uint64_t id) {
  for (const auto& k : kids)
    if (k.id == id) return &k;
  return nullptr;
}

uint64_t rawUInt(const Bytes& b, const RawElt& e) {
  uint64_t v = 0;
  for (size_t i = e.payload; i < e.end; ++i) v = v << 8 | b[i];
  return v;
}

uint32_t crc32Of(const unsigned char* p, size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  while (n--) {
    c ^= *p++;
    for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
  }
  return ~c;
}

bool saveTo(const MatroskaDoc& doc, const std::string& path) {
  FileStorage out(path, File::kReadWrite);
  if (!out.file().isOpen()) return false;
  out.file().setSize(0);
  ReceiptPtr r = doc.save(out);
  out.file().close();
  return r && !out.file().hadWriteError();
}

// ---------------------------------------------------------------- frames in and out

struct Frame {
  uint64_t track;
  int64_t time;
  Bytes data;
  bool operator==(const Frame& o) const { return track == o.track && time == o.time && data == o.data; }
};

// Ten 100 ms PCM frames per second on track 1, one text line per second on track 2, two seconds.
std::vector<Frame> sourceFrames() {
  std::vector<Frame> frames;
  for (int c = 0; c < 2; ++c)
    for (int i = 0; i < 10; ++i) {
      const int64_t t = c * 1000 + i * 100;
      if (i == 6) {
        const std::string text = c == 0 ? "first line" : "second line";
        frames.push_back({2, c * 1000 + 550, Bytes(text.begin(), text.end())});
      }
      Bytes pcm(3200);
      for (size_t k = 0; k < pcm.size(); ++k) pcm[k] = static_cast<unsigned char>(k * 7 + static_cast<size_t>(t));
      frames.push_back({1, t, pcm});
    }
  return frames;
}

std::vector<Frame> framesOf(MatroskaDoc& doc) {
  std::vector<Frame> out;
  for (auto& s : doc.segments_)
    for (auto& c : s->clusters_)
      for (IElement* e : c->blocks_.elements()) {
        const VBinary* bin = nullptr;
        if (auto* sb = dynamic_cast<Cluster::SimpleBlockElt*>(e)) bin = &**sb;
        if (auto* g = dynamic_cast<Cluster::BlockGroupElt*>(e)) bin = &*(*g)->block_;
        SimpleBlock block;
        if (!bin || block.importData(bin->data()) == 0) continue;
        for (unsigned long i = 0; i < block.getNumberOfFrames(); ++i) {
          ReceiptPtr r = block.getFrame(i);
          Bytes d(r ? r->numBytes() : 0);
          if (!d.empty() && !r->load(d.data())) d.clear();
          const int64_t time = static_cast<int64_t>(c->timecode_->get()) + block.getRelativeTimecode();
          out.push_back({block.getTrackNumber(), time, d});
        }
      }
  return out;
}

// Frame sizes per stream; the sample files number their tracks 1 and 2 in stream order.
std::map<int, std::vector<int64_t>> sizesByStream(MatroskaDoc& doc) {
  std::map<int, std::vector<int64_t>> out;
  for (const auto& f : framesOf(doc)) out[static_cast<int>(f.track) - 1].push_back(static_cast<int64_t>(f.data.size()));
  return out;
}

// ---------------------------------------------------------------- a full document in memory

constexpr uint64_t kSeekHead = 0x114D9B74, kInfo = 0x1549A966, kTracks = 0x1654AE6B, kCues = 0x1C53BB6B,
                   kChapters = 0x1043A770, kTags = 0x1254C367, kCluster = 0x1F43B675;

// Tracks, chapters, tags, cues and two clusters; the first seek head chains to a second one that
// trails the segment and indexes the clusters.
void buildDocument(WebmDoc& doc, MemoryStorage& storage, const std::vector<Frame>& frames) {
  MatroskaDoc::SegmentElt& segElt = doc.segments_.add();
  Segment& seg = *segElt;
  SegInfo& info = *seg.info_;
  info.title_->set("round trip"), info.writingApp_->set("document test"), info.duration_->set(2000.0);
  unsigned char uid[16];
  for (unsigned i = 0; i < 16; ++i) uid[i] = static_cast<unsigned char>(i + 1);
  info.segmentUid_->set(uid);

  Track& audio = *seg.tracks_->tracks_.add();
  audio.trackNumber_->set(1), audio.trackUid_->set(1111), audio.trackType_->set(2);
  audio.codecId_->set("A_PCM/INT/LIT"), audio.language_->set("und");
  audio.audio_->samplingFrequency_->set(16000.0), audio.audio_->bitDepth_->set(16);
  Track& text = *seg.tracks_->tracks_.add();
  text.trackNumber_->set(2), text.trackUid_->set(2222), text.trackType_->set(0x11);
  text.codecId_->set("S_TEXT/UTF8"), text.name_->set("notes"), text.flagLacing_->set(0);

  Edition& edition = *seg.chapters_->editions_.add();
  edition.uid_->set(77);
  for (int i = 0; i < 2; ++i) {
    ChapAtom& atom = *edition.atoms_.add();
    atom.uid_->set(100 + static_cast<uint64_t>(i));
    atom.timeStart_->set(static_cast<uint64_t>(i) * 1000000000ull);
    atom.displays_.add()->string_->set(i == 0 ? "Opening" : "Second");
  }
  Tag& tag = *seg.tags_.add()->tags_.add();
  tag.targets_->typeValue_->set(50);
  SimpleTag& simple = *tag.simpleTags_.add();
  simple.name_->set("TITLE"), simple.string_->set("round trip");

  SeekHeadElt& first = seg.seekHeads_.add();
  SeekHeadElt& second = seg.seekHeads_.add();
  for (int c = 0; c < 2; ++c) {
    ClusterElt& cluster = seg.clusters_.add();
    cluster->timecode_->set(static_cast<uint64_t>(c) * 1000);
    second->indexThis(&segElt, &cluster);
    uint64_t blocks = 0, textBlock = 0;
    for (const auto& f : frames) {
      if (f.time / 1000 != c) continue;
      SimpleBlock block;
      block.setTrackNumber(f.track);
      block.setRelativeTimecode(static_cast<short>(f.time - c * 1000));
      block.setKeyframe(f.track == 1);
      block.addFrame(f.data.data(), static_cast<unsigned long>(f.data.size()), storage);
      ++blocks;
      if (f.track == 1) {
        Cluster::SimpleBlockElt e;
        block.exportData(e->data(), storage);
        cluster->blocks_.push_back(e);
        continue;
      }
      textBlock = blocks;
      Cluster::BlockGroupElt g;  // text goes in a group for its duration
      g->duration_->set(400);
      block.exportData(g->block_->data(), storage);
      cluster->blocks_.push_back(g);
    }
    CuePoint& point = *seg.cues_->points_.add();
    point.time_->set(static_cast<uint64_t>(c) * 1000);
    for (uint64_t track = 1; track <= static_cast<uint64_t>(c) + 1; ++track) {
      CueTrkPos& pos = *point.positions_.add();
      pos.track_->set(track);
      pos.clusterPosition_->setOrigin(&segElt), pos.clusterPosition_->setElt(&cluster);
      if (track == 2) pos.blockNumber_->set(textBlock);
    }
  }
  for (IElement* e : std::vector<IElement*>{&seg.info_, &seg.tracks_, &seg.chapters_, &seg.cues_, &seg.tags_.front(),
                                            &second})
    first->indexThis(&segElt, e);
}

// ---------------------------------------------------------------- EBML header

TEST(DocumentHeader, ByteExactForEachDocumentKindAndKeptOnReload) {
  TempDir dir;
  auto head = [](const Bytes& tail) {
    Bytes b = {0x1A, 0x45, 0xDF, 0xA3, 0xA3, 0x42, 0x86, 0x81, 0x01, 0x42, 0xF7, 0x81, 0x01,
               0x42, 0xF2, 0x81, 0x04, 0x42, 0xF3, 0x81, 0x08};
    b.insert(b.end(), tail.begin(), tail.end());
    return b;
  };
  const Bytes webm = head({0x42, 0x82, 0x84, 'w', 'e', 'b', 'm', 0xEC, 0x82, 0x00, 0x00,  // DocType, Void
                           0x42, 0x87, 0x81, 0x02, 0x42, 0x85, 0x81, 0x02});
  auto mkv = [&](unsigned char v) {
    return head({0x42, 0x82, 0x88, 'm', 'a', 't', 'r', 'o', 's', 'k', 'a', 0x42, 0x87, 0x81, v, 0x42, 0x85, 0x81, v});
  };
  auto bytesOf = [&](const MatroskaDoc& doc) {
    EXPECT_TRUE(saveTo(doc, dir.path("head")));
    return readFile(dir.path("head"));
  };
  EXPECT_EQ(bytesOf(WebmDoc(kFileFormatWebm)), webm);
  EXPECT_EQ(bytesOf(WebmDoc(kFileFormatMatroska)), mkv(2));
  EXPECT_EQ(bytesOf(WebmDoc(static_cast<TFileFormat>(7))), mkv(2));
  EXPECT_EQ(bytesOf(MatroskaDoc()), mkv(1));

  // Loaded back, the header keeps its values and the Void after "webm", and saves the same bytes.
  writeFile(dir.path("in"), webm);
  MatroskaDoc loaded;
  FileStorage in(dir.path("in"), File::kReadOnly);
  EXPECT_EQ(loaded.load(in, webm.size()), webm.size());
  EXPECT_TRUE(loaded.segments_.empty());
  EXPECT_EQ(bytesOf(loaded), webm);
}

// ---------------------------------------------------------------- a saved document, Matroska and WebM

class SavedDocument : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    webm_ = GetParam();
    path_ = dir_.path(webm_ ? "doc.webm" : "doc.mkv");
    frames_ = sourceFrames();
    doc_ = std::make_unique<WebmDoc>(webm_ ? kFileFormatWebm : kFileFormatMatroska);
    buildDocument(*doc_, storage_, frames_);
    doc_->setCrc32(true);
    ASSERT_TRUE(saveTo(*doc_, path_));
    bytes_ = readFile(path_);
    auto top = rawChildren(bytes_, 0, bytes_.size());
    ASSERT_EQ(top.size(), 2u);
    ASSERT_EQ(top[1].id, Segment::kId);
    segment_ = top[1];
  }

  // The element of the given id at this offset from the segment's payload.
  RawElt at(uint64_t offset, uint64_t id) {
    RawElt e;
    EXPECT_TRUE(rawElement(bytes_, segment_.payload + offset, bytes_.size(), e));
    EXPECT_EQ(e.id, id);
    return e;
  }

  bool webm_ = false;
  TempDir dir_;
  std::string path_;
  std::vector<Frame> frames_;
  MemoryStorage storage_;
  std::unique_ptr<WebmDoc> doc_;
  Bytes bytes_;
  RawElt segment_;
};

TEST_P(SavedDocument, LayoutReferencesAndCrc32InTheBytes) {
  EXPECT_EQ(segment_.end, bytes_.size());
  const auto kids = rawChildren(bytes_, segment_);
  std::vector<uint64_t> ids;
  for (const auto& k : kids) ids.push_back(k.id);
  const std::vector<uint64_t> expected =
      webm_ ? std::vector<uint64_t>{kSeekHead, kInfo, kTracks, kChapters, kCues, kTags, kCluster, kCluster, kSeekHead}
            : std::vector<uint64_t>{kSeekHead, kInfo, kTracks, kCues, kChapters, kCluster, kCluster, kTags, kSeekHead};
  ASSERT_EQ(ids, expected);

  // Each top-level master starts with a CRC-32 of the rest of its payload, most significant byte first.
  for (const auto& k : kids) {
    ASSERT_GE(k.end - k.payload, 6u);
    ASSERT_EQ(bytes_[k.payload] << 8 | bytes_[k.payload + 1], 0xBF84) << k.id;
    const unsigned char* v = &bytes_[k.payload + 2];
    const uint32_t stored = uint32_t(v[0]) << 24 | uint32_t(v[1]) << 16 | uint32_t(v[2]) << 8 | v[3];
    EXPECT_EQ(stored, crc32Of(&bytes_[k.payload + 6], k.end - k.payload - 6)) << k.id;
  }

  // Every seek entry names the element at the position it gives; cue positions land on the right cluster.
  size_t entries = 0, positions = 0;
  for (const auto& head : kids)
    for (const auto& seek : head.id == kSeekHead ? rawChildren(bytes_, head) : std::vector<RawElt>{}) {
      if (seek.id != 0x4DBB) continue;
      const auto fields = rawChildren(bytes_, seek);
      ASSERT_TRUE(rawChild(fields, 0x53AB) && rawChild(fields, 0x53AC));
      const RawElt& pos = *rawChild(fields, 0x53AC);
      at(rawUInt(bytes_, pos), rawUInt(bytes_, *rawChild(fields, 0x53AB)));
      EXPECT_LT(pos.end - pos.payload, 8u);  // sized from the dry run, not left at the reset width
      ++entries;
    }
  EXPECT_EQ(entries, 8u);
  for (const auto& point : rawChildren(bytes_, *rawChild(kids, kCues))) {
    const auto pk = rawChildren(bytes_, point);
    if (point.id != 0xBB) continue;
    ASSERT_TRUE(rawChild(pk, 0xB3));
    for (const auto& pos : pk) {
      if (pos.id != 0xB7) continue;
      const RawElt ref = *rawChild(rawChildren(bytes_, pos), 0xF1);
      EXPECT_LT(ref.end - ref.payload, 8u);
      const RawElt cluster = at(rawUInt(bytes_, ref), kCluster);
      EXPECT_EQ(rawUInt(bytes_, *rawChild(rawChildren(bytes_, cluster), 0xE7)), rawUInt(bytes_, *rawChild(pk, 0xB3)));
      ++positions;
    }
  }
  EXPECT_EQ(positions, 3u);

  // A second save of the same document (with fresh savers for WebM) gives the same bytes.
  ASSERT_TRUE(saveTo(*doc_, dir_.path("again")));
  EXPECT_EQ(readFile(dir_.path("again")), bytes_);
}

TEST_P(SavedDocument, LoadsBackAndSavesTheSameBytes) {
  WebmDoc doc;
  FileStorage in(path_, File::kReadOnly);
  ASSERT_EQ(doc.loadAndKeepReceipts(in, bytes_.size()), bytes_.size());
  doc.setFileFormat(webm_ ? kFileFormatWebm : kFileFormatMatroska);
  ASSERT_EQ(doc.segments_.size(), 1u);
  Segment& seg = *doc.segments_.front();
  EXPECT_EQ(seg.info_->muxingApp_->get(), kLibraryIdentification);
  EXPECT_EQ(framesOf(doc), frames_);

  // References point at the loaded elements themselves.
  ASSERT_EQ(seg.cues_->points_.size(), 2u);
  for (size_t c = 0; c < 2; ++c)
    for (const auto& pos : seg.cues_->points_[c]->positions_)
      EXPECT_EQ(pos->clusterPosition_->getElt(), &seg.clusters_[c]);
  EXPECT_EQ(seg.cues_->points_[1]->positions_[1]->blockNumber_->get(), 7u);
  ASSERT_EQ(seg.seekHeads_.size(), 2u);
  EXPECT_EQ((*seg.seekHeads_[0]->findFirst(kInfo))->position_->getElt(), &seg.info_);
  EXPECT_EQ((*seg.seekHeads_[0]->findFirst(kSeekHead))->position_->getElt(), &seg.seekHeads_[1]);
  EXPECT_EQ(seg.seekHeads_[1]->entries_.back()->position_->getElt(), &seg.clusters_[1]);

  // Every top-level master carried a CRC-32 and the loader found it matching.
  std::vector<IElement*> top = {&seg.info_, &seg.tracks_, &seg.cues_, &seg.chapters_, &seg.tags_.front()};
  for (auto& h : seg.seekHeads_) top.push_back(&h);
  for (auto& c : seg.clusters_) top.push_back(&c);
  for (IElement* e : top) EXPECT_TRUE(e->shouldComputeCrc32() && e->crc32Matched()) << e->getName();

  // Every value, block group and reference survives: saved again, the file is the same.
  ASSERT_TRUE(saveTo(doc, dir_.path("again")));
  EXPECT_EQ(readFile(dir_.path("again")), bytes_);
}

TEST_P(SavedDocument, SeekHeadGuidedLoadAndOpenSizes) {
  for (bool clusters : {true, false}) {
    MatroskaDoc doc;
    FileStorage in(path_, File::kReadOnly);
    ASSERT_TRUE(doc.loadSeekHead(in, bytes_.size()));
    Segment& seg = *doc.segments_.front();
    EXPECT_EQ(seg.seekHeads_.size(), 1u);
    EXPECT_TRUE(seg.clusters_.empty());
    EXPECT_FALSE(seg.info_.storageReceipt());
    ASSERT_TRUE(doc.loadViaSeekHead(in, nullptr, clusters));
    EXPECT_EQ(seg.seekHeads_.size(), 2u);
    EXPECT_EQ(seg.info_->title_->get(), "round trip");
    EXPECT_EQ(seg.chapters_->editions_.size(), 1u);
    EXPECT_EQ(seg.tags_.size(), 1u);
    EXPECT_EQ(framesOf(doc), clusters ? frames_ : std::vector<Frame>{});
    EXPECT_TRUE(!clusters || seg.cues_->points_[1]->positions_[0]->clusterPosition_->getElt() == &seg.clusters_[1]);
  }
  // The same file with the Segment and both Clusters left open (all-ones sizes) loads the same frames.
  Bytes open = bytes_;
  auto markUnknown = [&](const RawElt& e) {
    const size_t sizeAt = sizeFieldAt(e);
    for (size_t i = sizeAt; i < e.payload; ++i) open[i] = 0xFF;
    open[sizeAt] = static_cast<unsigned char>(0xFF >> (e.payload - sizeAt - 1));
  };
  markUnknown(segment_);
  for (const auto& k : rawChildren(bytes_, segment_))
    if (k.id == kCluster) markUnknown(k);
  writeFile(dir_.path("open"), open);
  MatroskaDoc doc;
  FileStorage in(dir_.path("open"), File::kReadOnly);
  EXPECT_EQ(doc.load(in, open.size()), open.size());
  EXPECT_EQ(framesOf(doc), frames_);
  ASSERT_EQ(doc.segments_.size(), 1u);
  EXPECT_EQ(doc.segments_.front()->tags_.size(), 1u);
  EXPECT_EQ(doc.segments_.front()->seekHeads_.size(), 2u);
  if (haveTool("ffprobe")) {
    EXPECT_EQ(ffprobePackets(dir_.path("open")).size(), frames_.size());
  }
}

TEST_P(SavedDocument, IndependentReadersAgree) {
  if (!haveTool("ffprobe") || !haveTool("mkvmerge") || !haveTool("mkvinfo")) GTEST_SKIP() << "readers not installed";
  std::string err;
  const auto packets = ffprobePackets(path_, &err);
  EXPECT_EQ(err, "");
  ASSERT_EQ(packets.size(), frames_.size());
  for (size_t i = 0; i < packets.size(); ++i) {
    EXPECT_EQ(packets[i].stream, static_cast<int>(frames_[i].track) - 1) << i;
    EXPECT_EQ(packets[i].ptsMs, frames_[i].time) << i;
    EXPECT_EQ(packets[i].size, static_cast<int64_t>(frames_[i].data.size())) << i;
  }
  const auto merge = mkvmergeJson(path_);
  EXPECT_EQ(merge.exitCode, 0) << merge.out;
  const auto j = nlohmann::json::parse(merge.out, nullptr, false);
  ASSERT_FALSE(j.is_discarded());
  ASSERT_EQ(j["tracks"].size(), 2u);
  EXPECT_EQ(j["tracks"][0].value("type", "") + "|" + j["tracks"][1].value("type", ""), "audio|subtitles");
  EXPECT_EQ(j["container"]["properties"].value("title", ""), "round trip");
  const auto info = mkvinfo(path_);
  EXPECT_EQ(info.exitCode, 0) << info.err;
  EXPECT_EQ(info.err, "");
  if (webm_ && haveTool("webm_info")) {
    const auto w = runCommand("webm_info -cues -i " + shellQuote(path_));
    EXPECT_EQ(w.exitCode, 0) << w.out << w.err;
    // Its parser drops the whole index when one cue point lacks a time.
    EXPECT_EQ(w.out.find("No cue points"), std::string::npos) << w.out;
  }
}

// Whether anything below the document keeps a CRC-32 or Void padding.
class FindsCrcOrVoid : public IElementCrawler {
 public:
  bool eval(IElement& e) override {
    if (e.shouldComputeCrc32() || e.getPayload().hasVoid()) {
      found = e.getName();
      return true;
    }
    return evalPayload(e.getPayload());
  }
  std::string found;
};

// The EBML header is left out: a WebM header keeps its Void after DocType on purpose.
TEST_P(SavedDocument, OptimizeDropsCrcAndVoidsAndKeepsEveryFrame) {
  WebmDoc doc(webm_ ? kFileFormatWebm : kFileFormatMatroska);
  FileStorage in(path_, File::kReadOnly);
  ASSERT_EQ(doc.load(in, bytes_.size()), bytes_.size());
  MatroskaDoc::SegmentElt& seg = doc.segments_.front();
  seg->tracks_->addVoid(3);  // padding as other muxers leave it, after a master and inside one
  seg->tracks_->tracks_.front().getPayload().addVoid(1);
  FindsCrcOrVoid loaded, optimized;
  EXPECT_TRUE(loaded.eval(seg));
  MemoryStorage memory;
  doc.optimize(memory);
  EXPECT_FALSE(optimized.eval(seg)) << optimized.found;
  ASSERT_TRUE(saveTo(doc, dir_.path("optimized")));
  const Bytes out = readFile(dir_.path("optimized"));
  const RawElt segment = rawChildren(out, 0, out.size()).at(1);
  for (const auto& k : rawChildren(out, segment)) {
    EXPECT_TRUE(k.id != 0xEC && k.id != 0xBF) << std::hex << k.id;
    for (const auto& kk : rawChildren(out, k)) EXPECT_TRUE(kk.id != 0xEC && kk.id != 0xBF) << std::hex << k.id;
  }
  MatroskaDoc back;
  FileStorage again(dir_.path("optimized"), File::kReadOnly);
  EXPECT_EQ(back.load(again, out.size()), out.size());
  EXPECT_EQ(framesOf(back), frames_);
}

// Blocks a pass after loading would shrink (a track number in more bytes than it needs, Xiph lacing of equal frames)
// shrink alike when clusters are optimised as they load; a block already as small as it gets keeps its bytes.
TEST(OptimizeOnLoad, SameBytesAsAPassAfterLoading) {
  TempDir dir;
  MemoryStorage storage;
  WebmDoc doc(kFileFormatMatroska);
  MatroskaDoc::SegmentElt& seg = doc.segments_.add();
  ClusterElt& cluster = seg->clusters_.add();
  cluster->timecode_->set(0);
  const std::vector<Bytes> blocks = {{0x81, 0x00, 0x00, 0x80, 1, 2, 3},                    // unlaced, minimal
                                     {0x40, 0x01, 0x00, 0x01, 0x80, 4, 5, 6},              // track 1 in two bytes
                                     {0x81, 0x00, 0x02, 0x82, 0x01, 0x03, 7, 8, 9, 10, 11, 12}};  // Xiph, equal
  for (const Bytes& b : blocks) {
    Cluster::SimpleBlockElt e;
    e->set(b, storage);
    cluster->blocks_.push_back(e);
  }
  ASSERT_TRUE(saveTo(doc, dir.path("in.mkv")));
  Bytes out[2];
  for (const bool onLoad : {false, true}) {
    WebmDoc back(kFileFormatMatroska);
    back.setKeepUnknown(true);
    FileStorage in(dir.path("in.mkv"), File::kReadOnly);
    MemoryStorage memory;
    OptimizeClustersOnLoad delegate(memory);
    ASSERT_GT(back.load(in, in.file().size(), onLoad ? &delegate : nullptr), 0u);
    back.optimize(memory, onLoad);
    ASSERT_TRUE(saveTo(back, dir.path("out.mkv")));
    out[onLoad] = readFile(dir.path("out.mkv"));
    std::vector<uint64_t> sizes;
    for (IElement* e : back.segments_.front()->clusters_.front()->blocks_.elements())
      sizes.push_back((**dynamic_cast<Cluster::SimpleBlockElt*>(e)).numBytes());
    EXPECT_EQ(sizes, (std::vector<uint64_t>{7, 7, 11})) << onLoad;
  }
  EXPECT_EQ(out[0], out[1]);
}

INSTANTIATE_TEST_SUITE_P(Formats, SavedDocument, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "WebM" : "Matroska"; });

// ---------------------------------------------------------------- files written by other muxers

class RealFiles : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    if (!haveTool("ffmpeg") || !haveTool("ffprobe")) return;
    dir_ = new TempDir;
    const std::string src =
        "ffmpeg -v error -y -f lavfi -i testsrc=size=96x64:rate=25:duration=2 "
        "-f lavfi -i sine=frequency=440:sample_rate=44100:duration=2 ";
    auto make = [](const std::string& name, const std::string& command) {
      const std::string p = dir_->path(name);
      if (runCommand(command).exitCode == 0 && readFile(p).size() > 0) files_.push_back(p);
    };
    auto q = [](const std::string& name) { return " " + shellQuote(dir_->path(name)); };
    const std::string vp8 = "-c:v libvpx -g 10 -b:v 100k -c:a libvorbis ";
    make("vp8.webm", src + vp8 + "-f webm" + q("vp8.webm"));
    const bool x264 = runCommand("ffmpeg -hide_banner -encoders").out.find("libx264") != std::string::npos;
    const std::string avc =
        x264 ? "-c:v libx264 -preset ultrafast -g 10 -c:a aac " : "-c:v mpeg4 -g 10 -c:a libmp3lame ";
    make("avc.mkv", src + avc + "-f matroska" + q("avc.mkv"));
    // Written to a pipe: the muxer cannot go back, so the Segment keeps its unknown size.
    make("live.mkv", src + vp8 + "-f matroska -live 1 pipe:1 >" + q("live.mkv"));
    if (haveTool("mkvmerge") && !files_.empty()) {
      make("merged.mkv", "mkvmerge -q --clusters-in-meta-seek -o" + q("merged.mkv") + q("avc.mkv"));
      make("merged.webm", "mkvmerge -q --webm -o" + q("merged.webm") + q("vp8.webm"));
    }
  }
  static void TearDownTestSuite() {
    delete dir_;
    dir_ = nullptr;
    files_.clear();
  }
  void SetUp() override {
    if (files_.size() < 5) GTEST_SKIP() << "ffmpeg, ffprobe or mkvmerge could not make the sample files";
  }
  static TempDir* dir_;
  static std::vector<std::string> files_;
};

TempDir* RealFiles::dir_ = nullptr;
std::vector<std::string> RealFiles::files_;

TEST_F(RealFiles, LoadFindsEveryFrameTheReaderCounts) {
  bool sawClusterIndex = false;
  for (const auto& f : files_) {
    SCOPED_TRACE(f);
    std::string err;
    std::map<int, std::vector<int64_t>> probe;
    for (const auto& p : ffprobePackets(f, &err)) probe[p.stream].push_back(p.size);
    ASSERT_EQ(probe.size(), 2u) << err;
    MatroskaDoc doc;
    FileStorage in(f, File::kReadOnly);
    EXPECT_GT(doc.load(in, in.file().size()), 0u);
    EXPECT_EQ(sizesByStream(doc), probe);

    MatroskaDoc guided;
    FileStorage in2(f, File::kReadOnly);
    const bool hasSeekHead = guided.loadSeekHead(in2, in2.file().size());
    const bool live = f.find("live") != std::string::npos;
    // The live file has an open Segment and may or may not carry a seek head.
    EXPECT_TRUE(live ? rawChildren(readFile(f), 0, in.file().size()).at(1).open : hasSeekHead);
    if (!hasSeekHead) continue;
    EXPECT_TRUE(guided.loadViaSeekHead(in2, nullptr, true));
    Segment& seg = *guided.segments_.front();
    EXPECT_EQ(seg.tracks_->tracks_.size(), 2u);
    bool indexesClusters = false;
    for (auto& h : seg.seekHeads_) indexesClusters = indexesClusters || h->findFirst(kCluster);
    // Clusters come only through a seek head that names at least one of them.
    sawClusterIndex = sawClusterIndex || indexesClusters;
    if (indexesClusters) {
      EXPECT_EQ(sizesByStream(guided), probe);
    } else {
      EXPECT_TRUE(seg.clusters_.empty());
    }
  }
  EXPECT_TRUE(sawClusterIndex);
}

}  // namespace
