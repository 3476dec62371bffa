#pragma once
// What every kapsel command shares: exit statuses, one-line messages and the progress reporter.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "kapsel/element.h"

namespace CLI {
class App;
}

namespace kapsel_cli {

constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;
constexpr int kExitDamaged = 3;  // a damaged input, read as far as it could be

// "kapsel: <message>" on standard error. fail() returns kExitFailure, usageError() kExitUsage (and adds the hint
// to --help), damaged() kExitDamaged; note() is for warnings and summaries.
int fail(const std::string& message);
int usageError(const std::string& message);
int damaged(const std::string& message);
// "bytes 1200-3400, 9000-12000 (past the end of the file at 10000)": damaged ranges for a message.
std::string describeDamage(const std::vector<Kapsel::TByteRange>& ranges, uint64_t fileSize);
void note(const std::string& message);

// Columns of the terminal on standard error: TIOCGWINSZ, else COLUMNS, else 80.
int terminalColumns();

enum class ProgressMode {
  Off,       // nothing
  Auto,      // a line updated in place when standard error is a terminal
  Terminal,  // that line even when standard error is not a terminal
  Json,      // one JSON object per line, whatever standard error is
};

// Adds --progress[=auto|line|json|none] to a command; the value lands in `value` for progressMode().
void addProgressOption(CLI::App* command, std::string& value);
ProgressMode progressMode(const std::string& value, bool quiet = false);

// Progress on standard error, at most about ten updates a second. Speed is in multiples of real time when the
// work has a media time and no byte total (mux), in MB/s otherwise.
class Progress {
 public:
  enum class Speed { RealTime, Bytes };
  struct State {
    std::string command;
    double percent = -1;     // below zero: unknown
    double mediaTime = -1;   // seconds; below zero: none
    uint64_t bytes = 0;
    double elapsed = 0;      // seconds
    Speed speed = Speed::Bytes;
    bool done = false;
    bool complete = true;    // with done: the work finished rather than stopped
  };

  Progress(std::string command, ProgressMode mode, Speed speed = Speed::Bytes);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  ~Progress();

  // What 100 % is: a media duration in seconds and/or a byte count; media time wins when both are known.
  void setTotals(double mediaSeconds, uint64_t bytes);
  // Cheap to call for every packet or element; draws only when due.
  void update(uint64_t bytes, double mediaTime = -1);
  // The final line or object. complete = false when the work stopped early: the terminal line is then cleared.
  void finish(bool complete = true);
  bool active() const { return mode_ != ProgressMode::Off; }

  // The terminal line, never longer than width - 1 characters (the last column would wrap some terminals).
  static std::string formatLine(const State& state, int width);
  // One JSON object, no newline.
  static std::string formatJson(const State& state);
  // hh:mm:ss
  static std::string clock(double seconds);

 private:
  State state(bool done, bool complete) const;
  void draw(const State& s);

  std::string command_;
  ProgressMode mode_;
  Speed speed_;
  double totalSeconds_ = 0;
  uint64_t totalBytes_ = 0;
  uint64_t bytes_ = 0;
  double mediaTime_ = -1;
  std::chrono::steady_clock::time_point started_, lastDraw_;
  bool drawn_ = false, finished_ = false;
};

}  // namespace kapsel_cli
