// Fuzz target: whole-document loads (linear and through the seek head) and block parsing; every
// document that loads is written again and must read back as the same tree.
// Build and run: fuzz/run_ci.sh, or fuzz/run_long.sh for longer runs.

#include "fuzz/fuzz_common.h"

using namespace Kapsel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  {
    SimpleBlock block;
    HodgePodge bytes;
    bytes.add(receiptForConstMemory(data, static_cast<unsigned long>(size)));
    block.importData(bytes);
  }
  static fuzz::MemFile input("kapsel-fuzz-in"), output("kapsel-fuzz-out");
  if (!input.ok() || !output.ok() || !input.assign(data, size)) return 0;
  {
    FileStorage in(input.path(), File::kReadOnly);
    MatroskaDoc doc;
    doc.setKeepUnknown(true);
    doc.load(in, in.file().size());
    if (doc.segments_.empty()) return 0;
    if (!fuzz::saveTo(doc, output)) fuzz::finding("a loaded document could not be saved");
    // Dumped after the save: the save itself drops references whose target never loaded.
    const std::string first = fuzz::dump(doc, true);
    FileStorage again(output.path(), File::kReadOnly);
    MatroskaDoc reloaded;
    reloaded.setKeepUnknown(true);
    reloaded.load(again, again.file().size());
    if (!reloaded.damagedRanges().empty()) fuzz::finding("the saved file has damaged ranges");
    if (fuzz::dump(reloaded) != first) fuzz::finding("the saved file reads back as a different tree", first, fuzz::dump(reloaded));
  }
  {
    FileStorage in(input.path(), File::kReadOnly);
    MatroskaDoc doc;
    if (doc.loadSeekHead(in, in.file().size())) doc.loadViaSeekHead(in, nullptr, true);
  }
  return 0;
}
