#include "support/readers.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <sstream>

namespace kapsel_test {

CommandResult runCommand(const std::string& shellCommand) {
  CommandResult result;
  int outPipe[2], errPipe[2];
  if (pipe(outPipe) != 0) return result;
  if (pipe(errPipe) != 0) {
    close(outPipe[0]);
    close(outPipe[1]);
    return result;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outPipe[1], 1);
    dup2(errPipe[1], 2);
    close(outPipe[0]);
    close(errPipe[0]);
    const int devnull = open("/dev/null", O_RDONLY);
    if (devnull >= 0) dup2(devnull, 0);
    execl("/bin/sh", "sh", "-c", shellCommand.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(outPipe[1]);
  close(errPipe[1]);
  // Both pipes are drained together so that neither fills up and blocks the child.
  pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  char buffer[65536];
  while (open > 0) {
    if (poll(fds, 2, -1) < 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
      const ssize_t n = read(fds[i].fd, buffer, sizeof buffer);
      if (n > 0) {
        sinks[i]->append(buffer, static_cast<size_t>(n));
      } else {
        close(fds[i].fd);
        fds[i].fd = -1;
        --open;
      }
    }
  }
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid)
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

bool haveTool(const std::string& name) { return runCommand("command -v " + name + " >/dev/null").exitCode == 0; }

std::string shellQuote(const std::string& text) {
  std::string q = "'";
  for (char c : text) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return q + "'";
}

TempDir::TempDir() {
  char pattern[] = "/tmp/kapsel-test-XXXXXX";
  const char* made = mkdtemp(pattern);
  path_ = made ? made : "/tmp";
}

TempDir::~TempDir() {
  if (path_ != "/tmp") {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
}

namespace {

int64_t toMs(const nlohmann::json& packet, const char* key) {
  auto it = packet.find(key);
  if (it == packet.end() || !it->is_string()) return INT64_MIN;
  return static_cast<int64_t>(std::llround(std::stod(it->get<std::string>()) * 1000.0));
}

}  // namespace

std::vector<ProbePacket> ffprobePackets(const std::string& file, std::string* error) {
  std::vector<ProbePacket> packets;
  CommandResult r = runCommand("ffprobe -v warning -show_packets -show_streams -of json " + shellQuote(file));
  if (error) *error = r.err;
  if (r.exitCode != 0) return packets;
  nlohmann::json doc = nlohmann::json::parse(r.out, nullptr, false);
  if (doc.is_discarded()) return packets;
  for (const auto& p : doc.value("packets", nlohmann::json::array())) {
    ProbePacket pk;
    pk.stream = p.value("stream_index", -1);
    pk.codecType = p.value("codec_type", "");
    pk.ptsMs = toMs(p, "pts_time");
    pk.dtsMs = toMs(p, "dts_time");
    pk.size = std::stoll(p.value("size", std::string("0")));
    pk.key = p.value("flags", "").find('K') != std::string::npos;
    packets.push_back(pk);
  }
  return packets;
}

std::vector<std::string> frameMd5(const std::string& file, int stream, const std::string& extra) {
  std::vector<std::string> sums;
  CommandResult r = runCommand("ffmpeg -v error -i " + shellQuote(file) + " -map 0:" + std::to_string(stream) +
                               " -c copy " + extra + " -f framemd5 -");
  std::istringstream lines(r.out);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.empty() || line[0] == '#') continue;
    // stream, dts, pts, duration, size, md5[, side data…]
    std::vector<std::string> fields;
    std::istringstream cols(line);
    std::string field;
    while (std::getline(cols, field, ',')) {
      field.erase(0, field.find_first_not_of(' '));
      fields.push_back(field);
    }
    if (fields.size() >= 6) sums.push_back(fields[5]);
  }
  return sums;
}

std::string md5Hex(const unsigned char* data, size_t size) {
  TempDir dir;
  const std::string path = dir.path("blob");
  {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  }
  CommandResult r = runCommand("md5sum " + shellQuote(path));
  return r.out.substr(0, r.out.find(' '));
}

CommandResult mkvmergeJson(const std::string& file) { return runCommand("mkvmerge -J " + shellQuote(file)); }
CommandResult mkvinfo(const std::string& file) { return runCommand("mkvinfo -v " + shellQuote(file)); }
CommandResult webmInfo(const std::string& file) { return runCommand("webm_info -i " + shellQuote(file)); }

std::vector<unsigned char> readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<unsigned char> cat(std::initializer_list<std::vector<unsigned char>> parts) {
  std::vector<unsigned char> all;
  for (const auto& p : parts) all.insert(all.end(), p.begin(), p.end());
  return all;
}

void writeFile(const std::string& path, const std::vector<unsigned char>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) ADD_FAILURE() << "cannot write " << path;
}

void writeText(const std::string& path, const std::string& text) { writeFile(path, {text.begin(), text.end()}); }

std::string lastLine(std::string text) {
  while (!text.empty() && text.back() == '\n') text.pop_back();
  return text.substr(text.rfind('\n') == std::string::npos ? 0 : text.rfind('\n') + 1);
}

std::string makeClip(const TempDir& dir, const std::string& name, const std::string& codecArgs, double seconds,
                     const std::string& extraInputs) {
  const std::string path = dir.path(name), d = std::to_string(seconds);
  CommandResult r = runCommand("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=" + d +
                               " -f lavfi -i sine=frequency=440:duration=" + d + " " + extraInputs + " " + codecArgs +
                               " " + shellQuote(path));
  return r.exitCode == 0 ? path : "";
}

}  // namespace kapsel_test
