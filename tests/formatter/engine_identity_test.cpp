// The plug-in's files, pinned by checksum over generated packet lists, and the streaming writer driven with the
// same frames giving the same bytes. Unique IDs are drawn from a fixed seed.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <map>
#include <iostream>
#include <string>
#include <vector>

#include "formatter/matroska_formatter.h"
#include "host_sdk/host_sdk.h"
#include "host_sdk/reference.h"
#include "kapsel/kapsel.h"
#include "kapsel/writer.h"
#include "support/readers.h"

using namespace kapsel_test;
using Bytes = std::vector<unsigned char>;

namespace {

constexpr uint32_t kKvi = FourCC("KVI ");

Bytes filler(size_t n, uint32_t seed) {
  Bytes v(n);
  for (auto& c : v) c = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
  return v;
}

uint64_t fnv(const Bytes& b) {
  uint64_t h = 1469598103934665603ull;
  for (unsigned char c : b) h = (h ^ c) * 1099511628211ull;
  return h;
}

// One host job: streams, hints, metadata, chapters and the samples, in the order a host hands them over.
struct Job {
  bool webm = false;
  std::optional<RefVideoParams> video;
  std::optional<RefAudioParams> audio;
  uint64_t hintEnd = 10000, hintScale = 1000;
  std::vector<std::pair<std::string, std::string>> meta;
  std::vector<std::pair<std::string, double>> chapters;  // name, seconds
  // Video: time, units, composition offset, key, size. Audio: packets of one sample.
  struct Sample {
    bool video = true;
    int64_t time = 0;
    uint64_t units = 1000;
    int64_t offset = 0;
    bool key = false;
    size_t size = 0;
    std::vector<RefAudioPacket> packets;
    bool config = false;
  };
  std::vector<Sample> samples;

  void addVideo(int64_t t, bool key, size_t size, int64_t offset = 0, uint64_t units = 1000) {
    samples.push_back({true, t, units, offset, key, size, {}, samples.empty()});
  }
  void addAudio(std::vector<int64_t> times, size_t size, uint64_t units = 1000) {
    Sample s{false, 0, units, 0, false, 0, {}, samples.size() < 2};
    for (int64_t t : times) s.packets.push_back({filler(size, static_cast<uint32_t>(t * 7 + size)), t, units});
    samples.push_back(std::move(s));
  }
};

void runJob(const Job& job, const std::string& path) {
  RefVideoCompressor vc(job.video.value_or(RefVideoParams{}));
  RefAudioCompressor ac(job.audio.value_or(RefAudioParams{}));
  kapsel_formatter::CKVMatroskaFormatter f(job.webm ? FourCC("WEBM") : FourCC("MKV "));
  f.SetOutputFile(path);
  f.SetDurationHint(0, job.hintEnd, job.hintScale);
  Array_c<CAceNameValuePair> meta;
  for (const auto& m : job.meta) meta.Add(CAceNameValuePair(m.first, m.second));
  f.SetMetaData(&meta);
  std::vector<CAceMarker> markers;
  for (const auto& c : job.chapters)
    markers.emplace_back(CAceMarker::kMarkerTypeChapter, c.first, static_cast<int64_t>(c.second * 90000), 90000u);
  CAceMarkerPtrList markerList;
  for (auto& m : markers) markerList.Add(&m);
  f.SetChapterMarkers(&markerList);
  SetStreams(f, job.video ? &vc : nullptr, job.audio ? &ac : nullptr);
  ASSERT_EQ(f.BeginFormatting(), 0u);
  const Bytes config = filler(24, 99);
  uint32_t seed = 1;
  for (const auto& s : job.samples) {
    if (s.video) {
      const Bytes data = filler(s.size, seed++);
      KVImage_t k = MakeVideoSample(data.data(), data.size(), s.time, s.units, s.offset, s.key,
                                    s.config ? &config : nullptr);
      f.AddVideoSample(&k);
      ReleaseSample(k);
    } else {
      KVAudio_t k = MakeAudioSample(s.packets, s.config ? &config : nullptr);
      f.AddAudioSample(&k);
      ReleaseSample(k);
    }
  }
  f.EndFormatting(nullptr);
}

// The same job written straight through the writer, as a library user would: the writer interleaves.
void writeDirect(const Job& job, const std::string& path) {
  using namespace Kapsel;
  const uint64_t frameMs = job.video ? static_cast<uint64_t>(1000.0 / job.video->frameRate + 0.5) : 0;
  TWriterOptions o;
  o.writingApp = "Kelvaro Brevant";
  o.expectedClusters = job.hintEnd / job.hintScale + 1;
  o.reserveBytes = o.expectedClusters * 21 + 292;
  o.lenient = o.emptyWithoutFrames = true;
  o.indexRule = TIndexRule::kKeyFramesOnly;
  StreamWriter w;
  ASSERT_EQ(w.open(path, o), TWriteResult::kOk);
  w.info().duration_->set(static_cast<double>(job.hintEnd) * 1000.0 / static_cast<double>(job.hintScale));
  const Bytes config = filler(24, 99);
  auto hasConfig = [&](bool video) {
    return std::any_of(job.samples.begin(), job.samples.end(), [&](auto& s) { return s.config && s.video == video; });
  };
  static const std::map<uint32_t, std::string> ids = {
      {FourCC("VP8 "), "V_VP8"},     {FourCC("H264"), "V_MPEG4/ISO/AVC"}, {FourCC("MP4V"), "V_MPEG4/ISO/ASP"},
      {FourCC("VP62"), "V_ON2VP6"},  {FourCC("LPCM"), "A_PCM/INT/LIT"},   {FourCC("AAC "), "A_AAC"},
      {FourCC("MP3 "), "A_MPEG/L3"}};
  if (job.video) {
    TTrackSpec v;
    v.number = 1;
    v.codecId = ids.at(job.video->codec);
    v.codecName = job.video->displayName;
    v.defaultDuration = static_cast<uint64_t>(1.0 / job.video->frameRate * 1e9);
    v.pixelWidth = job.video->width;
    v.pixelHeight = job.video->height;
    if (hasConfig(true) && (job.video->codec == FourCC("H264") || job.video->codec == FourCC("MP4V"))) v.codecPrivate = config;
    ASSERT_EQ(w.addTrack(v), TWriteResult::kOk);
    w.trackElement(1)->trackTimecodeScale_->set(1.0);
  }
  if (job.audio) {
    TTrackSpec a;
    a.kind = TTrackKind::kAudio;
    a.number = 2;
    a.codecId = ids.at(job.audio->codec);
    a.codecName = job.audio->displayName;
    a.flagLacing = 1;
    a.samplingFrequency = job.audio->sampleRate;
    a.channels = 2;
    a.bitDepth = job.audio->bitsPerSample;
    if (hasConfig(false) && job.audio->codec == FourCC("AAC ")) a.codecPrivate = config;
    ASSERT_EQ(w.addTrack(a), TWriteResult::kOk);
    w.trackElement(2)->trackTimecodeScale_->set(1.0);
  }
  auto ns = [](int64_t t, uint64_t units) { return static_cast<int64_t>(std::llround(t * 1000.0 / units)) * 1000000; };
  std::vector<int64_t> audioTimes;
  for (const auto& s : job.samples)
    for (const auto& p : s.packets) audioTimes.push_back(ns(p.timeValue, p.timeUnits));
  uint32_t seed = 1;
  size_t audioIndex = 0;
  for (const auto& s : job.samples) {
    if (s.video) {
      const Bytes data = filler(s.size, seed++);
      TWriterFrame f{1, data.data(), data.size(), ns(s.time, s.units), ns(s.time - s.offset, s.units),
                     static_cast<int64_t>(frameMs) * 1000000, s.key};
      ASSERT_EQ(w.write(f), TWriteResult::kOk);
      continue;
    }
    for (const auto& p : s.packets) {
      const int64_t t = audioTimes[audioIndex++];
      const int64_t next = audioIndex < audioTimes.size() ? audioTimes[audioIndex] : t + 1000000;
      TWriterFrame f{2, p.bytes.data(), p.bytes.size(), t, t, std::max<int64_t>(next - t, 0), false};
      ASSERT_EQ(w.write(f), TWriteResult::kOk);
    }
  }
  w.finish();
}

RefVideoParams video(uint32_t codec, double rate, std::optional<uint32_t> interval = {}) {
  const uint32_t maker = codec == FourCC("VP8 ") ? FourCC("ON2!") : kKvi;
  return RefVideoParams{maker, codec, 640, 360, rate, "video", interval, {}, {}};
}
RefAudioParams audio(uint32_t codec, uint32_t rate = 48000) {
  return RefAudioParams{kKvi, codec, rate, 16, "Stereo", "audio"};
}

// Video at `rate` with a key frame every `gop` frames and audio packets every `step` ms, until `ms`.
void interleaved(Job& j, int64_t ms, double rate, int gop, int64_t step, size_t vsize = 300, size_t asize = 60) {
  int64_t a = 0;
  for (int i = 0;; ++i) {
    const int64_t v = static_cast<int64_t>(std::llround(i * 1000.0 / rate));
    for (; a <= v && a < ms; a += step) j.addAudio({a}, asize);
    if (v >= ms) break;
    j.addVideo(v, i % gop == 0, vsize + static_cast<size_t>(i % 7));
  }
}

struct Scenario {
  const char* name;
  uint64_t hash;
  bool direct;  // also written straight through the writer
  std::function<void(Job&)> build;
};

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = {
      {"ties between audio and video", 0x20af23098b2121deull, true,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 25);
         j.audio = audio(FourCC("LPCM"));
         interleaved(j, 4000, 25, 25, 20);
       }},
      {"vorbis headers and webm", 0x54d88c409826f594ull, false,
       [](Job& j) {
         j.webm = true;
         j.video = video(FourCC("VP8 "), 30);
         j.audio = audio(FourCC("VRBS"), 44100);
         j.meta = {{"Title", "A title"}, {"Artist", "Someone"}};
         for (int h = 0; h < 3; ++h) j.addAudio({0}, 300u + 40u * static_cast<unsigned>(h));
         interleaved(j, 3000, 30, 30, 23);
       }},
      {"long gops with an interval hint", 0xa812cebbaaa4cf53ull, false,
       [](Job& j) {
         j.video = video(FourCC("H264"), 29.97, 300);
         j.audio = audio(FourCC("AAC "));
         j.hintEnd = 40000;
         interleaved(j, 40000, 29.97, 300, 21, 120, 30);
       }},
      {"gaps over 32 seconds", 0x75a249e5bd0fac2bull, true,
       [](Job& j) {
         j.video = video(FourCC("MP4V"), 25);
         j.audio = audio(FourCC("MP3 "));
         for (int64_t t : {0, 40, 80, 40000, 40040, 90000, 90040}) {
           j.addAudio({t, t + 26}, 50);
           j.addVideo(t, t % 1000 == 0, 90);
         }
       }},
      {"b-frames and variable rate", 0x3d4dc0acd34ae3e9ull, true,
       [](Job& j) {
         j.video = video(FourCC("H264"), 25);
         j.audio = audio(FourCC("AAC "));
         // Decode order I P B B with composition offsets, then frames off the 40 ms step.
         const int64_t pts[] = {80, 200, 120, 160, 360, 240, 280, 320, 400, 447, 480, 530, 560, 600};
         for (int i = 0; i < 14; ++i) {
           j.addAudio({i * 43ll}, 40);
           j.addVideo(pts[i], i == 0 || i == 8, 100, i < 8 ? pts[i] - (80 + i * 40) : 0);
         }
       }},
      {"65600 cue points", 0xd466ed119368a06aull, true,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 1000);
         for (int i = 0; i < 65600; ++i) j.addVideo(i, true, 3);
       }},
      {"index overflowing its reservation", 0x571cf0f600856fbull, true,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 10);
         j.audio = audio(FourCC("LPCM"));
         j.hintEnd = 500;
         interleaved(j, 120000, 10, 10, 250, 20, 10);
       }},
      {"chapters and tags with audio only", 0x91273628e53e9100ull, false,
       [](Job& j) {
         j.audio = audio(FourCC("AAC "));
         j.meta = {{"Title", "Chapters"}, {"Comment", "c"}, {"Custom_Name", "v"}};
         j.chapters = {{"One", 0.3}, {"Two", 2.0}, {"Three", 1.5}, {"Four", 45.0}};
         for (int64_t a = 0; a < 50000; a += 640) j.addAudio({a, a + 21, a + 42}, 30);
       }},
      {"laced pcm in several packets a sample", 0x67030791d38800c7ull, true,
       [](Job& j) {
         j.audio = audio(FourCC("LPCM"));
         j.video = video(FourCC("VP62"), 12.5);
         interleaved(j, 3000, 12.5, 12, 10, 50, 20);
       }},
      {"90 kHz times", 0xd3ff08ddb192b7e3ull, false,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 24);
         j.audio = audio(FourCC("VRBS"));
         for (int h = 0; h < 3; ++h) j.addAudio({0}, 100);
         for (int i = 0; i < 100; ++i) {
           j.addVideo(i * 3750, i % 24 == 0, 80, 0, 90000);
           j.addAudio({i * 3750 + 10, i * 3750 + 1900}, 20, 90000);
         }
       }},
      {"no frames", 0x14650fb0739d0383ull, true,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 25);
         j.audio = audio(FourCC("LPCM"));
       }},
  };
  return all;
}

class EngineIdentity : public ::testing::Test {
 protected:
  void SetUp() override { std::cerr.rdbuf(nullptr); }
  void TearDown() override {
    std::cerr.rdbuf(saved_);
    EXPECT_EQ(RefPacket::LiveCount(), 0);
  }
  std::streambuf* saved_ = std::cerr.rdbuf();
  TempDir dir;
};

TEST_F(EngineIdentity, PluginFilesKeepTheirBytes) {
  for (const Scenario& s : scenarios()) {
    Job job;
    s.build(job);
    const std::string path = dir.path("plugin.mkv");
    Kapsel::seedUIDs(7);
    runJob(job, path);
    const Bytes b = readFile(path);
    std::cout << "      {\"" << s.name << "\", 0x" << std::hex << fnv(b) << std::dec << "ull, " << b.size() << "}\n";
    if (s.hash) {
      EXPECT_EQ(fnv(b), s.hash) << s.name;
    }
    if (!s.direct) continue;
    Kapsel::seedUIDs(7);
    writeDirect(job, dir.path("direct.mkv"));
    EXPECT_TRUE(readFile(dir.path("direct.mkv")) == b) << s.name;
  }
}

}  // namespace
