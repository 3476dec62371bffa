// The formatter module as the host sees it: loaded with dlopen, driven only through its interface.

#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host_sdk/host_sdk.h"
#include "host_sdk/plugin_module.h"
#include "kapsel/kapsel.h"
#include "support/readers.h"

using namespace kapsel_test;

namespace {

constexpr uint32_t kKvi = FourCC("KVI ");
constexpr uint32_t kMkv = FourCC("MKV ");
constexpr uint32_t kWebm = FourCC("WEBM");
constexpr uint32_t kUnknownVideo = 0x80090011, kUnknownAudio = 0x80090012, kNotOpened = 0x8009000F;

const PluginModule& module() {
  static PluginModule m;
  static std::string error;
  static const bool opened = m.open(KAPSEL_FORMATTER_MODULE, &error);
  if (!opened) ADD_FAILURE() << error;
  return m;
}

// EBML header, then a Segment whose patched size reaches exactly the end of the file.
bool complete(const std::string& path, std::string* docType = nullptr) {
  Kapsel::FileStorage in(path, Kapsel::File::kReadOnly);
  unsigned n = 0;
  if (!in.file().isOpen() || Kapsel::loadEbmlId(in) != 0x1A45DFA3) return false;
  const uint64_t headSize = Kapsel::vsizeDecode(in, n);
  if (docType) {
    const auto b = readFile(path);
    const std::string head(b.begin(), b.begin() + std::min<size_t>(b.size(), 48));
    const bool webm = head.find("webm") != std::string::npos;
    *docType = webm ? "webm" : head.find("matroska") != std::string::npos ? "matroska" : "";
  }
  in.file().seek(static_cast<int64_t>(headSize), Kapsel::File::kRelativeToCurrent);
  if (Kapsel::loadEbmlId(in) != 0x18538067) return false;
  const uint64_t segmentSize = Kapsel::vsizeDecode(in, n);
  return n != 0 && segmentSize != ~0ull && in.file().absolutePosition() + segmentSize == in.file().size();
}

std::vector<uint8_t> bytes(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  for (auto& c : v) c = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
  return v;
}

// Random bytes behind a VP8 frame tag (and a key frame's start code), so that readers agree on key frames.
std::vector<uint8_t> vp8Frame(size_t n, bool key, uint32_t seed) {
  std::vector<uint8_t> v = bytes(std::max<size_t>(n, 10), seed);
  const uint8_t head[10] = {static_cast<uint8_t>(key ? 0x10 : 0x11), 0, 0, 0x9D, 0x01, 0x2A, 0x40, 0x01, 0xF0, 0};
  std::copy(head, head + (key ? 10 : 3), v.begin());
  return v;
}

// One formatter configured as a host configures it: VP8 video and PCM audio unless told otherwise.
struct Host {
  CAFormatter* f = nullptr;
  RefVideoCompressor vc{RefVideoParams{FourCC("ON2!"), FourCC("VP8 "), 320, 240, 25.0, "VP8", {}, {}, {}}};
  RefAudioCompressor ac{RefAudioParams{kKvi, FourCC("LPCM"), 48000, 16, "Stereo", "PCM"}};
  int videoFed = 0, audioFed = 0;

  explicit Host(uint32_t format = kMkv) : f(module().create(kKvi, format)) {}
  explicit Host(CAFormatter* existing) : f(existing) {}
  ~Host() {
    if (f) f->Release();
  }
  uint32_t begin(const std::string& path, bool video = true, bool audio = true) {
    f->SetOutputFile(path);
    f->SetDurationHint(0, 2000, 1000);
    SetStreams(*f, video ? &vc : nullptr, audio ? &ac : nullptr);
    return f->BeginFormatting();
  }
  void video(int64_t ms, bool key, size_t size = 200) {
    const auto data = size ? vp8Frame(size, key, static_cast<uint32_t>(ms)) : std::vector<uint8_t>();
    KVImage_t s = MakeVideoSample(data.data(), data.size(), ms, 1000, 0, key);
    EXPECT_EQ(f->AddVideoSample(&s), 0u);
    ReleaseSample(s);
    ++videoFed;
  }
  void audio(int64_t ms, size_t size = 100) {
    KVAudio_t s = MakeAudioSample({{bytes(size, static_cast<uint32_t>(ms)), ms, 1000}});
    EXPECT_EQ(f->AddAudioSample(&s), 0u);
    ReleaseSample(s);
    ++audioFed;
  }
  // Two seconds of 25 fps video, a key frame a second, and 26 ms audio packets, in time order.
  void feed(int64_t offset = 0) {
    for (int64_t v = 0, a = 0; v < 2000 || a < 2000;) {
      if (a <= v) audio(offset + a), a += 26;
      else video(offset + v, v % 1000 == 0), v += 40;
    }
  }
  // One whole job; the fed counts start afresh.
  uint32_t write(const std::string& path, bool withAudio = true, int64_t offset = 0) {
    videoFed = audioFed = 0;
    const uint32_t err = begin(path, true, withAudio);
    feed(offset);
    return err;
  }
};

std::vector<int> packetsPerStream(const std::string& path) {
  std::string err;
  std::vector<int> n(2, 0);
  for (const auto& p : ffprobePackets(path, &err))
    if (p.stream >= 0 && p.stream < 2) ++n[p.stream];
  EXPECT_EQ(err, "");
  return n;
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
  Host odd(FourCC("ABCD"));
  ASSERT_NE(odd.f, nullptr);
  ASSERT_EQ(odd.write(dir.path("odd.mkv")), 0u);
  odd.f->EndFormatting(nullptr);
  std::string docType;
  EXPECT_TRUE(complete(dir.path("odd.mkv"), &docType));
  EXPECT_EQ(docType, "matroska");

  // A copy writes the same kind of file and does not keep the source's compressors.
  Host source(kWebm);
  source.f->SetVideoCompressors([&] {
    Array_c<IVideoCompressor*> a;
    a.Add(&source.vc);
    return a;
  }());
  Host copy(source.f->CreateCopy());
  ASSERT_NE(copy.f, nullptr);
  copy.f->SetOutputFile(dir.path("copy.webm"));
  copy.f->SetEncodeVideo(true);
  ASSERT_EQ(copy.f->BeginFormatting(), 0u);
  for (int i = 0; i < 5; ++i) copy.video(i * 40, i == 0);
  copy.f->EndFormatting(nullptr);
  EXPECT_EQ(readFile(dir.path("copy.webm")).size(), 0u) << "a copy must not use the source's compressor";
  ASSERT_EQ(copy.write(dir.path("copy.webm"), false), 0u);
  copy.f->EndFormatting(nullptr);
  EXPECT_TRUE(complete(dir.path("copy.webm"), &docType));
  EXPECT_EQ(docType, "webm");
}

TEST_F(PluginTest, AnswersWhichCodecsItStores) {
  Host mkv(kMkv), webm(kWebm);
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
  const std::string path = dir.path("empty.mkv");
  std::ofstream(path) << "stale content from an earlier job";
  Host h;
  ASSERT_EQ(h.begin(path), 0u);
  EXPECT_EQ(h.f->EndFormatting(nullptr), 0u);
  EXPECT_EQ(h.f->EndFormatting(nullptr), 0u);
  EXPECT_EQ(readFile(path).size(), 0u);
}

TEST_F(PluginTest, RefusesUnknownCodecsAndUnopenablePathsWithoutWriting) {
  Host badVideo, badAudio, badPath, dirPath;
  badVideo.vc.params.codec = FourCC("XVID");
  badAudio.ac.params.codec = FourCC("OPUS");
  EXPECT_EQ(badVideo.begin(dir.path("v.mkv")), kUnknownVideo);
  EXPECT_EQ(badAudio.begin(dir.path("a.mkv")), kUnknownAudio);
  EXPECT_EQ(badPath.begin(dir.path("missing/dir/out.mkv")), kNotOpened);
  EXPECT_EQ(dirPath.begin(dir.path("")), kNotOpened);
  for (Host* h : {&badVideo, &badAudio, &badPath, &dirPath}) {
    h->feed();  // ignored, and every packet still given back
    EXPECT_EQ(h->f->EndFormatting(nullptr), 0u);
  }
  EXPECT_FALSE(std::ifstream(dir.path("v.mkv")).good());
  EXPECT_FALSE(std::ifstream(dir.path("a.mkv")).good());

  // The same object works once the host fixes the path.
  ASSERT_EQ(badPath.write(dir.path("fixed.mkv")), 0u);
  badPath.f->EndFormatting(nullptr);
  EXPECT_TRUE(complete(dir.path("fixed.mkv")));
  EXPECT_EQ(packetsPerStream(dir.path("fixed.mkv")), (std::vector<int>{badPath.videoFed, badPath.audioFed}));
}

TEST_F(PluginTest, SurvivesOddSamples) {
  Host h;
  h.video(0, true);  // before BeginFormatting: ignored
  h.audio(0);
  ASSERT_EQ(h.begin(dir.path("odd.mkv"), true, false), 0u);
  EXPECT_EQ(h.f->AddVideoSample(nullptr), 0u);
  EXPECT_EQ(h.f->AddAudioSample(nullptr), 0u);
  KVImage_t noData;
  EXPECT_EQ(h.f->AddVideoSample(&noData), 0u);
  KVAudio_t noPackets;
  EXPECT_EQ(h.f->AddAudioSample(&noPackets), 0u);
  h.audio(10);  // audio that the host did not ask for is released unread
  KVImage_t emptyBundle = MakeVideoSample(nullptr, 0, 0, 1000, 0, true);
  emptyBundle.data->TakePacket(0)->Release();
  EXPECT_EQ(h.f->AddVideoSample(&emptyBundle), 0u);
  ReleaseSample(emptyBundle);
  // Empty packets, times that go backwards or before zero, odd units and a huge time.
  h.video(0, true, 0);
  h.video(40, false, 0);
  h.video(400, false);
  h.video(120, true);
  h.video(-500, false);
  KVImage_t s = MakeVideoSample(bytes(50, 1).data(), 50, 3, 0, 0, false);  // units of 0
  h.f->AddVideoSample(&s);
  ReleaseSample(s);
  s = MakeVideoSample(bytes(50, 2).data(), 50, 1000000, 90000, -90000, true);
  h.f->AddVideoSample(&s);
  ReleaseSample(s);
  h.video(500, true);
  h.video(INT64_MAX, false);
  h.video(600, true);
  h.f->EndFormatting(nullptr);
  EXPECT_TRUE(complete(dir.path("odd.mkv")));
  EXPECT_LT(mkvmergeJson(dir.path("odd.mkv")).exitCode, 2);
}

TEST_F(PluginTest, MissingDecoderConfigurationStillFinishesTheFile) {
  Host h;
  h.vc.params.codec = FourCC("H264");
  h.ac.params = {kKvi, FourCC("AAC "), 48000, 16, "Stereo", "AAC"};
  ASSERT_EQ(h.write(dir.path("noconfig.mkv")), 0u);
  h.f->EndFormatting(nullptr);
  EXPECT_TRUE(complete(dir.path("noconfig.mkv")));
  EXPECT_LT(mkvmergeJson(dir.path("noconfig.mkv")).exitCode, 2);
}

TEST_F(PluginTest, ReuseForASecondFileLeavesTheFirstIntact) {
  Host h;
  ASSERT_EQ(h.write(dir.path("first.mkv")), 0u);
  EXPECT_EQ(h.f->EndFormatting(nullptr), 0u);
  const auto first = readFile(dir.path("first.mkv"));
  const std::vector<int> firstCounts{h.videoFed, h.audioFed};
  ASSERT_TRUE(complete(dir.path("first.mkv")));

  ASSERT_EQ(h.write(dir.path("second.mkv"), false, 5000), 0u);
  h.f->Release();  // releasing without EndFormatting finishes the second file
  h.f = nullptr;
  EXPECT_EQ(readFile(dir.path("first.mkv")), first);
  EXPECT_EQ(packetsPerStream(dir.path("first.mkv")), firstCounts);
  EXPECT_TRUE(complete(dir.path("second.mkv")));
  EXPECT_EQ(packetsPerStream(dir.path("second.mkv")), (std::vector<int>{h.videoFed, 0}));
}

}  // namespace
