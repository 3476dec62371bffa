// Byte layer: EBML number coding, CRC-32 and the cached file store against plain stdio.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "kapsel/kapsel.h"

using namespace Kapsel;

namespace {

std::string scratchPath(const char* name) { return std::string("/tmp/kapsel-bench-") + name; }

std::vector<unsigned char> randomBytes(size_t n) {
  std::mt19937 rng(7);
  std::vector<unsigned char> v(n);
  for (auto& b : v) b = static_cast<unsigned char>(rng());
  return v;
}

void BM_VsizeEncodeDecode(benchmark::State& state) {
  std::mt19937_64 rng(1);
  std::vector<uint64_t> values(4096);
  for (auto& v : values) v = rng() >> (rng() % 64);
  for (auto& v : values) v = std::min<uint64_t>(v, (1ull << 56) - 2);
  unsigned char buffer[8];
  for (auto _ : state) {
    uint64_t sum = 0;
    for (uint64_t v : values) {
      vsizeEncode(v, buffer);
      unsigned n = 0;
      sum += vsizeDecode(buffer, n);
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(values.size()));
}
BENCHMARK(BM_VsizeEncodeDecode);

void BM_Crc32(benchmark::State& state) {
  const auto data = randomBytes(static_cast<size_t>(state.range(0)));
  for (auto _ : state) {
    Crc32 crc;
    crc.compute(data.data(), data.size());
    benchmark::DoNotOptimize(crc.checksum());
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Crc32)->Arg(64)->Arg(4096)->Arg(1 << 20);

constexpr int64_t kFileBytes = 64 << 20;

// Sequential writes of one chunk size through FileStorage (cache, receipts) until 64 MiB.
void BM_FileStorageWrite(benchmark::State& state) {
  const auto chunk = randomBytes(static_cast<size_t>(state.range(0)));
  const std::string path = scratchPath("storage");
  for (auto _ : state) {
    {
      FileStorage storage(path, File::kReadWrite);
      storage.file().setSize(0);
      for (int64_t done = 0; done < kFileBytes; done += state.range(0))
        benchmark::DoNotOptimize(storage.save(chunk.data(), static_cast<unsigned long>(chunk.size())));
    }
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(state.iterations() * kFileBytes);
}
BENCHMARK(BM_FileStorageWrite)->RangeMultiplier(16)->Range(16, 64 << 10)->Unit(benchmark::kMillisecond);

// The same bytes with fwrite, for the ratio.
void BM_FwriteWrite(benchmark::State& state) {
  const auto chunk = randomBytes(static_cast<size_t>(state.range(0)));
  const std::string path = scratchPath("fwrite");
  for (auto _ : state) {
    FILE* f = std::fopen(path.c_str(), "wb");
    for (int64_t done = 0; done < kFileBytes; done += state.range(0)) std::fwrite(chunk.data(), 1, chunk.size(), f);
    std::fclose(f);
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(state.iterations() * kFileBytes);
}
BENCHMARK(BM_FwriteWrite)->RangeMultiplier(16)->Range(16, 64 << 10)->Unit(benchmark::kMillisecond);

// Patching in place: a 4-byte write-back at a random earlier position after each 64 KiB appended.
void BM_FileStoragePatch(benchmark::State& state) {
  const auto chunk = randomBytes(64 << 10);
  const std::string path = scratchPath("patch");
  std::mt19937_64 rng(3);
  for (auto _ : state) {
    FileStorage storage(path, File::kReadWrite);
    storage.file().setSize(0);
    std::vector<ReceiptPtr> receipts;
    for (int64_t done = 0; done < kFileBytes; done += static_cast<int64_t>(chunk.size())) {
      receipts.push_back(storage.save(chunk.data(), static_cast<unsigned long>(chunk.size())));
      const ReceiptPtr& r = receipts[rng() % receipts.size()];
      r->receipt(0, 4)->save(chunk.data(), 4);
    }
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(state.iterations() * kFileBytes);
}
BENCHMARK(BM_FileStoragePatch)->Unit(benchmark::kMillisecond);

}  // namespace
