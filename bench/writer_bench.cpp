// The library's streaming writer: throughput, and resident memory over a long three-track stream.
//   writer_bench [--minutes=M] [benchmark flags]

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "kapsel/kapsel.h"

namespace {

int gMinutes = 60;

long residentKiB() {
  long pages = 0, resident = 0;
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// Video at 25 frames a second (a key frame every 2 s) and two audio tracks of 20 ms packets, interleaved by the
// writer from frames handed over track by track in one-second batches.
void BM_WriterThreeTracks(benchmark::State& state) {
  using namespace Kapsel;
  const std::string path = "/tmp/kapsel-bench-writer.mkv";
  std::vector<uint8_t> video(8000, 0x11), audio(320, 0x22);
  for (auto _ : state) {
    const auto t0 = std::chrono::steady_clock::now();
    StreamWriter w;
    TWriterOptions o;
    o.durationHint = gMinutes * 60'000'000'000ll;
    if (w.open(path, o) != TWriteResult::kOk) state.SkipWithError("cannot create the output");
    TTrackSpec v, a;
    v.codecId = "V_VP9";
    v.defaultDuration = 40'000'000;
    a.kind = TTrackKind::kAudio;
    a.codecId = "A_OPUS";
    a.defaultDuration = 20'000'000;
    uint64_t tv = 0, ta = 0, tb = 0;
    (void)w.addTrack(v, &tv);
    (void)w.addTrack(a, &ta);
    (void)w.addTrack(a, &tb);
    long rssMinute = 0, rssTen = 0;
    uint64_t bytes = 0;
    for (int64_t second = 0; second < gMinutes * 60; ++second) {
      for (int i = 0; i < 25; ++i) {
        const int64_t t = second * 1'000'000'000 + i * 40'000'000;
        (void)w.write({tv, video.data(), video.size(), t, INT64_MIN, -1, (second % 2 == 0 && i == 0)});
        bytes += video.size();
      }
      for (uint64_t track : {ta, tb})
        for (int i = 0; i < 50; ++i) {
          (void)w.write({track, audio.data(), audio.size(), second * 1'000'000'000 + i * 20'000'000, INT64_MIN, -1, true});
          bytes += audio.size();
        }
      if (second == 60) rssMinute = residentKiB();
      if (second == 600) rssTen = residentKiB();
    }
    const TWriterReport r = w.finish();
    state.SetIterationTime(std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
    state.counters["RSS_1min_KiB"] = static_cast<double>(rssMinute);
    state.counters["RSS_10min_KiB"] = static_cast<double>(rssTen);
    state.counters["RSS_end_KiB"] = static_cast<double>(residentKiB());
    state.counters["MB_per_s"] = benchmark::Counter(static_cast<double>(bytes) / 1e6, benchmark::Counter::kIsRate);
    state.counters["clusters"] = static_cast<double>(r.clusters);
    state.counters["index_at_front"] = r.indexAtFront;
  }
  std::remove(path.c_str());
}
BENCHMARK(BM_WriterThreeTracks)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
  std::vector<char*> rest;
  for (int i = 0; i < argc; ++i) {
    if (std::strncmp(argv[i], "--minutes=", 10) == 0) gMinutes = std::atoi(argv[i] + 10);
    else rest.push_back(argv[i]);
  }
  int n = static_cast<int>(rest.size());
  benchmark::Initialize(&n, rest.data());
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
