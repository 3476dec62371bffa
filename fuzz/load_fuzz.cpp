// Fuzz target: whole-document loads (linear and through the seek head) and block parsing.
// Build with clang: cmake -S fuzz -B build/fuzz -DCMAKE_CXX_COMPILER=clang++ && cmake --build build/fuzz
// Run: build/fuzz/load_fuzz -max_total_time=60 corpus/

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <string>

#include "kapsel/kapsel.h"

using namespace Kapsel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    SimpleBlock block;
    HodgePodge bytes;
    bytes.add(receiptForConstMemory(data, static_cast<unsigned long>(size)));
    block.importData(bytes);
  }
  static int fd = memfd_create("kapsel-fuzz", 0);
  if (fd < 0) return 0;
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size)) return 0;
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  {
    FileStorage in(path, File::kReadOnly);
    MatroskaDoc doc;
    doc.load(in, in.file().size());
    MemoryStorage mem;
    doc.optimize(mem);
    NullStorage sink;
    doc.save(sink);
  }
  {
    FileStorage in(path, File::kReadOnly);
    MatroskaDoc doc;
    if (doc.loadSeekHead(in, in.file().size())) doc.loadViaSeekHead(in, nullptr, true);
  }
  return 0;
}
