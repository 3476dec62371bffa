// Muxing throughput of the plug-in alone, fed from memory, against fwrite of the same bytes,
// and resident memory over a long stream.
//
//   formatter_bench [--gib=N] [--minutes=M] [benchmark flags]
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "host_sdk/fourcc.h"
#include "host_sdk/plugin_module.h"
#include "host_sdk/reference.h"

namespace {

double gTotalGiB = 1.0;
int gMinutes = 60;

const PluginModule& module() {
  static PluginModule m;
  static const bool opened = m.open(KAPSEL_FORMATTER_MODULE);
  (void)opened;
  return m;
}

// Random bytes that frames are cut from: sizes vary like a real stream (key frames larger).
const std::vector<uint8_t>& pool() {
  static std::vector<uint8_t> bytes = [] {
    std::vector<uint8_t> v(8 << 20);
    std::mt19937 rng(11);
    for (auto& b : v) b = static_cast<uint8_t>(rng());
    return v;
  }();
  return bytes;
}

// 25 fps video, 50 audio packets/s; average video frame sized so the stream reaches the target.
struct Stream {
  std::mt19937 rng{5};
  size_t averageVideo;
  static constexpr size_t kAudio = 400;
  explicit Stream(size_t average) : averageVideo(average) {}
  size_t videoSize(bool key) {
    const size_t base = key ? averageVideo * 4 : averageVideo * 9 / 10;
    return base / 2 + rng() % base;
  }
};

std::vector<uint8_t> vorbisHeader(uint8_t type, size_t size) {
  std::vector<uint8_t> h(size, 0);
  h[0] = type;
  std::memcpy(h.data() + 1, "vorbis", 6);
  return h;
}

long residentKiB() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return 0;
}

struct MuxResult {
  double seconds = 0;  // time spent inside the plug-in's calls
  uint64_t bytes = 0;
  uint64_t frames = 0;
  long rssAt10Minutes = 0;
  long rssAtEnd = 0;
};

using Clock = std::chrono::steady_clock;

// Feeds `streamSeconds` of stream to a WebM formatter writing `path`, or the same bytes to `baseline` with fwrite.
MuxResult mux(const std::string& path, double streamSeconds, size_t averageVideo, FILE* baseline) {
  MuxResult r;
  CAFormatter* f = baseline ? nullptr : module().createFor(FourCC("WEBM"));
  if (!baseline && !f) return r;
  double inside = 0;
  auto timed = [&](auto&& call) {
    const auto t0 = Clock::now();
    call();
    inside += std::chrono::duration<double>(Clock::now() - t0).count();
  };
  RefVideoCompressor vc({FourCC("ON2!"), FourCC("VP8 "), 1280, 720, 25.0, "VP8", {}, {}, {}});
  RefAudioCompressor ac({FourCC("KVI "), FourCC("VRBS"), 48000, 16, "Stereo", "Vorbis"});
  if (f) {
    timed([&] {
      f->SetOutputFile(CKVString(path));
      f->SetDurationHint(0, static_cast<uint64_t>(streamSeconds * 1000), 1000);
      SetStreams(*f, &vc, &ac);
      f->BeginFormatting();
    });
    KVAudio_t headers = MakeAudioSample({{vorbisHeader(1, 30), 0, 1000}, {vorbisHeader(3, 60), 0, 1000},
                                         {vorbisHeader(5, 3000), 0, 1000}});
    timed([&] { f->AddAudioSample(&headers); });
    ReleaseSample(headers);
  }
  Stream stream(averageVideo);
  const auto& bytes = pool();
  size_t offset = 0;
  auto slice = [&](size_t n) {
    if (offset + n > bytes.size()) offset = 0;
    const uint8_t* p = bytes.data() + offset;
    offset += n;
    return p;
  };
  const int64_t frames = static_cast<int64_t>(streamSeconds * 25);
  const auto wallStart = Clock::now();
  for (int64_t i = 0; i < frames; ++i) {
    const bool key = i % 50 == 0;
    const size_t n = stream.videoSize(key);
    const uint8_t* data = slice(n);
    const int64_t ms = i * 40;
    // Two audio packets per video frame, ahead of it in time.
    for (int a = 0; a < 2; ++a) {
      const uint8_t* ad = slice(Stream::kAudio);
      if (baseline) {
        std::fwrite(ad, 1, Stream::kAudio, baseline);
      } else {
        KVAudio_t s = MakeAudioSample({{std::vector<uint8_t>(ad, ad + Stream::kAudio), ms + a * 20, 1000}});
        timed([&] { f->AddAudioSample(&s); });
        ReleaseSample(s);
      }
      r.bytes += Stream::kAudio;
      ++r.frames;
    }
    if (baseline) {
      std::fwrite(data, 1, n, baseline);
    } else {
      KVImage_t s = MakeVideoSample(data, n, ms, 1000, 0, key);
      timed([&] { f->AddVideoSample(&s); });
      ReleaseSample(s);
    }
    r.bytes += n;
    ++r.frames;
    if (i == 10 * 60 * 25) r.rssAt10Minutes = residentKiB();
  }
  if (f) {
    timed([&] {
      f->EndFormatting(nullptr);
      f->Release();
    });
    r.seconds = inside;
  } else {
    r.seconds = std::chrono::duration<double>(Clock::now() - wallStart).count();
  }
  r.rssAtEnd = residentKiB();
  return r;
}

// About gTotalGiB of stream at 25 fps: 40 KiB frames on average.
constexpr size_t kAverageVideo = 40 << 10;
double throughputSeconds() {
  const double perSecond = 25.0 * kAverageVideo * 0.962 + 50.0 * Stream::kAudio;
  return gTotalGiB * (1ull << 30) / perSecond;
}

// Rates over all iterations together.
struct Totals {
  double seconds = 0, bytes = 0, frames = 0;
  void add(const MuxResult& r) {
    seconds += r.seconds;
    bytes += static_cast<double>(r.bytes);
    frames += static_cast<double>(r.frames);
  }
  void report(benchmark::State& state, int64_t iterations) const {
    if (seconds <= 0) return;
    state.counters["MB/s"] = benchmark::Counter(bytes / 1e6 / seconds);
    state.counters["frames/s"] = benchmark::Counter(frames / seconds);
    state.counters["GiB"] = benchmark::Counter(bytes / static_cast<double>(iterations) / (1ull << 30));
  }
};

void BM_PluginWebm(benchmark::State& state) {
  const std::string path = "/tmp/kapsel-bench-plugin.webm";
  Totals totals;
  for (auto _ : state) {
    const MuxResult r = mux(path, throughputSeconds(), kAverageVideo, nullptr);
    if (r.bytes == 0) {
      state.SkipWithError("the plug-in module could not be loaded");
      return;
    }
    state.SetIterationTime(r.seconds);
    totals.add(r);
  }
  totals.report(state, state.iterations());
  std::remove(path.c_str());
}
BENCHMARK(BM_PluginWebm)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_FwriteSameBytes(benchmark::State& state) {
  const std::string path = "/tmp/kapsel-bench-fwrite.webm";
  Totals totals;
  for (auto _ : state) {
    FILE* out = std::fopen(path.c_str(), "wb");
    MuxResult r = mux(path, throughputSeconds(), kAverageVideo, out);
    const auto t0 = Clock::now();
    std::fclose(out);
    r.seconds += std::chrono::duration<double>(Clock::now() - t0).count();
    state.SetIterationTime(r.seconds);
    totals.add(r);
  }
  totals.report(state, state.iterations());
  std::remove(path.c_str());
}
BENCHMARK(BM_FwriteSameBytes)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

// A long stream of small frames: resident memory after 10 minutes and at the end must match.
void BM_PluginLongStreamMemory(benchmark::State& state) {
  const std::string path = "/tmp/kapsel-bench-long.webm";
  for (auto _ : state) {
    const MuxResult r = mux(path, gMinutes * 60.0, 2 << 10, nullptr);
    state.SetIterationTime(r.seconds);
    state.counters["RSS_10min_KiB"] = benchmark::Counter(static_cast<double>(r.rssAt10Minutes));
    state.counters["RSS_end_KiB"] = benchmark::Counter(static_cast<double>(r.rssAtEnd));
    state.counters["minutes"] = benchmark::Counter(gMinutes);
  }
  std::remove(path.c_str());
}
BENCHMARK(BM_PluginLongStreamMemory)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--gib=", 6) == 0) gTotalGiB = std::atof(argv[i] + 6);
    else if (std::strncmp(argv[i], "--minutes=", 10) == 0) gMinutes = std::atoi(argv[i] + 10);
    else rest.push_back(argv[i]);
  }
  int n = static_cast<int>(rest.size());
  benchmark::Initialize(&n, rest.data());
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
