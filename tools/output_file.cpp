// Outputs are written beside their target under a temporary name and renamed into place only when complete.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "tools/commands.h"

namespace kapsel_cli {

namespace {

namespace fs = std::filesystem;

// Atomic, for muxing reads on a second thread; lock-free, so safe in a handler.
std::atomic<int> gSignal{0};
std::atomic<int> gGraceful{0};
static_assert(std::atomic<int>::is_always_lock_free);
// The temporary file a signal must remove; written before the handlers can see it.
char gTempPath[4096] = {};

void onSignal(int sig) {
  if (gGraceful && !gSignal) {
    gSignal = sig;
    return;
  }
  if (gTempPath[0]) unlink(gTempPath);
  _exit(128 + sig);
}

}  // namespace

void installSignalHandlers() {
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  // A file-size limit then fails the write instead of killing the program with the temporary file left.
  std::signal(SIGXFSZ, SIG_IGN);
}

void setGracefulStop(bool on) { gGraceful = on ? 1 : 0; }
int stopSignal() { return gSignal; }

std::string sameFileAs(const std::string& output, const std::vector<std::string>& inputs) {
  std::error_code ec;
  for (const auto& in : inputs)
    if (fs::equivalent(in, output, ec) && !ec) return in;
  return "";
}

TempOutput::~TempOutput() { discard(); }

bool TempOutput::create(const std::string& target, std::string& error) {
  fs::path out(target);
  std::error_code ec;
  // Through a symbolic link the file it names is replaced, not the link.
  if (fs::is_symlink(fs::symlink_status(out, ec)) && fs::exists(out, ec)) out = fs::canonical(out, ec);
  target_ = out.string();
  const fs::file_status status = fs::status(out, ec);
  if (fs::is_directory(status)) return error = "cannot write " + target + ": it is a directory", false;
  // Renaming onto a device or a pipe would replace it with a plain file.
  if (fs::exists(status) && !fs::is_regular_file(status))
    return error = "cannot write " + target + ": not a regular file", false;
  const fs::path dir = out.has_parent_path() ? out.parent_path() : fs::path(".");
  if (!fs::is_directory(dir, ec)) return error = "cannot write " + target + ": no such directory", false;
  std::string pattern = (dir / ("." + out.filename().string() + ".kapsel-XXXXXX")).string();
  if (pattern.size() >= sizeof gTempPath) return error = "cannot write " + target + ": the path is too long", false;
  const int fd = mkstemp(pattern.data());
  if (fd < 0) return error = "cannot write " + target + ": " + std::strerror(errno), false;
  // The finished file gets the mode a new file would get, or the mode of the file it replaces.
  struct stat old {};
  mode_t mode;
  if (stat(target.c_str(), &old) == 0) {
    mode = old.st_mode & 07777;
  } else {
    mode = umask(0);
    umask(mode);
    mode = 0666 & ~mode;
  }
  fchmod(fd, mode);
  close(fd);
  path_ = pattern;
  std::strcpy(gTempPath, path_.c_str());
  return true;
}

bool TempOutput::commit(std::string& error) {
  if (std::rename(path_.c_str(), target_.c_str()) != 0) {
    error = "cannot write " + target_ + ": " + std::strerror(errno);
    discard();
    return false;
  }
  gTempPath[0] = 0;
  path_.clear();
  return true;
}

void TempOutput::discard() {
  if (path_.empty()) return;
  unlink(path_.c_str());
  gTempPath[0] = 0;
  path_.clear();
}

}  // namespace kapsel_cli
