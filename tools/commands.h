#pragma once
// The kapsel program's commands.

#include <string>
#include <utility>
#include <vector>

namespace kapsel_cli {

struct MuxOptions {
  std::vector<std::string> inputs;
  std::string output;
  std::string format;  // "mkv", "webm" or empty: from the extension
  bool usePlugin = false;  // mux through the formatter module (one video, one audio stream)
  std::string plugin;      // with usePlugin: the module; empty: looked up
  bool noVideo = false;
  bool noAudio = false;
  int videoStream = -1;
  int audioStream = -1;
  std::vector<std::pair<std::string, std::string>> meta;
  std::vector<std::pair<double, std::string>> chapters;
  unsigned keyframeInterval = 0;
  // Streams to keep as (input, stream), in output order; empty: every stream that can be written.
  std::vector<std::pair<int, int>> maps;
  // Per output track (1-based number): language, name and default flag.
  std::vector<std::pair<unsigned, std::string>> languages, trackNames;
  std::vector<std::pair<unsigned, bool>> defaultTracks;
  bool quiet = false;
  bool verbose = false;   // also the formatter module's or the writer's summary lines
  std::string progress;   // for progressMode()
};

struct InfoOptions {
  std::string file;
  int depth = -1;
  bool blocks = false;     // list every block (otherwise clusters are skipped, not kept in memory)
  bool noBlocks = false;   // the default, said explicitly
  bool json = false;       // a summary for scripts
  bool tree = false;       // with json: the element tree instead
  bool seekHead = false;
  std::string progress;    // for progressMode()
};

struct OptimizeOptions {
  std::string input;
  std::string output;
  bool crc32 = false;
  bool force = false;
};

struct RepairOptions {
  std::string file;
  bool dryRun = false;
  bool quiet = false;
  std::string progress;  // for progressMode()
};

int runMux(const MuxOptions& options, const std::string& programPath);
int runInfo(const InfoOptions& options);
int runOptimize(const OptimizeOptions& options);
// The arguments after "edit", in order: track options apply to the --track before them.
int runEdit(const std::vector<std::string>& args);
int runRepair(const RepairOptions& options);

// One line on standard error, the way every failure is reported.
int fail(const std::string& message);

// SIGINT and SIGTERM remove the temporary output and exit 128 + signal, unless a graceful stop is on: then the
// first one is only recorded (stopSignal) and the second one aborts.
void installSignalHandlers();
void setGracefulStop(bool on);
int stopSignal();

// The input that is the same file as the output (by identity, not by name); empty when there is none.
std::string sameFileAs(const std::string& output, const std::vector<std::string>& inputs);

// A file beside the target that becomes the target only on commit; otherwise it is removed.
class TempOutput {
 public:
  TempOutput() = default;
  TempOutput(const TempOutput&) = delete;
  TempOutput& operator=(const TempOutput&) = delete;
  ~TempOutput();
  // Refuses directories and targets that are not regular files; error is one line for fail().
  bool create(const std::string& target, std::string& error);
  const std::string& path() const { return path_; }
  bool commit(std::string& error);
  void discard();

 private:
  std::string target_, path_;
};

}  // namespace kapsel_cli
