// Fuzz target: load, optimise, save in WebM order with CRC-32 elements, and read it back: the same
// tree, and every CRC-32 matches.

#include "fuzz/fuzz_common.h"

using namespace Kapsel;

namespace {

struct CrcCheck : IElementCrawler {
  bool eval(IElement& e) override {
    if (!e.crc32Matched()) return true;
    return evalPayload(e.getPayload());
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemFile input("kapsel-opt-in"), output("kapsel-opt-out");
  if (!input.ok() || !output.ok() || !input.assign(data, size)) return 0;
  FileStorage in(input.path(), File::kReadOnly);
  WebmDoc doc(kFileFormatWebm);
  // As the program loads what it optimises: nothing the file holds is dropped.
  doc.setKeepUnknown(true);
  MemoryStorage scratch;
  // The next-to-last input byte picks the program's way (read ahead, clusters optimised as they load) or a pass
  // after loading.
  const bool onLoad = size > 1 && (data[size - 2] & 1);
  OptimizeClustersOnLoad delegate(scratch);
  if (onLoad) in.file().readAhead();
  doc.load(in, in.file().size(), onLoad ? &delegate : nullptr);
  if (doc.segments_.empty()) return 0;
  doc.optimize(scratch, onLoad);
  // The last input byte picks the CRC-32 byte order, so both orders are exercised.
  doc.setCrc32(true, size > 0 && (data[size - 1] & 1) ? kCrc32LittleEndian : kCrc32BigEndian);
  if (!fuzz::saveTo(doc, output)) fuzz::finding("an optimised document could not be saved");
  const std::string first = fuzz::dump(doc, true);
  FileStorage again(output.path(), File::kReadOnly);
  MatroskaDoc reloaded;
  reloaded.setKeepUnknown(true);
  reloaded.load(again, again.file().size());
  if (!reloaded.damagedRanges().empty()) fuzz::finding("the optimised file has damaged ranges");
  CrcCheck crc;
  if (reloaded.eval(crc)) fuzz::finding("a CRC-32 in the optimised file does not match");
  const std::string second = fuzz::dump(reloaded);
  if (second != first) fuzz::finding("the optimised file reads back as a different tree", first, second);
  return 0;
}
