// The formatter module as the host sees it, loaded with dlopen: what it answers and refuses, and the files it
// writes, checked by independent readers and by walking the bytes.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host_sdk/host_sdk.h"
#include "host_sdk/plugin_module.h"
#include "support/readers.h"

using namespace kapsel_test;

namespace {

using Bytes = std::vector<unsigned char>;
constexpr uint32_t kKvi = FourCC("KVI ");
constexpr uint32_t kMkv = FourCC("MKV ");
constexpr uint32_t kWebm = FourCC("WEBM");
constexpr uint32_t kUnknownVideo = 0x80090011, kUnknownAudio = 0x80090012, kNotOpened = 0x8009000F;
enum : uint64_t {
  kSegment = 0x18538067, kInfo = 0x1549A966, kTracks = 0x1654AE6B, kSeekHead = 0x114D9B74, kCues = 0x1C53BB6B,
  kChapters = 0x1043A770, kTags = 0x1254C367, kCluster = 0x1F43B675, kVoid = 0xEC
};

const PluginModule& module() {
  static PluginModule m;
  static std::string error;
  static const bool opened = m.open(KAPSEL_FORMATTER_MODULE, &error);
  if (!opened) ADD_FAILURE() << error;
  return m;
}

struct El {
  uint64_t id = 0, start = 0, data = 0, size = 0;
  size_t sizeLen = 0;
  bool unknown = false;
  uint64_t end() const { return data + size; }
};

// Reads one variable-length number; an ID keeps its length marker, a size does not. Returns its length.
size_t readVint(const Bytes& b, uint64_t& pos, uint64_t& value, bool keepMarker) {
  if (pos >= b.size() || b[pos] == 0) return 0;
  size_t n = 1;
  while (!(b[pos] & (0x80 >> (n - 1)))) ++n;
  if (pos + n > b.size()) return 0;
  value = keepMarker ? b[pos] : (b[pos] & (0xFFu >> n));
  for (size_t i = 1; i < n; ++i) value = value << 8 | b[pos + i];
  pos += n;
  return n;
}

bool readEl(const Bytes& b, uint64_t pos, El& e) {
  e.start = pos;
  if (!readVint(b, pos, e.id, true)) return false;
  e.sizeLen = readVint(b, pos, e.size, false);
  e.unknown = e.size == (1ull << (7 * e.sizeLen)) - 1;  // all ones
  e.data = pos;
  return e.sizeLen && (e.unknown || e.end() <= b.size());
}

std::vector<El> children(const Bytes& b, const El& parent) {
  std::vector<El> out;
  for (uint64_t pos = parent.data; pos < parent.end();) {
    El e;
    if (!readEl(b, pos, e) || e.unknown || e.end() > parent.end()) {
      ADD_FAILURE() << "unreadable element at " << pos;
      break;
    }
    out.push_back(e);
    pos = e.end();
  }
  return out;
}

El child(const Bytes& b, const El& parent, uint64_t id) {
  const auto all = children(b, parent);
  const auto it = std::find_if(all.begin(), all.end(), [&](const El& e) { return e.id == id; });
  return it == all.end() ? El{} : *it;
}

uint64_t num(const Bytes& b, const El& e) {
  uint64_t v = 0;
  for (uint64_t i = e.data; i < e.end(); ++i) v = v << 8 | b[i];
  return v;
}

Bytes raw(const Bytes& b, const El& e) { return Bytes(b.begin() + e.data, b.begin() + e.end()); }
std::string str(const Bytes& b, const El& e) { return std::string(b.begin() + e.data, b.begin() + e.end()); }

struct Block {
  uint64_t track;
  int64_t time;
  bool key;
  unsigned frames, lacing;
  size_t cluster, index;
};

struct Cue {
  uint64_t time, track, clusterPosition, block;
};

// The whole file: EBML header, then one Segment whose patched size reaches exactly the end of the file.
struct Layout {
  Bytes b;
  El segment;
  std::vector<El> top;
  std::string docType;

  explicit Layout(const std::string& path) : b(readFile(path)) {
    El head;
    if (!readEl(b, 0, head) || head.id != 0x1A45DFA3 || !readEl(b, head.end(), segment) || segment.id != kSegment) {
      ADD_FAILURE() << "no EBML header and Segment in " << path;
      return;
    }
    docType = str(b, child(b, head, 0x4282));
    EXPECT_FALSE(segment.unknown);
    EXPECT_EQ(segment.end(), b.size());
    top = children(b, segment);
  }
  std::vector<El> all(uint64_t id) const {
    std::vector<El> out;
    for (const El& e : top)
      if (e.id == id) out.push_back(e);
    return out;
  }
  El one(uint64_t id) const { return child(b, segment, id); }
  uint64_t rel(const El& e) const { return e.start - segment.data; }
  El track(uint64_t number) const {
    for (const El& t : children(b, one(kTracks)))
      if (num(b, child(b, t, 0xD7)) == number) return t;
    return El{};
  }
  std::vector<Block> blocks() const {
    std::vector<Block> out;
    const auto clusters = all(kCluster);
    for (size_t c = 0; c < clusters.size(); ++c) {
      const int64_t tc = static_cast<int64_t>(num(b, child(b, clusters[c], 0xE7)));
      size_t index = 0;
      for (const El& e : children(b, clusters[c])) {
        if (e.id != 0xA3) continue;
        uint64_t p = e.data, track = 0;
        readVint(b, p, track, false);
        const int64_t relative = static_cast<int16_t>(b[p] << 8 | b[p + 1]);
        const unsigned flags = b[p + 2], lacing = (flags >> 1) & 3;
        out.push_back({track, tc + relative, (flags & 0x80) != 0, lacing ? b[p + 3] + 1u : 1u, lacing, c, index++});
      }
    }
    return out;
  }
  std::vector<Cue> cues() const {
    std::vector<Cue> out;
    for (const El& point : children(b, one(kCues))) {
      const El pos = child(b, point, 0xB7);
      const El block = child(b, pos, 0x5378);
      out.push_back({num(b, child(b, point, 0xB3)), num(b, child(b, pos, 0xF7)), num(b, child(b, pos, 0xF1)),
                     block.id ? num(b, block) : 0});
    }
    return out;
  }
  // SeekID to SeekPosition of the first SeekHead; every entry must land on an element of that ID.
  std::map<uint64_t, uint64_t> seeks() const {
    std::map<uint64_t, uint64_t> out;
    for (const El& s : children(b, one(kSeekHead))) {
      const uint64_t id = num(b, child(b, s, 0x53AB)), pos = num(b, child(b, s, 0x53AC));
      El target;
      EXPECT_TRUE(readEl(b, segment.data + pos, target) && target.id == id) << std::hex << id;
      out.emplace(id, pos);
    }
    return out;
  }
};

// Structure shared by every written file.
void checkLayout(const Layout& l, bool cuesInReservation) {
  ASSERT_GE(l.top.size(), 4u);
  EXPECT_EQ((std::vector<uint64_t>{l.top[0].id, l.top[1].id, l.top[2].id}),
            (std::vector<uint64_t>{kInfo, kTracks, kSeekHead}));
  const auto clusters = l.all(kCluster);
  ASSERT_FALSE(clusters.empty());
  for (const El& e : l.top) {
    if (e.start >= clusters.front().start) break;
    EXPECT_TRUE(e.id == kInfo || e.id == kTracks || e.id == kSeekHead || e.id == kVoid || e.id == kCues ||
                e.id == kChapters) << std::hex << e.id;
  }
  for (const El& c : clusters) EXPECT_EQ(c.sizeLen, 8u);
  const auto seeks = l.seeks();
  for (uint64_t id : {kInfo, kTracks, kCluster, kCues, kChapters, kTags}) {
    ASSERT_EQ(seeks.count(id), id == kCluster ? 1u : l.all(id).size()) << std::hex << id;
    if (seeks.count(id)) {
      EXPECT_EQ(seeks.at(id), l.rel(l.one(id)));
    }
  }
  if (l.one(kCues).id) {
    EXPECT_EQ(l.one(kCues).start < clusters.front().start, cuesInReservation);
    EXPECT_EQ(l.one(kCues).start > clusters.back().start, !cuesInReservation);
  }
  // Every cue leads to its cluster and, through the block count, to a block of its track and time.
  const auto blocks = l.blocks();
  for (const Cue& cue : l.cues()) {
    size_t c = 0;
    while (c < clusters.size() && l.rel(clusters[c]) != cue.clusterPosition) ++c;
    ASSERT_LT(c, clusters.size()) << "cue at " << cue.time;
    bool found = false;
    for (const Block& bl : blocks)
      if (bl.cluster == c && bl.track == cue.track && bl.time == static_cast<int64_t>(cue.time))
        found = found || cue.block == bl.index || (cue.block == 0 && bl.index <= 1);
    EXPECT_TRUE(found) << "cue at " << cue.time << " track " << cue.track;
  }
}

// Synthetic payloads that readers' parsers take for what they claim to be.
Bytes noise(size_t n, uint32_t seed) {
  Bytes v(n);
  for (auto& c : v) c = static_cast<unsigned char>((seed = seed * 1103515245u + 12345u) >> 16);
  return v;
}
Bytes vp8(size_t n, bool key, uint32_t seed) {
  Bytes v = noise(n, seed);
  const unsigned char tag = key ? 0x10 : 0x11;
  const unsigned char head[10] = {tag, 0, 0, 0x9D, 0x01, 0x2A, 0x40, 0x01, 0xF0, 0x00};
  std::copy(head, head + (key ? 10 : 3), v.begin());
  return v;
}
Bytes avc(size_t n, bool key, uint32_t seed) {
  Bytes v = noise(n, seed);
  for (int i = 0; i < 4; ++i) v[i] = static_cast<unsigned char>((n - 4) >> (24 - 8 * i));  // one NAL unit
  v[4] = key ? 0x65 : 0x41;
  return v;
}

// Real Vorbis header packets: readers open the decoder with them.
std::vector<Bytes> vorbisHeaders(const TempDir& dir) {
  const std::string path = dir.path("vorbis.webm");
  const std::string make = "ffmpeg -v error -f lavfi -i anullsrc=r=48000:cl=stereo -t 0.1 -c:a libvorbis ";
  if (runCommand(make + shellQuote(path)).exitCode) return {};
  Layout l(path);
  const Bytes p = raw(l.b, child(l.b, l.track(1), 0x63A2));
  size_t pos = 1, sizes[2] = {0, 0};
  for (auto& s : sizes) {
    while (pos < p.size() && p[pos] == 255) s += p[pos++];
    s += p[pos++];
  }
  const auto a = p.begin() + pos, b = a + sizes[0], c = b + sizes[1];
  return {Bytes(a, b), Bytes(b, c), Bytes(c, p.end())};
}

struct Fed {
  int64_t ms;
  bool key;
  Bytes data;
};

// One job driven as the host drives it.
struct Job {
  CAFormatter* f;
  std::string path;
  RefVideoCompressor vc{RefVideoParams{FourCC("ON2!"), FourCC("VP8 "), 320, 240, 25.0, "VP8", {}, {}, {}}};
  RefAudioCompressor ac{RefAudioParams{kKvi, FourCC("LPCM"), 8000, 16, "Mono", "PCM"}};
  std::vector<Fed> video, audio;
  std::string summary;
  Array_c<CAceNameValuePair> meta;
  std::vector<std::unique_ptr<CAceMarker>> marks;

  Job(uint32_t format, std::string out) : f(module().create(kKvi, format)), path(std::move(out)) {}
  Job(CAFormatter* existing, std::string out) : f(existing), path(std::move(out)) {}
  ~Job() {
    if (f) f->Release();
  }
  uint32_t begin(bool wantVideo, bool wantAudio, uint64_t hintMs = 2000) {
    f->SetOutputFile(path);
    f->SetDurationHint(1000, 1000 + hintMs * 90, 90000);
    if (meta.GetCount()) f->SetMetaData(&meta);
    CAceMarkerPtrList list;
    for (auto& m : marks) list.Add(m.get());
    f->SetChapterMarkers(&list);
    SetStreams(*f, wantVideo ? &vc : nullptr, wantAudio ? &ac : nullptr);
    return f->BeginFormatting();
  }
  static int64_t ms(int64_t v, uint64_t units) {
    return units == 1000 ? v : static_cast<int64_t>(v * 1000.0 / units + 0.5);
  }
  void addVideo(int64_t t, uint64_t units, bool key, Bytes data, int64_t offset = 0, const Bytes* config = nullptr) {
    KVImage_t s = MakeVideoSample(data.data(), data.size(), t, units, offset, key, config);
    video.push_back({ms(t, units), key, std::move(data)});
    EXPECT_EQ(f->AddVideoSample(&s), 0u);
    ReleaseSample(s);
  }
  void addAudio(const std::vector<RefAudioPacket>& packets, const Bytes* config = nullptr, bool record = true) {
    KVAudio_t s = MakeAudioSample(packets, config);
    if (record)
      for (const auto& p : packets) audio.push_back({ms(p.timeValue, p.timeUnits), true, p.bytes});
    EXPECT_EQ(f->AddAudioSample(&s), 0u);
    ReleaseSample(s);
  }
  // Two seconds of 25 fps video, a key frame a second, and 26 ms audio packets, in time order.
  void feed(int64_t offset = 0) {
    for (int64_t v = 0, a = 0; v < 2000 || a < 2000;) {
      if (a <= v) addAudio({{noise(100, a), offset + a, 1000}}), a += 26;
      else addVideo(offset + v, 1000, v % 1000 == 0, vp8(200, v % 1000 == 0, v)), v += 40;
    }
  }
  void finish() {
    testing::internal::CaptureStderr();
    f->EndFormatting(nullptr);
    summary = testing::internal::GetCapturedStderr();
    f->Release();
    f = nullptr;
  }
  // The end-of-job summary tells the clusters the duration hint planned for and those written.
  void expectClusters(int expected, int final) const {
    const std::string want = "\nEXPECTED CLUSTERS   : " + std::to_string(expected) +
                             "\nFINAL CLUSTER COUNT : " + std::to_string(final) + "\n\n";
    EXPECT_NE(summary.find(want), std::string::npos) << summary;
  }
};

// What was fed comes back from ffprobe and ffmpeg: count, bytes, millisecond times and key flags per stream.
// Laced video frames follow at the default duration, so every video time is compared; readers guess the times of
// laced audio frames after the first of a block, so only audio block starts are.
void checkWithReaders(const Job& job, bool webm) {
  std::string err;
  const auto packets = ffprobePackets(job.path, &err);
  // Decoders reject the synthetic H.264 and AAC payloads while probing; nothing else may complain.
  std::istringstream lines(err);
  for (std::string line; std::getline(lines, line);) {
    bool probing = line.find("Could not find codec parameters") != std::string::npos;
    for (const char* start : {"[h264 @", "[aac @", "    Last", "Consider increasing"})
      probing = probing || line.rfind(start, 0) == 0;
    EXPECT_TRUE(!webm && probing) << line;
  }
  std::map<uint64_t, std::vector<bool>> blockStart;
  for (const Block& b : Layout(job.path).blocks())
    for (unsigned i = 0; i < b.frames; ++i) blockStart[b.track].push_back(i == 0);
  int stream = 0;
  for (const auto* fed : {&job.video, &job.audio}) {
    if (fed->empty()) continue;
    const uint64_t track = fed == &job.video ? 1 : 2;
    std::vector<std::pair<int64_t, bool>> want, got;
    std::vector<std::string> md5s;
    for (const Fed& f : *fed) want.emplace_back(f.ms, f.key), md5s.push_back(md5Hex(f.data.data(), f.data.size()));
    for (const auto& p : packets)
      if (p.stream == stream) got.emplace_back(p.ptsMs, p.key);
    ASSERT_EQ(got.size(), want.size()) << "stream " << stream;
    ASSERT_EQ(blockStart[track].size(), want.size());
    for (size_t i = 0; i < want.size(); ++i)
      if (!blockStart[track][i] && track == 2) got[i].first = want[i].first;
    EXPECT_EQ(got, want) << "stream " << stream;
    EXPECT_EQ(frameMd5(job.path, stream), md5s) << "stream " << stream;
    ++stream;
  }
  EXPECT_EQ(mkvmergeJson(job.path).exitCode, 0) << mkvmergeJson(job.path).out;
  const CommandResult info = mkvinfo(job.path);
  EXPECT_EQ(info.exitCode, 0) << info.out << info.err;
  if (webm) {
    EXPECT_EQ(webmInfo(job.path).exitCode, 0) << webmInfo(job.path).err;
  }
}

Layout checkFile(const Job& job, bool webm, bool cuesInReservation = true) {
  checkWithReaders(job, webm);
  Layout l(job.path);
  EXPECT_EQ(l.docType, webm ? "webm" : "matroska");
  checkLayout(l, cuesInReservation);
  return l;
}

Layout finishAndCheck(Job& job, bool webm, bool cuesInReservation = true) {
  job.finish();
  return checkFile(job, webm, cuesInReservation);
}

class PluginTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(module().isOpen()); }
  // Every packet and bundle handed to the formatter has been given back.
  void TearDown() override {
    EXPECT_EQ(RefPacket::LiveCount(), 0);
    EXPECT_EQ(RefPacketBundle::LiveCount(), 0);
  }
  TempDir dir;
};

class OutputTest : public PluginTest {
 protected:
  void SetUp() override {
    PluginTest::SetUp();
    for (const char* tool : {"ffprobe", "ffmpeg", "mkvmerge", "mkvinfo", "webm_info"})
      if (!haveTool(tool)) GTEST_SKIP() << tool << " is not installed";
  }
};

TEST_F(PluginTest, ExportsOnlyTheThreeEntryPoints) {
  const CommandResult r = runCommand(std::string("nm -D --defined-only ") + shellQuote(KAPSEL_FORMATTER_MODULE));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::set<std::string> ours;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line);) {
    const std::string name = line.substr(line.find_last_of(' ') + 1);
    static const std::set<std::string> toolchain = {"_init", "_fini", "__bss_start", "_edata", "_end"};
    if (toolchain.count(name) || name.rfind("__", 0) == 0) continue;
    ours.insert(name);
  }
  EXPECT_EQ(ours, (std::set<std::string>{"BXGetNumberFormatters", "BXGetFormatterInfo", "CreateFormatter"}));
}

TEST_F(PluginTest, EnumeratesAndCreatesFormatters) {
  const PluginModule& m = module();
  ASSERT_EQ(m.count(), 2u);
  const uint32_t expected[2] = {kMkv, kWebm};
  for (uint32_t i = 0; i < 3; ++i) {
    uint32_t maker = 0, version = 0;
    const uint32_t* format = nullptr;
    m.info(i == 2 ? 7 : i, &maker, &format, &version);  // out of range is clamped, never read past the table
    EXPECT_EQ(maker, kKvi);
    ASSERT_NE(format, nullptr);
    EXPECT_EQ(*format, expected[std::min(i, 1u)]);
    EXPECT_EQ(version, 0x10000u);
  }
  m.info(1, nullptr, nullptr, nullptr);  // every output is optional
  EXPECT_EQ(m.create(FourCC("ACME"), kMkv), nullptr);

  // Any format code but 'WEBM' writes Matroska.
  Job odd(FourCC("ABCD"), dir.path("odd.mkv"));
  ASSERT_NE(odd.f, nullptr);
  ASSERT_EQ(odd.begin(true, true), 0u);
  odd.feed();
  odd.f->EndFormatting(nullptr);
  EXPECT_EQ(Layout(odd.path).docType, "matroska");

  // A copy writes the same kind of file and does not keep the source's compressors.
  Job source(kWebm, "");
  Array_c<IVideoCompressor*> compressors;
  compressors.Add(&source.vc);
  source.f->SetVideoCompressors(compressors);
  Job copy(source.f->CreateCopy(), dir.path("copy.webm"));
  ASSERT_NE(copy.f, nullptr);
  copy.f->SetOutputFile(copy.path);
  copy.f->SetEncodeVideo(true);
  ASSERT_EQ(copy.f->BeginFormatting(), 0u);
  for (int i = 0; i < 5; ++i) copy.addVideo(i * 40, 1000, i == 0, vp8(200, i == 0, i));
  copy.f->EndFormatting(nullptr);
  EXPECT_EQ(readFile(copy.path).size(), 0u) << "a copy must not use the source's compressor";
  ASSERT_EQ(copy.begin(true, false), 0u);
  copy.feed();
  copy.f->EndFormatting(nullptr);
  EXPECT_EQ(Layout(copy.path).docType, "webm");
}

TEST_F(PluginTest, AnswersWhichCodecsItStores) {
  Job mkv(kMkv, ""), webm(kWebm, "");
  const uint32_t on2 = FourCC("ON2!"), acme = FourCC("ACME");
  struct Case {
    uint32_t maker, codec;
    bool video, inMkv, inWebm;
  } cases[] = {
      {on2, FourCC("VP8 "), true, true, true},     {kKvi, FourCC("VP8 "), true, false, false},
      {acme, FourCC("H264"), true, true, false},   {kKvi, FourCC("MP4V"), true, true, false},
      {kKvi, FourCC("VP62"), true, false, false},  {kKvi, FourCC("VRBS"), false, true, true},
      {acme, FourCC("VRBS"), false, false, false}, {kKvi, FourCC("AAC "), false, true, false},
      {acme, FourCC("AAC "), false, false, false}, {acme, FourCC("MP3 "), false, true, false},
      {kKvi, FourCC("LPCM"), false, true, false},  {acme, FourCC("LPCM"), false, false, false},
      {kKvi, FourCC("AC3 "), false, false, false}, {kKvi, FourCC("OPUS"), false, false, false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(FourCCToString(c.maker) + "/" + FourCCToString(c.codec));
    auto ask = [&](CAFormatter* f) {
      return c.video ? f->SupportsVideoCodec(c.maker, c.codec) : f->SupportsAudioCodec(c.maker, c.codec);
    };
    EXPECT_EQ(ask(mkv.f), c.inMkv);
    EXPECT_EQ(ask(webm.f), c.inWebm);
  }
  EXPECT_FALSE(mkv.f->SupportsEncoding());
}

TEST_F(PluginTest, NoFramesLeavesAnEmptyFile) {
  Job job(kMkv, dir.path("empty.mkv"));
  std::ofstream(job.path) << "stale content from an earlier job";
  ASSERT_EQ(job.begin(true, true), 0u);
  EXPECT_EQ(job.f->EndFormatting(nullptr), 0u);
  EXPECT_EQ(job.f->EndFormatting(nullptr), 0u);
  EXPECT_EQ(readFile(job.path).size(), 0u);
}

TEST_F(OutputTest, RefusesUnknownCodecsAndUnopenablePathsWithoutWriting) {
  Job badVideo(kMkv, dir.path("v.mkv")), badAudio(kMkv, dir.path("a.mkv"));
  Job badPath(kMkv, dir.path("missing/dir/out.mkv")), dirPath(kMkv, dir.path(""));
  badVideo.vc.params.codec = FourCC("XVID");
  badAudio.ac.params.codec = FourCC("OPUS");
  EXPECT_EQ(badVideo.begin(true, true), kUnknownVideo);
  EXPECT_EQ(badAudio.begin(true, true), kUnknownAudio);
  EXPECT_EQ(badPath.begin(true, true), kNotOpened);
  EXPECT_EQ(dirPath.begin(true, true), kNotOpened);
  for (Job* j : {&badVideo, &badAudio, &badPath, &dirPath}) {
    j->feed();  // ignored, and every packet still given back
    EXPECT_EQ(j->f->EndFormatting(nullptr), 0u);
  }
  EXPECT_FALSE(std::ifstream(badVideo.path).good());
  EXPECT_FALSE(std::ifstream(badAudio.path).good());

  // The same object works once the host fixes the path.
  badPath.path = dir.path("fixed.mkv");
  badPath.video.clear();
  badPath.audio.clear();
  ASSERT_EQ(badPath.begin(true, true), 0u);
  badPath.feed();
  finishAndCheck(badPath, false);
}

TEST_F(OutputTest, SurvivesOddSamples) {
  Job job(kMkv, dir.path("odd.mkv"));
  auto video = [&](int64_t ms, bool key, size_t size = 200) {
    job.addVideo(ms, 1000, key, size ? vp8(size, key, static_cast<uint32_t>(ms)) : Bytes());
  };
  video(0, true);  // before BeginFormatting: ignored
  job.addAudio({{noise(100, 0), 0, 1000}});
  ASSERT_EQ(job.begin(true, false), 0u);
  EXPECT_EQ(job.f->AddVideoSample(nullptr), 0u);
  EXPECT_EQ(job.f->AddAudioSample(nullptr), 0u);
  KVImage_t noData;
  EXPECT_EQ(job.f->AddVideoSample(&noData), 0u);
  KVAudio_t noPackets;
  EXPECT_EQ(job.f->AddAudioSample(&noPackets), 0u);
  job.addAudio({{noise(100, 10), 10, 1000}});  // audio that the host did not ask for is released unread
  KVImage_t emptyBundle = MakeVideoSample(nullptr, 0, 0, 1000, 0, true);
  emptyBundle.data->TakePacket(0)->Release();
  EXPECT_EQ(job.f->AddVideoSample(&emptyBundle), 0u);
  ReleaseSample(emptyBundle);
  // Empty packets, times that go backwards or before zero, odd units and a huge time.
  video(0, true, 0);
  video(40, false, 0);
  video(400, false);
  video(120, true);
  video(-500, false);
  KVImage_t s = MakeVideoSample(noise(50, 1).data(), 50, 3, 0, 0, false);  // units of 0
  job.f->AddVideoSample(&s);
  ReleaseSample(s);
  job.addVideo(1000000, 90000, true, noise(50, 2), -90000);
  video(500, true);
  video(INT64_MAX, false);
  video(600, true);
  job.f->EndFormatting(nullptr);
  EXPECT_EQ(Layout(job.path).docType, "matroska");
  EXPECT_LT(mkvmergeJson(job.path).exitCode, 2);
}

TEST_F(OutputTest, MissingDecoderConfigurationStillFinishesTheFile) {
  Job job(kMkv, dir.path("noconfig.mkv"));
  job.vc.params.codec = FourCC("H264");
  job.ac.params = {kKvi, FourCC("AAC "), 48000, 16, "Stereo", "AAC"};
  ASSERT_EQ(job.begin(true, true), 0u);
  job.feed();
  job.f->EndFormatting(nullptr);
  EXPECT_EQ(Layout(job.path).docType, "matroska");
  EXPECT_LT(mkvmergeJson(job.path).exitCode, 2);
}

TEST_F(OutputTest, ReuseForASecondFileLeavesTheFirstIntact) {
  Job job(kMkv, dir.path("first.mkv"));
  ASSERT_EQ(job.begin(true, true), 0u);
  job.feed();
  EXPECT_EQ(job.f->EndFormatting(nullptr), 0u);
  const Bytes first = readFile(job.path);
  checkFile(job, false);

  job.path = dir.path("second.mkv");
  job.video.clear();
  ASSERT_EQ(job.begin(true, false), 0u);
  job.feed(5000);
  job.audio.clear();  // not asked for, so not written
  job.f->Release();  // releasing without EndFormatting finishes the second file
  job.f = nullptr;
  EXPECT_EQ(readFile(dir.path("first.mkv")), first);
  checkFile(job, false);
}

TEST_F(OutputTest, WebmVp8AndVorbis) {
  const auto headers = vorbisHeaders(dir);
  if (headers.size() != 3) GTEST_SKIP() << "no Vorbis encoder to make header packets with";
  Job job(kWebm, dir.path("av.webm"));
  job.vc.params = {FourCC("ON2!"), FourCC("VP8 "), 320, 240, 30.0, "VP8", 30u, {}, {}};
  job.ac.params = {kKvi, FourCC("VRBS"), 48000, 16, "Stereo", "Vorbis"};
  job.meta.Add(CAceNameValuePair("Title", "Info only"));
  ASSERT_EQ(job.begin(true, true, 6000), 0u);
  std::vector<RefAudioPacket> hp;
  for (const Bytes& h : headers) hp.push_back({h, 0, 1000});
  job.addAudio(hp, nullptr, false);
  // 30 fps video in frame units with a key frame a second; 1024-sample audio packets, three to a buffer.
  for (int v = 0, a = 0; v < 180 || a < 282;) {
    if (a < 282 && (v >= 180 || a * 1024 * 30 <= v * 48000)) {
      std::vector<RefAudioPacket> buffer;
      for (int i = 0; i < 3; ++i, ++a) {
        Bytes p = noise(60 + a % 40, a);
        p[0] &= 0xFE;
        buffer.push_back({p, a * 1024, 48000});
      }
      job.addAudio(buffer);
    } else {
      job.addVideo(v, 30, v % 30 == 0, vp8(300 + v * 7 % 200, v % 30 == 0, v)), ++v;
    }
  }
  const Layout l = finishAndCheck(job, true);
  job.expectClusters(10, 6);
  EXPECT_EQ(child(l.b, l.one(kInfo), 0x73A4).id, 0u) << "no SegmentUID in WebM";
  EXPECT_EQ(l.one(kTags).id, 0u);
  EXPECT_EQ(str(l.b, child(l.b, l.one(kInfo), 0x7BA9)), "Info only");
  ASSERT_NE(child(l.b, l.track(2), 0x9C).id, 0u);
  EXPECT_EQ(num(l.b, child(l.b, l.track(2), 0x9C)), 0u);
  Bytes priv{2};  // Xiph-laced header packets
  for (int i = 0; i < 2; ++i) {
    priv.insert(priv.end(), headers[i].size() / 255, 255);
    priv.push_back(static_cast<unsigned char>(headers[i].size() % 255));
  }
  for (const Bytes& h : headers) priv.insert(priv.end(), h.begin(), h.end());
  EXPECT_EQ(raw(l.b, child(l.b, l.track(2), 0x63A2)), priv);
  const auto blocks = l.blocks();
  ASSERT_FALSE(blocks.empty());
  EXPECT_EQ(blocks[0].track, 2u) << "audio wins the tie at 0 ms";
  std::vector<int64_t> clusterStarts, cueTimes;
  for (const Block& b : blocks) {
    EXPECT_EQ(b.lacing, 0u);
    if (b.index == 0 && b.cluster > 0) clusterStarts.push_back(b.time);
    EXPECT_TRUE(b.track == 1 || b.key);
  }
  for (const Cue& c : l.cues()) {
    EXPECT_EQ(c.track, 1u);
    cueTimes.push_back(static_cast<int64_t>(c.time));
  }
  EXPECT_EQ(clusterStarts, (std::vector<int64_t>{1000, 2000, 3000, 4000, 5000}));
  EXPECT_EQ(cueTimes, (std::vector<int64_t>{0, 1000, 2000, 3000, 4000, 5000}));
}

TEST_F(OutputTest, MatroskaH264AndAacWithChaptersAndTags) {
  Job job(kMkv, dir.path("av.mkv"));
  job.vc.params = {FourCC("ACME"), FourCC("H264"), 640, 360, 25.0, "H.264", {}, {}, {}};
  job.ac.params = {kKvi, FourCC("AAC "), 44100, 16, "Stereo", "AAC"};
  job.meta.Add(CAceNameValuePair("Title", "Synthetic"));
  job.meta.Add(CAceNameValuePair("Genre", "Noise"));
  job.meta.Add(CAceNameValuePair("Custom_Name", "kept"));
  job.marks.push_back(std::make_unique<CAceMarker>(CAceMarker::kMarkerTypeChapter, "Middle", 1.5));
  job.marks.push_back(std::make_unique<CAceMarker>(1, "not a chapter", 2.0));
  job.marks.push_back(std::make_unique<CAceMarker>(CAceMarker::kMarkerTypeChapter, "Later", 3.0));
  ASSERT_EQ(job.begin(true, true, 4000), 0u);
  const Bytes avcC{1, 0x64, 0, 0x1F, 0xFF, 0xE1, 0, 4, 0x67, 0x64, 0, 0x1F, 1, 0, 0}, later{1, 2, 3};
  const Bytes asc{0x12, 0x10}, laterAsc{0x11, 0x90};
  for (int v = 0, a = 0; v < 100 || a < 172;) {
    if (a < 172 && (v >= 100 || a * 1024 * 1000 <= v * 40 * 44100)) {
      job.addAudio({{noise(150 + a % 30, a), a * 1024, 44100}}, a == 0 ? &asc : &laterAsc), ++a;
    } else {
      const bool key = v % 25 == 0;
      job.addVideo(v * 40, 1000, key, avc(400 + v % 50, key, v), 0, v == 0 ? &avcC : &later), ++v;
    }
  }
  const Layout l = finishAndCheck(job, false);
  job.expectClusters(5, 4);
  EXPECT_EQ(child(l.b, l.one(kInfo), 0x73A4).size, 16u);
  EXPECT_EQ(str(l.b, child(l.b, l.one(kInfo), 0x7BA9)), "Synthetic");
  EXPECT_EQ(raw(l.b, child(l.b, l.track(1), 0x63A2)), avcC) << "the first decoder configuration is kept";
  EXPECT_EQ(raw(l.b, child(l.b, l.track(2), 0x63A2)), asc);
  const El flagLacing = child(l.b, l.track(2), 0x9C);
  EXPECT_TRUE(flagLacing.id == 0 || num(l.b, flagLacing) == 1) << "audio may be laced";
  EXPECT_LT(l.one(kChapters).start, l.all(kCluster).front().start);
  EXPECT_GT(l.one(kTags).start, l.all(kCluster).back().start);

  std::vector<std::pair<std::string, uint64_t>> chapters;
  for (const El& atom : children(l.b, child(l.b, l.one(kChapters), 0x45B9)))
    if (atom.id == 0xB6)
      chapters.emplace_back(str(l.b, child(l.b, child(l.b, atom, 0x80), 0x85)), num(l.b, child(l.b, atom, 0x91)));
  EXPECT_EQ(chapters, (std::vector<std::pair<std::string, uint64_t>>{
                          {"Intro", 0}, {"Middle", 1500000000}, {"Later", 3000000000}}));
  std::vector<std::pair<std::string, std::string>> tags;
  for (const El& st : children(l.b, child(l.b, l.one(kTags), 0x7373)))
    if (st.id == 0x67C8) tags.emplace_back(str(l.b, child(l.b, st, 0x45A3)), str(l.b, child(l.b, st, 0x4487)));
  EXPECT_EQ(tags, (std::vector<std::pair<std::string, std::string>>{
                      {"TITLE", "Synthetic"}, {"GENRE", "Noise"}, {"Custom_Name", "kept"}}));

  // Cues: every video key frame, and the audio frames that reach a chapter start.
  std::vector<std::pair<uint64_t, uint64_t>> want, got;
  for (int k = 0; k < 4; ++k) want.emplace_back(1, k * 1000);
  for (int64_t chapter : {0, 1500, 3000}) {
    size_t i = 0;
    while (i + 1 < job.audio.size() && job.audio[i + 1].ms <= chapter) ++i;
    want.emplace_back(2, job.audio[i].ms);
  }
  for (const Cue& c : l.cues()) got.emplace_back(c.track, c.time);
  std::sort(want.begin(), want.end());
  std::sort(got.begin(), got.end());
  EXPECT_EQ(got, want);
}

TEST_F(OutputTest, MatroskaLacesOnlyVideoFramesAtTheFrameStepAndWebmNeverLaces) {
  // 30 frames at 25 fps (40 ms a frame), key frames at 0 and 20; the time of frame v in decode order.
  auto steady = [](int v) { return v * 40; };
  // I0 P3 B2 B1 …: presentation order is not decode order and no frame follows the previous one by 40 ms.
  auto pyramid = [](int v) { return v == 0 ? 0 : (v % 3 == 1 ? v + 2 : v % 3 == 2 ? v : v - 2) * 40; };
  // I0 P3 B1 B2 …: the two B-frames of a group follow each other by 40 ms and share a block.
  auto flat = [](int v) { return v == 0 ? 0 : (v % 3 == 1 ? v + 2 : v - 1) * 40; };
  // Frames 11 to 19 step 50 and 30 ms: only the runs at 40 ms lace.
  auto variable = [](int v) { return v * 40 + (v > 10 && v < 20 ? (v % 2) * 10 : 0); };
  struct Case {
    const char* name;
    uint32_t format;
    int (*time)(int);
    std::vector<unsigned> frames;
  } cases[] = {
      {"steady.mkv", kMkv, steady, {8, 8, 4, 8, 2}},
      {"steady.webm", kWebm, steady, std::vector<unsigned>(30, 1)},
      {"pyramid.mkv", kMkv, pyramid, std::vector<unsigned>(30, 1)},
      {"flat.mkv", kMkv, flat, {1, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 2, 1, 1}},
      {"variable.mkv", kMkv, variable, {8, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 8, 2}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Job job(c.format, dir.path(c.name));
    ASSERT_EQ(job.begin(true, false, 1200), 0u);
    for (int v = 0; v < 30; ++v) job.addVideo(c.time(v), 1000, v % 20 == 0, vp8(100 + v * 13 % 90, v % 20 == 0, v));
    std::vector<unsigned> frames;
    for (const Block& b : finishAndCheck(job, c.format == kWebm).blocks()) {
      frames.push_back(b.frames);
      EXPECT_EQ(b.lacing != 0, b.frames > 1);
    }
    EXPECT_EQ(frames, c.frames);
  }
}

TEST_F(OutputTest, AudioWinsTiesAndDecodeTimeDecidesTheOrder) {
  Job job(kMkv, dir.path("order.mkv"));
  ASSERT_EQ(job.begin(true, true, 1000), 0u);
  // Video is shown 80 ms after it is decoded; audio shares its decode times.
  for (int i = 0; i < 20; ++i) {
    job.addVideo(i * 40 + 80, 1000, i == 0, vp8(120, i == 0, i), 80);
    job.addAudio({{noise(640, i), i * 40, 1000}});
  }
  job.finish();
  std::vector<std::pair<uint64_t, int64_t>> got, want;
  for (int i = 0; i < 20; ++i) want.emplace_back(2, i * 40), want.emplace_back(1, i * 40 + 80);
  for (const Block& b : Layout(job.path).blocks()) got.emplace_back(b.track, b.time);
  EXPECT_EQ(got, want);
}

TEST_F(OutputTest, ClustersOpenAtTheTimecodeLimitAndAtEachSecondCueKeyFrame) {
  Job job(kWebm, dir.path("limit.webm"));
  ASSERT_EQ(job.begin(true, false, 75000), 0u);
  for (int64_t t : {0, 32766, 32767, 65533, 65534, 70000, 71000, 72000}) {
    const bool key = t == 0 || t == 70000 || t == 71000;
    job.addVideo(t, 1000, key, vp8(80, key, static_cast<uint32_t>(t)));
  }
  const Layout l = finishAndCheck(job, true);
  std::vector<uint64_t> starts;
  for (const El& c : l.all(kCluster)) starts.push_back(num(l.b, child(l.b, c, 0xE7)));
  EXPECT_EQ(starts, (std::vector<uint64_t>{0, 32767, 65534, 71000}));

  // Without video the audio track is cued once a cluster.
  Job audio(kMkv, dir.path("audio.mkv"));
  ASSERT_EQ(audio.begin(false, true, 70000), 0u);
  for (int t = 0; t <= 70000; t += 500) audio.addAudio({{noise(64, t), t, 1000}});
  std::vector<uint64_t> cueTimes;
  for (const Cue& c : finishAndCheck(audio, false).cues()) {
    EXPECT_EQ(c.track, 2u);
    cueTimes.push_back(c.time);
  }
  EXPECT_EQ(cueTimes, (std::vector<uint64_t>{0, 33000, 66000}));
}

TEST_F(OutputTest, IndexMovesToTheEndWhenTheReservationIsOutgrown) {
  Job job(kWebm, dir.path("long.webm"));
  job.vc.params = {FourCC("ON2!"), FourCC("VP8 "), 160, 120, 10.0, "VP8", {}, {}, {}};
  ASSERT_EQ(job.begin(true, false, 1000), 0u);  // a hint far shorter than the stream
  for (int v = 0; v < 800; ++v) job.addVideo(v * 100, 1000, v % 10 == 0, vp8(40, v % 10 == 0, v));
  const Layout l = finishAndCheck(job, true, false);
  job.expectClusters(2, 80);
  EXPECT_EQ(l.cues().size(), 80u);
  EXPECT_EQ(l.top.back().id, kCues);
  EXPECT_EQ(l.all(kSeekHead).size(), 1u);
  EXPECT_EQ(l.top[3].id, kVoid) << "the unused reservation stays a Void";
}

}  // namespace
