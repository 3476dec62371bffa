#pragma once
// Mending, in place, a Matroska/WebM file cut off while it was being written.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace Kapsel {

// What analyse() found and what execute() will write. Every byte to write is computed here, before any is written.
struct RepairPlan {
  enum class Status {
    Whole,        // nothing to mend: execute() writes nothing
    Repairable,   // writes and newSize below mend it
    NotMatroska,  // no EBML header or no Segment
    Damaged,      // Matroska, but beyond what a repair does (no Tracks, no whole block, damage before the end)
  };
  struct Write {
    uint64_t position = 0;
    std::vector<unsigned char> bytes;
  };
  Status status = Status::NotMatroska;
  std::string message;               // why the file is NotMatroska or Damaged
  std::vector<std::string> actions;  // one line for each change execute() makes
  std::vector<std::string> notes;    // what the repair leaves as it is, and why
  std::vector<Write> writes;         // in the order they are made
  uint64_t fileSize = 0;             // as analysed
  uint64_t newSize = 0;              // the file's size afterwards
  uint64_t blocks = 0;               // whole blocks kept
  uint64_t cuePoints = 0;
  double duration = 0;               // seconds: the end of the last whole block
};

// Analyse (read only, element headers only: no frame is read), then execute the plan.
//   Repairer r(path);
//   RepairPlan plan = r.analyse();
//   if (plan.status == RepairPlan::Status::Repairable) r.execute(plan, error);
class Repairer {
 public:
  // Called now and then while clusters are scanned: bytes scanned so far, bytes in all.
  using ProgressFn = std::function<void(uint64_t done, uint64_t total)>;

  explicit Repairer(std::string path) : path_(std::move(path)) {}
  void setProgress(ProgressFn progress) { progress_ = std::move(progress); }

  // Reads the file's top level and every cluster's block headers; never writes.
  RepairPlan analyse() const;
  // Makes the plan's writes by position, then sets the file's size. The file must not have changed since analyse().
  // False with one line in error when the file cannot be opened for writing or a write fails.
  bool execute(const RepairPlan& plan, std::string& error) const;

 private:
  std::string path_;
  ProgressFn progress_;
};

}  // namespace Kapsel
