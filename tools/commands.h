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
  std::string plugin;
  bool noVideo = false;
  bool noAudio = false;
  int videoStream = -1;
  int audioStream = -1;
  std::vector<std::pair<std::string, std::string>> meta;
  std::vector<std::pair<double, std::string>> chapters;
  unsigned keyframeInterval = 0;
  bool quiet = false;
};

struct InfoOptions {
  std::string file;
  int depth = -1;
  bool noBlocks = false;
  bool json = false;
  bool seekHead = false;
  bool progress = false;
};

struct OptimizeOptions {
  std::string input;
  std::string output;
  bool crc32 = false;
};

int runMux(const MuxOptions& options, const std::string& programPath);
int runInfo(const InfoOptions& options);
int runOptimize(const OptimizeOptions& options);

// One line on standard error, the way every failure is reported.
int fail(const std::string& message);

}  // namespace kapsel_cli
