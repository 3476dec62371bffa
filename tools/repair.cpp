// kapsel repair: mend, in place, a file cut off while it was being written.

#include <iomanip>
#include <iostream>

#include "kapsel/repair.h"
#include "tools/cli_support.h"
#include "tools/commands.h"

namespace kapsel_cli {

int runRepair(const RepairOptions& options) {
  using Status = Kapsel::RepairPlan::Status;
  Kapsel::Repairer repairer(options.file);
  Progress progress("repair", progressMode(options.progress, options.quiet));
  if (progress.active()) {
    repairer.setProgress([&](uint64_t done, uint64_t total) {
      progress.setTotals(0, total);
      progress.update(done);
    });
  }
  const Kapsel::RepairPlan plan = repairer.analyse();
  progress.finish(plan.status != Status::NotMatroska);
  switch (plan.status) {
    case Status::NotMatroska:
      return fail(plan.message);
    case Status::Damaged:
      return damaged(plan.message + "; " + options.file + " is unchanged");
    case Status::Whole:
      if (!options.quiet) std::cout << options.file << " is whole: nothing to repair\n";
      return kExitOk;
    case Status::Repairable:
      break;
  }
  if (options.dryRun || !options.quiet) {
    std::cout << options.file << (options.dryRun ? ": would keep " : ": keeps ") << plan.blocks << " whole blocks, "
              << std::fixed << std::setprecision(3) << plan.duration << " s\n";
    for (const auto& line : plan.actions) std::cout << "  " << line << "\n";
  }
  for (const auto& line : plan.notes) note(line);
  if (options.dryRun) return kExitOk;
  std::string error;
  if (!repairer.execute(plan, error)) return fail(error);
  return kExitOk;
}

}  // namespace kapsel_cli
