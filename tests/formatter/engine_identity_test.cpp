// The plug-in's files, pinned by checksum over generated packet lists, and the streaming writer driven with the
// same frames giving the same bytes. Unique IDs are drawn from a fixed seed.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
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
  std::function<void(Job&)> build;
};

const std::vector<Scenario>& scenarios() {
  static const std::vector<Scenario> all = {
      {"ties between audio and video", 0x20af23098b2121deull,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 25);
         j.audio = audio(FourCC("LPCM"));
         interleaved(j, 4000, 25, 25, 20);
       }},
      {"vorbis headers and webm", 0x54d88c409826f594ull,
       [](Job& j) {
         j.webm = true;
         j.video = video(FourCC("VP8 "), 30);
         j.audio = audio(FourCC("VRBS"), 44100);
         j.meta = {{"Title", "A title"}, {"Artist", "Someone"}};
         for (int h = 0; h < 3; ++h) j.addAudio({0}, 300u + 40u * static_cast<unsigned>(h));
         interleaved(j, 3000, 30, 30, 23);
       }},
      {"long gops with an interval hint", 0xa812cebbaaa4cf53ull,
       [](Job& j) {
         j.video = video(FourCC("H264"), 29.97, 300);
         j.audio = audio(FourCC("AAC "));
         j.hintEnd = 40000;
         interleaved(j, 40000, 29.97, 300, 21, 120, 30);
       }},
      {"gaps over 32 seconds", 0x75a249e5bd0fac2bull,
       [](Job& j) {
         j.video = video(FourCC("MP4V"), 25);
         j.audio = audio(FourCC("MP3 "));
         for (int64_t t : {0, 40, 80, 40000, 40040, 90000, 90040}) {
           j.addAudio({t, t + 26}, 50);
           j.addVideo(t, t % 1000 == 0, 90);
         }
       }},
      {"b-frames and variable rate", 0x3d4dc0acd34ae3e9ull,
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
      {"65600 cue points", 0xd466ed119368a06aull,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 1000);
         for (int i = 0; i < 65600; ++i) j.addVideo(i, true, 3);
       }},
      {"index overflowing its reservation", 0x571cf0f600856fbull,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 10);
         j.audio = audio(FourCC("LPCM"));
         j.hintEnd = 500;
         interleaved(j, 120000, 10, 10, 250, 20, 10);
       }},
      {"chapters and tags with audio only", 0x91273628e53e9100ull,
       [](Job& j) {
         j.audio = audio(FourCC("AAC "));
         j.meta = {{"Title", "Chapters"}, {"Comment", "c"}, {"Custom_Name", "v"}};
         j.chapters = {{"One", 0.3}, {"Two", 2.0}, {"Three", 1.5}, {"Four", 45.0}};
         for (int64_t a = 0; a < 50000; a += 640) j.addAudio({a, a + 21, a + 42}, 30);
       }},
      {"laced pcm in several packets a sample", 0x67030791d38800c7ull,
       [](Job& j) {
         j.audio = audio(FourCC("LPCM"));
         j.video = video(FourCC("VP62"), 12.5);
         interleaved(j, 3000, 12.5, 12, 10, 50, 20);
       }},
      {"90 kHz times", 0xd3ff08ddb192b7e3ull,
       [](Job& j) {
         j.video = video(FourCC("VP8 "), 24);
         j.audio = audio(FourCC("VRBS"));
         for (int h = 0; h < 3; ++h) j.addAudio({0}, 100);
         for (int i = 0; i < 100; ++i) {
           j.addVideo(i * 3750, i % 24 == 0, 80, 0, 90000);
           j.addAudio({i * 3750 + 10, i * 3750 + 1900}, 20, 90000);
         }
       }},
      {"no frames", 0x14650fb0739d0383ull,
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
  }
}

}  // namespace
