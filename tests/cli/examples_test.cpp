// The example programs, built against an installed tree as an application would build them, and run.

#include <gtest/gtest.h>

#include <string>

#include "support/readers.h"

using namespace kapsel_test;

TEST(Examples, BuildAgainstTheInstalledTreeAndRun) {
  TempDir dir;
  const std::string prefix = dir.path("prefix"), build = dir.path("build");
  CommandResult inst = runCommand("cmake --install " + shellQuote(KAPSEL_BINARY_DIR) + " --prefix " + shellQuote(prefix));
  ASSERT_EQ(inst.exitCode, 0) << inst.err;
  // The tree may have been built with sanitizers: the examples link with the same ones.
  CommandResult cache = runCommand("grep -c 'KAPSEL_SANITIZE:BOOL=ON' " + shellQuote(std::string(KAPSEL_BINARY_DIR) + "/CMakeCache.txt"));
  const std::string flags = cache.out.rfind("1", 0) == 0 ? " -DCMAKE_CXX_FLAGS=-fsanitize=address,undefined" : "";
  CommandResult conf = runCommand("cmake -S " + shellQuote(std::string(KAPSEL_SOURCE_DIR) + "/examples") + " -B " +
                                  shellQuote(build) + flags + " -DCMAKE_PREFIX_PATH=" + shellQuote(prefix));
  ASSERT_EQ(conf.exitCode, 0) << conf.out << conf.err;
  CommandResult made = runCommand("cmake --build " + shellQuote(build) + " -j2");
  ASSERT_EQ(made.exitCode, 0) << made.out << made.err;

  const std::string file = dir.path("written.mkv");
  CommandResult w = runCommand(shellQuote(build + "/write_file") + " " + shellQuote(file));
  ASSERT_EQ(w.exitCode, 0) << w.err;
  EXPECT_EQ(w.out, "350 frames in 10 clusters, 10.000 s, index at the front\n");
  CommandResult list = runCommand(shellQuote(build + "/list_tracks") + " " + shellQuote(file));
  EXPECT_EQ(list.out, "duration 10.000 s\ntrack 1: video V_MS/VFW/FOURCC language eng\n"
                      "track 2: audio A_PCM/INT/LIT language eng\n") << list.err;
  const auto before = frameMd5(file, 1);
  CommandResult title = runCommand(shellQuote(build + "/set_title") + " " + shellQuote(file) + " 'A new title'");
  EXPECT_EQ(title.exitCode, 0) << title.err;
  CommandResult j = mkvmergeJson(file);
  EXPECT_EQ(j.exitCode, 0) << j.out;
  EXPECT_NE(j.out.find("\"title\": \"A new title\""), std::string::npos);
  EXPECT_NE(j.out.find("\"num_entries\": 2"), std::string::npos) << "two chapters";
  EXPECT_EQ(frameMd5(file, 1), before);
  EXPECT_EQ(before.size(), 100u);
}
