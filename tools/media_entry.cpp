// The media module's one entry point. The program loads this module only to mux, so that its other commands
// start without the demuxing libraries.

#include <cstddef>
#include <cstring>

#include "tools/commands.h"

extern "C" __attribute__((visibility("default"))) int kapsel_media_mux(const char* version, std::size_t optionsSize,
                                                                        const kapsel_cli::MuxOptions* options,
                                                                        const char* programPath) {
  using namespace kapsel_cli;
  // The options cross over as a C++ object: only a module from the same build may take them.
  if (std::strcmp(version, KAPSEL_VERSION) != 0 || optionsSize != sizeof(MuxOptions))
    return fail(std::string("the media module (kapsel ") + KAPSEL_VERSION + ") does not belong to this program (kapsel " +
                version + ")");
  // The module has its own copy of the signal state that the temporary output registers with.
  installSignalHandlers();
  return runMux(*options, programPath);
}
