// The command line as a whole: exit statuses, one-line messages, option parsing, standard input, progress.

#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "support/readers.h"

using namespace kapsel_test;

namespace {

const std::string kProgram = KAPSEL_CLI;

std::vector<std::string> lines(const std::string& text, const std::string& separators = "\n") {
  std::vector<std::string> out;
  std::string line;
  for (const char c : text) {
    if (separators.find(c) != std::string::npos) {
      if (!line.empty()) out.push_back(line);
      line.clear();
    } else {
      line += c;
    }
  }
  if (!line.empty()) out.push_back(line);
  return out;
}

// The clip fed through a pipe in small pieces, so that the run lasts long enough for several progress updates.
std::string slowly(const std::string& file) {
  return "{ for i in $(seq 25); do dd bs=8192 count=1 2>/dev/null; sleep 0.06; done; cat; } < " + shellQuote(file) +
         " | ";
}

}  // namespace

TEST(CommandLine, ExitStatusesAndOneLineMessages) {
  TempDir dir;
  const std::string in = makeClip(dir, "in.webm", "-c:v libvpx -c:a libvorbis", 1);
  if (in.empty()) GTEST_SKIP() << "ffmpeg cannot encode VP8/Vorbis here";
  writeText(dir.path("junk.mkv"), std::string(5000, '\x42'));
  const std::string q = shellQuote(in), out = shellQuote(dir.path("out.mkv")), missing = shellQuote(dir.path("no.mkv"));
  // A failed mux never leaves this output behind.
  const std::string x = dir.path("x.mkv"), mux = "mux -q " + q + " -o " + shellQuote(x) + " ";
  struct Case {
    std::string args;
    int status;
    std::string says;  // in the one line on standard error; empty: nothing on standard error is checked
  };
  const Case cases[] = {
      {"--version", 0, ""},
      {"--help", 0, ""},
      {"mux --help", 0, ""},
      {"mux -q " + q + " -o " + out, 0, ""},
      {"mux -q " + missing + " -o " + shellQuote(x), 1, "cannot read"},
      {"mux -q " + shellQuote(dir.path("junk.mkv")) + " -o " + shellQuote(x), 1, ""},
      {"mux -q " + q + " -o /nonexistent-dir/out.webm", 1, ""},
      {"mux -q " + q, 2, "--output is required (see kapsel mux --help)"},
      {mux + "--bogus", 2, "--bogus"},
      {"mux -q " + q + " -o -", 2, "-o - is not possible"},
      {mux + "--format avi", 2, "avi"},
      {mux + "--meta NoEquals", 2, "--meta takes NAME=VALUE"},
      {mux + "--chapter x=y", 2, "--chapter takes SECONDS=NAME"},
      {mux + "--progress=sometimes", 2, "sometimes"},
      {"mux -q - - -o " + shellQuote(x), 2, "standard input"},
      // Stream and track options that name what is not there, or are not of their form.
      {mux + "--map 0", 2, ""},
      {mux + "--map 1:0", 2, ""},
      {mux + "--map 0:2", 2, ""},
      {mux + "--map 0:0 --map 0:0", 2, ""},
      {mux + "--language 1:english", 2, ""},
      {mux + "--language 3:ger", 2, ""},
      {mux + "--default-track 1:2", 2, ""},
      {mux + "--track-name x:y", 2, ""},
      {mux + "--plugin --map 0:0", 2, ""},
      {"info --no-blocks " + out, 0, ""},
      {"info " + missing, 1, ""},
      {"info " + shellQuote(dir.path("junk.mkv")), 1, ""},
      {"info", 2, "see kapsel info --help"},
      {"info " + out + " --bogus", 2, "--bogus"},
      {"optimize " + out + " " + shellQuote(dir.path("small.mkv")), 0, ""},
      {"optimize " + missing + " " + shellQuote(dir.path("small2.mkv")), 1, ""},
      {"optimize " + out, 2, "see kapsel optimize --help"},
      {"edit " + out + " --title Holiday", 0, ""},
      {"edit " + missing + " --title Holiday", 1, ""},
      {"edit", 2, "see kapsel edit --help"},
      {"edit " + out + " --bogus", 2, "--bogus"},
      {"foo " + q, 2, "unknown command 'foo'"},
      {"", 2, "kapsel --help"},
  };
  for (const auto& c : cases) {
    const CommandResult r = kapsel(c.args);
    EXPECT_EQ(r.exitCode, c.status) << c.args << "\n" << r.err;
    if (c.status == 0) continue;
    EXPECT_EQ(lines(r.err).size(), 1u) << c.args << "\n" << r.err;
    EXPECT_EQ(lastLine(r.err).rfind("kapsel: ", 0), 0u) << c.args;
    EXPECT_NE(lastLine(r.err).find(c.says), std::string::npos) << c.args << "\n" << r.err;
    EXPECT_EQ(r.out, "") << c.args;
    EXPECT_FALSE(std::filesystem::exists(x)) << c.args;
  }
}

TEST(CommandLine, RepeatableOptionsTakeOneValueAndStandardInputIsAnInput) {
  TempDir dir;
  const std::string video = makeClip(dir, "video.webm", "-map 0:v -c:v libvpx");
  const std::string audio = makeClip(dir, "audio.ogg", "-map 1:a -c:a libvorbis");
  if (video.empty() || audio.empty()) GTEST_SKIP() << "ffmpeg cannot encode VP8/Vorbis here";
  // The audio input right after --meta and --chapter values stays an input; what the values do, KapselMux checks.
  const std::string both = dir.path("both.webm");
  CommandResult r = kapsel("mux -q " + shellQuote(video) + " --meta Title=Holiday " + shellQuote(audio) +
                           " --chapter 1=Beach -o " + shellQuote(both));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const CommandResult probe = runCommand("ffprobe -v error -show_entries stream=codec_name:format_tags=title "
                                         "-show_chapters -of json " + shellQuote(both));
  const auto j = nlohmann::json::parse(probe.out);
  ASSERT_EQ(j["streams"].size(), 2u) << probe.out;
  EXPECT_EQ(j["format"]["tags"]["title"], "Holiday");
  EXPECT_EQ(j["chapters"].size(), 1u) << probe.out;

  // "-" reads standard input: the same frames as from the file.
  const std::string piped = dir.path("piped.mkv"), direct = dir.path("direct.mkv");
  r = runCommand("cat " + shellQuote(both) + " | " + shellQuote(kProgram) + " mux -q - -o " + shellQuote(piped));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  ASSERT_EQ(kapsel("mux -q " + shellQuote(both) + " -o " + shellQuote(direct)).exitCode, 0);
  for (int s = 0; s < 2; ++s) {
    const auto want = frameMd5(direct, s);
    EXPECT_FALSE(want.empty());
    EXPECT_EQ(frameMd5(piped, s), want) << "stream " << s;
  }
}

TEST(CommandLine, ProgressFitsTheTerminalOrIsJsonAndModuleLinesNeedVerbose) {
  TempDir dir;
  const std::string in = makeClip(dir, "in.webm", "-c:v libvpx -b:v 300k -c:a libvorbis", 20);
  if (in.empty()) GTEST_SKIP() << "ffmpeg cannot encode VP8/Vorbis here";
  if (!haveTool("script")) GTEST_SKIP() << "no script(1) for a pseudo-terminal";

  // A 50-column terminal: every state of the line fits in 49 columns, and it is updated in place.
  const std::string inner = "stty cols 50; " + slowly(in) + shellQuote(kProgram) + " mux - -o " +
                            shellQuote(dir.path("tty.mkv"));
  CommandResult r = runCommand("script -qec " + shellQuote(inner) + " /dev/null");
  ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
  std::string screen = r.out;
  for (size_t at; (at = screen.find("\x1b[K")) != std::string::npos;) screen.erase(at, 3);
  int drawn = 0;
  for (const auto& line : lines(screen, "\r\n")) {
    if (line.rfind("kapsel: ", 0) == 0) continue;
    ++drawn;
    EXPECT_LE(line.size(), 49u) << line;
    EXPECT_EQ(line.rfind("mux", 0), 0u) << line;
  }
  EXPECT_GE(drawn, 3) << r.out;
  EXPECT_NE(screen.find("done"), std::string::npos) << r.out;
  // Other widths, from COLUMNS when standard error is no terminal: fields are given up, the line never wraps.
  for (const int width : {2, 9, 16, 24, 31, 40, 60, 80, 200}) {
    r = runCommand("COLUMNS=" + std::to_string(width) + " " + shellQuote(kProgram) + " mux --progress=line " +
                   shellQuote(in) + " -o " + shellQuote(dir.path("w.mkv")) + " 2>&1 >/dev/null | grep -v '^kapsel: '");
    std::string text = r.out;
    for (size_t at; (at = text.find("\x1b[K")) != std::string::npos;) text.erase(at, 3);
    const auto drawnLines = lines(text, "\r\n");
    ASSERT_FALSE(drawnLines.empty()) << width;
    for (const auto& line : drawnLines) EXPECT_LE(line.size(), static_cast<size_t>(width - 1)) << line;
    if (width >= 40) {
      EXPECT_NE(drawnLines.back().find("100.0%"), std::string::npos) << drawnLines.back();
    }
  }

  // JSON lines whatever standard error is; media time and bytes only grow; the last one says it is done.
  const std::string out = dir.path("json.mkv");
  r = runCommand(slowly(in) + shellQuote(kProgram) + " mux --progress=json - -o " +
                 shellQuote(out));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  std::vector<nlohmann::json> objects;
  for (const auto& line : lines(r.err))
    if (line.rfind("kapsel: ", 0) != 0) objects.push_back(nlohmann::json::parse(line));
  ASSERT_GE(objects.size(), 3u) << r.err;
  for (size_t i = 1; i < objects.size(); ++i) {
    EXPECT_GE(objects[i]["media_time"].get<double>(), objects[i - 1]["media_time"].get<double>());
    EXPECT_GE(objects[i]["bytes"].get<uint64_t>(), objects[i - 1]["bytes"].get<uint64_t>());
  }
  const auto& last = objects.back();
  EXPECT_EQ(last["command"], "mux");
  EXPECT_EQ(last["done"], true);
  EXPECT_EQ(last["percent"], 100.0);
  EXPECT_NEAR(last["media_time"].get<double>(), 20.0, 0.1);
  EXPECT_EQ(last["speed_unit"], "x");
  EXPECT_EQ(r.err.find("CLUSTER"), std::string::npos) << r.err;

  // Without a terminal and without --progress nothing is drawn; -v shows the module's two lines.
  r = kapsel("mux --plugin -v " + shellQuote(in) + " -o " + shellQuote(out));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  const auto errLines = lines(r.err);
  ASSERT_EQ(errLines.size(), 3u) << r.err;
  EXPECT_EQ(errLines[0].rfind("kapsel: formatter: EXPECTED CLUSTERS", 0), 0u) << r.err;
  EXPECT_EQ(errLines[1].rfind("kapsel: formatter: FINAL CLUSTER COUNT", 0), 0u) << r.err;
  EXPECT_EQ(errLines[2].rfind("kapsel: wrote ", 0), 0u) << r.err;
}
