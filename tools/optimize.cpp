// kapsel optimize: the library's optimiser from the shell.

#include <iostream>

#include "kapsel/kapsel.h"
#include "tools/cli_support.h"
#include "tools/commands.h"

namespace kapsel_cli {

using namespace Kapsel;

int runOptimize(const OptimizeOptions& o) {
  if (!sameFileAs(o.output, {o.input}).empty())
    return fail("the output " + o.output + " is the input " + o.input + "; write to another file");
  FileStorage in(o.input, File::kReadOnly);
  if (!in.file().isOpen()) return fail("cannot open " + o.input);
  // Frames are read one by one as they are written: large cache lines make that a few big reads.
  if (TCache* cache = in.file().cache()) cache->resize(4, 1ul << 20);
  in.file().readAhead();
  const uint64_t before = in.file().size();
  WebmDoc doc(kFileFormatMatroska);
  // Elements the tables do not know are written back as they were: optimising never loses data.
  doc.setKeepUnknown(true);
  // Blocks (and lacing) live in memory when an optimising pass shrinks them.
  MemoryStorage memory;
  OptimizeClustersOnLoad onLoad(memory);
  if (doc.load(in, before, o.crc32 ? nullptr : &onLoad) == 0 || doc.segments_.empty())
    return fail(o.input + " is not a Matroska or WebM file");
  const std::vector<TByteRange> damage = doc.damagedRanges();
  if (!damage.empty() && !o.force)
    return fail(o.input + " is damaged: " + describeDamage(damage, before) +
                " could not be read; --force saves the rest without them");
  if (doc.head_->docType_->get() == "webm") {
    // WebM keeps its element order and the header's small Void.
    doc.setFileFormat(kFileFormatWebm);
    doc.head_->docType_->clearVoids();
    doc.head_->docType_->addVoid(2);
  }
  if (o.crc32) {
    doc.setCrc32(true, kCrc32LittleEndian);
  } else {
    doc.optimize(memory, true);
  }
  std::string error;
  TempOutput temp;
  if (!temp.create(o.output, error)) return fail(error);
  uint64_t after = 0;
  {
    FileStorage out(temp.path(), File::kReadWrite);
    if (!out.file().isOpen()) return fail("cannot open " + o.output + " for writing");
    if (TCache* cache = out.file().cache()) cache->resize(4, 1ul << 20);
    out.file().allocateAhead();
    ReceiptPtr r = doc.save(out);
    after = out.file().size();
    out.file().close();
    if (!r || out.file().hadWriteError()) return fail("writing " + o.output + " failed (disk full?)");
  }
  if (!temp.commit(error)) return fail(error);
  if (!damage.empty())
    std::cout << o.input << ": dropped the damaged " << describeDamage(damage, before) << "\n";
  std::cout << o.input << ": " << before << " bytes\n" << o.output << ": " << after << " bytes ("
            << std::showpos << static_cast<int64_t>(after) - static_cast<int64_t>(before) << std::noshowpos
            << ")\n";
  return 0;
}

}  // namespace kapsel_cli
