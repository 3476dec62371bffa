#include <sstream>
#include "tools/cli_support.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <vector>

namespace kapsel_cli {

int fail(const std::string& message) {
  note(message);
  return kExitFailure;
}

int usageError(const std::string& message) {
  note(message + " (see kapsel --help)");
  return kExitUsage;
}

// "bytes 1200-3400, 9000-12000 (past the end of the file at 10000)"
std::string describeDamage(const std::vector<Kapsel::TByteRange>& ranges, uint64_t fileSize) {
  std::ostringstream os;
  os << "bytes ";
  for (size_t i = 0; i < ranges.size(); ++i) {
    os << (i ? ", " : "") << ranges[i].begin << "-" << ranges[i].end;
    if (ranges[i].end > fileSize) os << " (past the end of the file at " << fileSize << ")";
  }
  return os.str();
}

int damaged(const std::string& message) {
  note(message);
  return kExitDamaged;
}

void note(const std::string& message) {
  // One write, so that lines of concurrent writers and the progress line do not interleave mid-line.
  const std::string line = "kapsel: " + message + "\n";
  std::cerr.flush();
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
}

int terminalColumns() {
  winsize ws{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 0) return ws.ws_col;
  if (const char* c = std::getenv("COLUMNS")) {
    const long n = std::strtol(c, nullptr, 10);
    if (n > 0 && n < 10000) return static_cast<int>(n);
  }
  return 80;
}

void addProgressOption(CLI::App* command, std::string& value) {
  // A flag that also takes =VALUE: "--progress json" leaves "json" to the positional arguments.
  command
      ->add_flag("--progress{line}", value,
                 "Progress on standard error: line (even when it is not a terminal), json (one object per line), "
                 "none; default: a line when standard error is a terminal")
      ->check(CLI::IsMember({"auto", "line", "json", "none"}));
}

ProgressMode progressMode(const std::string& value, bool quiet) {
  if (value == "json") return ProgressMode::Json;
  if (value == "line") return ProgressMode::Terminal;
  if (value == "none" || quiet) return ProgressMode::Off;
  return ProgressMode::Auto;
}

namespace {

std::string fixed(double v, int decimals) {
  char buf[48];
  std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
  return buf;
}

std::string jsonString(const std::string& s) {
  std::string out = "\"";
  for (const char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    if (static_cast<unsigned char>(c) < 0x20) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\u%04x", c);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

// JSON has no NaN or infinity.
std::string jsonNumber(double v, int decimals) { return std::isfinite(v) ? fixed(v, decimals) : "null"; }

double speedOf(const Progress::State& s) {
  if (s.elapsed <= 0) return 0;
  if (s.speed == Progress::Speed::RealTime) return std::max(s.mediaTime, 0.0) / s.elapsed;
  return s.bytes / 1e6 / s.elapsed;
}

std::string humanBytes(uint64_t n) {
  static const char* units[] = {"B", "kB", "MB", "GB", "TB"};
  double b = static_cast<double>(n);
  int u = 0;
  while (b >= 1000 && u < 4) {
    b /= 1000;
    ++u;
  }
  return fixed(b, u ? 1 : 0) + " " + units[u];
}

}  // namespace

Progress::Progress(std::string command, ProgressMode mode, Speed speed)
    : command_(std::move(command)), mode_(mode), speed_(speed) {
  if (mode_ == ProgressMode::Auto) mode_ = isatty(STDERR_FILENO) ? ProgressMode::Terminal : ProgressMode::Off;
  started_ = lastDraw_ = std::chrono::steady_clock::now();
}

Progress::~Progress() {
  // Left without finish(): an early return on failure, whose message must start on a clean line.
  if (!finished_ && drawn_ && mode_ == ProgressMode::Terminal) std::fputs("\r\x1b[K", stderr);
}

void Progress::setTotals(double mediaSeconds, uint64_t bytes) {
  totalSeconds_ = mediaSeconds > 0 ? mediaSeconds : 0;
  totalBytes_ = bytes;
}

void Progress::update(uint64_t bytes, double mediaTime) {
  if (mode_ == ProgressMode::Off || finished_) return;
  bytes_ = bytes;
  if (mediaTime >= 0) mediaTime_ = std::max(mediaTime_, mediaTime);
  const auto now = std::chrono::steady_clock::now();
  if (now - lastDraw_ < std::chrono::milliseconds(100)) return;
  lastDraw_ = now;
  draw(state(false, true));
}

void Progress::finish(bool complete) {
  if (mode_ == ProgressMode::Off || finished_) return;
  finished_ = true;
  if (mode_ == ProgressMode::Terminal && !complete) {
    if (drawn_) std::fputs("\r\x1b[K", stderr);
    std::fflush(stderr);
    return;
  }
  draw(state(true, complete));
}

Progress::State Progress::state(bool done, bool complete) const {
  State s;
  s.command = command_;
  s.mediaTime = mediaTime_;
  s.bytes = bytes_;
  s.elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  s.speed = speed_;
  s.done = done;
  s.complete = complete;
  if (done && complete) s.percent = 100;
  else if (totalSeconds_ > 0 && mediaTime_ >= 0) s.percent = std::clamp(mediaTime_ / totalSeconds_ * 100, 0.0, 100.0);
  else if (totalBytes_ > 0) s.percent = std::clamp(bytes_ * 100.0 / totalBytes_, 0.0, 100.0);
  return s;
}

void Progress::draw(const State& s) {
  std::string out;
  if (mode_ == ProgressMode::Json) {
    out = formatJson(s) + "\n";
  } else {
    out = "\r" + formatLine(s, terminalColumns()) + "\x1b[K";
    if (s.done) out += "\n";
  }
  std::fwrite(out.data(), 1, out.size(), stderr);
  std::fflush(stderr);
  drawn_ = true;
}

std::string Progress::clock(double seconds) {
  const long t = seconds > 0 && std::isfinite(seconds) ? static_cast<long>(seconds) : 0;
  char buf[32];
  std::snprintf(buf, sizeof buf, "%02ld:%02ld:%02ld", t / 3600, t / 60 % 60, t % 60);
  return buf;
}

std::string Progress::formatLine(const State& s, int width) {
  const size_t room = static_cast<size_t>(std::max(width - 1, 1));
  // Fields in the order they are given up when the line is too long: the last one first.
  std::vector<std::string> fields;
  if (s.percent >= 0) fields.push_back(fixed(s.percent, 1) + "%");
  if (s.mediaTime >= 0) fields.push_back(clock(s.mediaTime));
  else fields.push_back(humanBytes(s.bytes));
  const double speed = speedOf(s);
  fields.push_back(s.speed == Speed::RealTime ? fixed(speed, 1) + "x" : fixed(speed, 1) + " MB/s");
  if (s.done) fields.push_back(s.complete ? "done" : "stopped");

  auto join = [&](bool withName) {
    std::string line = withName ? s.command : "";
    for (const auto& f : fields) line += (line.empty() ? "" : "  ") + f;
    return line;
  };
  std::string line = join(true);
  while (line.size() > room && fields.size() > 1) {
    // Keep "done" to the end; otherwise drop from the back.
    fields.erase(fields.end() - (s.done && fields.size() > 2 ? 2 : 1));
    line = join(true);
  }
  if (line.size() > room) line = join(false);
  if (line.size() > room) line.resize(room);

  // A bar between the name and the numbers when there is room for a useful one.
  if (s.percent >= 0 && line.size() + 14 <= room && line.compare(0, s.command.size(), s.command) == 0) {
    const size_t barWidth = std::min<size_t>(40, room - line.size() - 4);
    const size_t filled = static_cast<size_t>(s.percent / 100 * barWidth);
    const std::string bar = " [" + std::string(filled, '#') + std::string(barWidth - filled, '.') + "]";
    line.insert(s.command.size(), bar);
  }
  return line;
}

std::string Progress::formatJson(const State& s) {
  std::string out = "{\"command\":" + jsonString(s.command);
  out += ",\"percent\":" + (s.percent >= 0 ? jsonNumber(s.percent, 1) : std::string("null"));
  out += ",\"media_time\":" + (s.mediaTime >= 0 ? jsonNumber(s.mediaTime, 3) : std::string("null"));
  out += ",\"bytes\":" + std::to_string(s.bytes);
  out += ",\"elapsed\":" + jsonNumber(s.elapsed, 3);
  out += ",\"speed\":" + jsonNumber(speedOf(s), 3);
  out += std::string(",\"speed_unit\":") + (s.speed == Speed::RealTime ? "\"x\"" : "\"MB/s\"");
  if (s.done) out += std::string(",\"done\":true,\"complete\":") + (s.complete ? "true" : "false");
  return out + "}";
}

}  // namespace kapsel_cli
