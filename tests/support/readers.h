#pragma once
// Running independent readers (ffprobe, ffmpeg, mkvmerge, mkvinfo, webm_info) over files we wrote.

#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

namespace kapsel_test {

struct CommandResult {
  int exitCode = -1;
  std::string out;
  std::string err;
};

// Runs a command through /bin/sh; stdout and stderr are captured separately.
CommandResult runCommand(const std::string& shellCommand);
bool haveTool(const std::string& name);
std::string shellQuote(const std::string& text);

// A fresh directory under /tmp, removed with everything in it when the object goes.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

struct ProbePacket {
  int stream = -1;
  std::string codecType;
  int64_t ptsMs = INT64_MIN;  // INT64_MIN when the reader gives none
  int64_t dtsMs = INT64_MIN;
  int64_t size = 0;
  bool key = false;
};

// Packets as ffprobe reports them; *error receives ffprobe's stderr (empty for a clean file).
std::vector<ProbePacket> ffprobePackets(const std::string& file, std::string* error = nullptr);
// The md5 of every packet of one stream, in order; extra ffmpeg arguments go before the output (a bitstream filter).
std::vector<std::string> frameMd5(const std::string& file, int stream, const std::string& extra = "");
std::string md5Hex(const unsigned char* data, size_t size);
CommandResult mkvmergeJson(const std::string& file);
CommandResult mkvinfo(const std::string& file);
CommandResult webmInfo(const std::string& file);
std::vector<unsigned char> readFile(const std::string& path);
// The parts one after the other.
std::vector<unsigned char> cat(std::initializer_list<std::vector<unsigned char>> parts);
// Replaces the file with exactly these bytes; a failure fails the running test.
void writeFile(const std::string& path, const std::vector<unsigned char>& bytes);
void writeText(const std::string& path, const std::string& text);
// The last non-empty line of a program's standard error.
std::string lastLine(std::string text);
// A clip of ffmpeg's test picture and a sine tone (inputs 0 and 1) made with these arguments; empty when this
// ffmpeg cannot make it.
std::string makeClip(const TempDir& dir, const std::string& name, const std::string& codecArgs, double seconds = 2.0,
                     const std::string& extraInputs = "");

#ifdef KAPSEL_CLI
inline CommandResult kapsel(const std::string& args) { return runCommand(shellQuote(KAPSEL_CLI) + " " + args); }
#endif

}  // namespace kapsel_test
