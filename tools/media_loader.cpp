// kapsel mux runs in a module loaded on demand, so that the other commands start without the libav libraries.

#include <dlfcn.h>
#include <unistd.h>

#include <filesystem>

#include "tools/commands.h"

namespace kapsel_cli {

namespace {

constexpr const char* kModuleName = "kapsel_media.so";

// Beside the program in the build tree; in the library directory once installed.
std::string findMediaModule(const std::string& programPath, std::string& looked) {
  namespace fs = std::filesystem;
  std::error_code ec;
  fs::path self = fs::canonical("/proc/self/exe", ec);
  if (ec) self = fs::absolute(programPath, ec);
  const fs::path dir = self.parent_path();
  for (const fs::path& candidate : {dir / kModuleName, (dir / KAPSEL_MODULE_DIR_FROM_BIN / kModuleName).lexically_normal()}) {
    if (access(candidate.c_str(), R_OK) == 0) return candidate.string();
    looked += (looked.empty() ? "" : " or ") + candidate.string();
  }
  return "";
}

}  // namespace

// The program's side of mux: the module holds the real command.
int runMux(const MuxOptions& options, const std::string& programPath) {
  std::string looked;
  const std::string path = findMediaModule(programPath, looked);
  if (path.empty()) return fail("cannot find the media module " + looked);
  void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!module) return fail(std::string("cannot load the media module: ") + dlerror());
  using Entry = int (*)(const char*, std::size_t, const MuxOptions*, const char*);
  const auto entry = reinterpret_cast<Entry>(dlsym(module, "kapsel_media_mux"));
  if (!entry) return fail(path + " is not kapsel's media module");
  // Never unloaded: the module's outputs and handlers stay in use until exit.
  return entry(KAPSEL_VERSION, sizeof(MuxOptions), &options, programPath.c_str());
}

}  // namespace kapsel_cli
