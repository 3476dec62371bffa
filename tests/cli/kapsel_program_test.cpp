// End-to-end: the kapsel program muxes real clips through the plug-in; independent readers compare.

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>

#include "support/readers.h"

using namespace kapsel_test;

namespace {

const std::string kProgram = KAPSEL_CLI;

// Same frames byte for byte, in the same order, for every stream of the input.
void expectSameFrames(const std::string& in, const std::string& out, int streams) {
  for (int s = 0; s < streams; ++s) {
    const auto a = frameMd5(in, s);
    ASSERT_FALSE(a.empty()) << "stream " << s;
    EXPECT_EQ(frameMd5(out, s), a) << "stream " << s << " of " << out;
  }
}

// Files in the directory that look like a left-over temporary output.
std::string leftovers(const TempDir& dir) { return runCommand("ls -A " + shellQuote(dir.path()) + " | grep kapsel-").out; }

}  // namespace

TEST(KapselMux, ChaptersAndMetadataReachTheFile) {
  TempDir dir;
  writeText(dir.path("meta.txt"), ";FFMETADATA1\ntitle=Clip title\nartist=Someone\n[CHAPTER]\nTIMEBASE=1/1000\n"
                                  "START=500\nEND=1500\ntitle=Middle\n");
  const std::string in = makeClip(dir, "in.mkv", "-map 0:v -map 1:a -map_metadata 2 -map_chapters 2 -c:v libvpx -c:a libvorbis",
                                  2.0, "-i " + shellQuote(dir.path("meta.txt")));
  if (in.empty()) GTEST_SKIP() << "ffmpeg cannot encode VP8/Vorbis here";
  const std::string out = dir.path("out.mkv");
  CommandResult r = kapsel("mux -q " + shellQuote(in) + " -o " + shellQuote(out) +
                           " --meta Genre=Test --meta title='Given title' --chapter 1.25=Extra");
  ASSERT_EQ(r.exitCode, 0) << r.err;
  CommandResult probe = runCommand("ffprobe -v error -show_chapters -show_format -of json " + shellQuote(out));
  nlohmann::json j = nlohmann::json::parse(probe.out, nullptr, false);
  ASSERT_FALSE(j.is_discarded());
  const auto& chapters = j["chapters"];
  ASSERT_EQ(chapters.size(), 2u);
  EXPECT_EQ(chapters[0]["tags"]["title"], "Middle");
  EXPECT_EQ(chapters[0]["start_time"], "0.500000");
  EXPECT_EQ(chapters[0]["end_time"], "1.500000");
  EXPECT_EQ(chapters[1]["tags"]["title"], "Extra");
  const auto& tags = j["format"]["tags"];
  EXPECT_EQ(tags["title"], "Given title") << "--meta replaces the input's title";
  EXPECT_EQ(tags["ARTIST"], "Someone");
  EXPECT_EQ(tags["GENRE"], "Test");
  // The container title is SegmentInfo's Title, from the input's title when --meta gives none.
  for (const char* meta : {"--meta title='Given title'", ""}) {
    ASSERT_EQ(kapsel("mux -q " + shellQuote(in) + " -o " + shellQuote(out) + " " + meta).exitCode, 0);
    nlohmann::json m = nlohmann::json::parse(mkvmergeJson(out).out, nullptr, false);
    EXPECT_EQ(m["container"]["properties"]["title"], *meta ? "Given title" : "Clip title");
  }
}

TEST(KapselMux, StreamsLeftOutAreNamedUnlessQuiet) {
  TempDir dir;
  writeText(dir.path("s.srt"), "1\n00:00:00,000 --> 00:00:00,500\nHi\n");
  writeText(dir.path("f.ttf"), "font");
  const std::string in = makeClip(dir, "many.mkv",
                                  "-map 0:v -map 1:a -map 1:a -map 2:s -c:v mpeg4 -c:a:0 aac -c:a:1 libmp3lame "
                                  "-metadata:s:a:1 language=fre -c:s srt -attach " + shellQuote(dir.path("f.ttf")) +
                                  " -metadata:s:t mimetype=application/x-truetype-font", 1.0,
                                  "-i " + shellQuote(dir.path("s.srt")));
  if (in.empty()) GTEST_SKIP() << "ffmpeg cannot make the input here";
  // The writer keeps the subtitles and the font; the plug-in takes one video and one audio stream.
  const std::string mp3 = "kapsel: leaving out stream 0:2 (audio, mp3, fre)\n";
  for (const auto& [options, expected] : std::vector<std::pair<std::string, std::string>>{
           {"", mp3},
           {"-q ", ""},
           {"--plugin ", mp3 + "kapsel: leaving out stream 0:3 (subtitle, subrip, und)\n"
                               "kapsel: leaving out stream 0:4 (attachment, ttf, und)\n"}}) {
    CommandResult r = kapsel("mux " + options + "--audio-stream 1 " + shellQuote(in) + " -o " +
                             shellQuote(dir.path("out.mkv")));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    std::string lines;
    std::istringstream err(r.err);
    for (std::string line; std::getline(err, line);)
      if (line.find("leaving out") != std::string::npos) lines += line + "\n";
    EXPECT_EQ(lines, expected) << options;
  }
}

TEST(KapselOutput, FailuresLeaveTheTargetAsItWasAndNoTemporaryFile) {
  TempDir dir;
  const std::string in = makeClip(dir, "in.webm", "-c:v libvpx -c:a libvorbis");
  if (in.empty()) GTEST_SKIP() << "ffmpeg cannot encode VP8/Vorbis here";
  const std::string target = dir.path("target.mkv"), k = shellQuote(kProgram) + " ";
  const std::string unwritable = geteuid() == 0 ? "/proc/kapsel-target.mkv" : dir.path("ro/target.mkv");
  runCommand("mkdir " + shellQuote(dir.path("ro")) + " && chmod 555 " + shellQuote(dir.path("ro")));
  const std::string q = shellQuote(in), t = shellQuote(target);
  struct Case {
    std::string command, target, message;
  } cases[] = {
      {k + "mux -q " + q + " -o " + q, in, "is the input"},
      {"cd " + shellQuote(dir.path()) + " && " + k + "mux -q in.webm -o ./in.webm", in, "is the input"},
      {k + "mux -q " + t + " " + q + " -o " + q, in, "is the input"},
      {"cd " + shellQuote(dir.path()) + " && " + k + "optimize in.webm ./in.webm", in, "is the input"},
      {k + "mux -q " + q + " -o /dev/full", "/dev/full", "not a regular file"},
      {k + "mux -q " + q + " -o " + shellQuote(unwritable), unwritable, "cannot write"},
      // A file-size limit stands in for a full disk.
      {"ulimit -f 40 && " + k + "mux -q " + q + " -o " + t, target, "failed (disk full?)"},
      {"ulimit -f 40 && " + k + "optimize " + q + " " + t, target, "failed (disk full?)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.command);
    writeFile(target, {'o', 'l', 'd'});
    // Only regular files are compared: reading /dev/full never ends.
    const bool regular = std::filesystem::is_regular_file(c.target);
    const auto before = regular ? readFile(c.target) : std::vector<unsigned char>{};
    CommandResult r = runCommand(c.command);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(lastLine(r.err).rfind("kapsel: ", 0), 0u) << r.err;
    EXPECT_NE(lastLine(r.err).find(c.message), std::string::npos) << r.err;
    if (regular) {
      EXPECT_EQ(readFile(c.target), before);
    }
    EXPECT_EQ(leftovers(dir), "");
  }
}

TEST(KapselOutput, SignalsFinishTheFileWithWhatWasMuxed) {
  TempDir dir;
  if (runCommand("ffmpeg -v error -f lavfi -i testsrc=duration=0.1 -c:v mpeg4 -f null -").exitCode)
    GTEST_SKIP() << "ffmpeg cannot encode MPEG-4 here";
  for (const auto& [signal, status] : {std::pair<const char*, int>{"INT", 130}, {"TERM", 143}}) {
    SCOPED_TRACE(signal);
    const std::string out = dir.path("out.mkv");
    // Ten minutes of input produced in real time: the program is still muxing when the signal comes.
    const std::string script =
        "ffmpeg -v error -re -f lavfi -i testsrc=size=64x64:rate=25:duration=600 -f lavfi -i sine=duration=600 "
        "-c:v mpeg4 -c:a aac -f matroska pipe:1 2>/dev/null | " + shellQuote(kProgram) + " mux -q pipe:0 -o " +
        shellQuote(out) + " & pid=$!\n"
        "for i in $(seq 100); do ls -A " + shellQuote(dir.path()) + " | grep -q kapsel- && break; sleep 0.1; done\n"
        "sleep 2; kill -" + signal + " $pid; wait $pid; echo $?\n";
    CommandResult r = runCommand(script);
    EXPECT_EQ(std::atoi(r.out.c_str()), status) << r.err;
    EXPECT_EQ(leftovers(dir), "");
    const size_t at = r.err.find("holds the first ");
    ASSERT_NE(at, std::string::npos) << r.err;
    const double held = std::atof(r.err.c_str() + at + 16);
    // Duration and index are true to what was written.
    CommandResult probe = runCommand("ffprobe -v error -show_entries format=duration:packet=pts_time,duration_time "
                                     "-of json " + shellQuote(out));
    nlohmann::json j = nlohmann::json::parse(probe.out, nullptr, false);
    ASSERT_FALSE(j.is_discarded()) << probe.err;
    EXPECT_EQ(probe.err, "");
    double end = 0;
    for (const auto& p : j["packets"])
      end = std::max(end, std::stod(p.value("pts_time", "0")) + std::stod(p.value("duration_time", "0")));
    const double duration = std::stod(j["format"].value("duration", "0"));
    EXPECT_GT(end, 1.0);
    EXPECT_NEAR(duration, end, 0.002);
    EXPECT_NEAR(held, end, 0.06);
    EXPECT_NE(mkvinfo(out).out.find("+ Cues"), std::string::npos);
    EXPECT_EQ(runCommand("ffmpeg -v error -ss " + std::to_string(end / 2) + " -i " + shellQuote(out) +
                         " -frames:v 1 -f null -").exitCode, 0);
  }
}

TEST(KapselOptimize, LosslessOrRefusedWhenDamaged) {
  TempDir dir;
  const std::string in = makeClip(dir, "in.mkv", "-c:v libvpx -c:a libvorbis");
  if (in.empty()) GTEST_SKIP() << "ffmpeg cannot encode VP8/Vorbis here";
  nlohmann::json tree = nlohmann::json::parse(kapsel("info --json --tree --depth 1 " + shellQuote(in)).out, nullptr, false);
  ASSERT_FALSE(tree.is_discarded());
  std::map<std::string, std::pair<uint64_t, uint64_t>> at;  // first element of each name: position, size
  for (const auto& e : tree["elements"][1]["children"])
    at.emplace(e["name"].get<std::string>(), std::make_pair(e["position"].get<uint64_t>(), e["size"].get<uint64_t>()));
  ASSERT_TRUE(at.count("Void") && at.count("Tags") && at.count("Cluster"));
  ASSERT_LT(at["Tags"].first, at["Cluster"].first);
  const auto original = readFile(in);
  // The Void becomes an element no table knows (ID 0x7ABC), of the same length.
  const auto [voidAt, voidSize] = at["Void"];
  ASSERT_TRUE(voidSize >= 4 && voidSize <= 129);
  std::vector<unsigned char> unknown{0x7A, 0xBC, static_cast<unsigned char>(0x80 | (voidSize - 3))};
  for (uint64_t i = 3; i < voidSize; ++i) unknown.push_back(static_cast<unsigned char>('a' + i % 26));
  auto withUnknown = original;
  std::copy(unknown.begin(), unknown.end(), withUnknown.begin() + static_cast<long>(voidAt));
  // Tags overwritten with 0xFF: unreadable up to the Cluster after them.
  auto badTags = original;
  std::fill_n(badTags.begin() + static_cast<long>(at["Tags"].first), at["Tags"].second, 0xFF);
  const std::string tagsDamage =
      "bytes " + std::to_string(at["Tags"].first) + "-" + std::to_string(at["Cluster"].first);
  const std::vector<unsigned char> cut(original.begin(), original.begin() + static_cast<long>(original.size() * 2 / 3));
  const std::string cutDamage = "(past the end of the file at " + std::to_string(cut.size()) + ")";
  struct Case {
    const char* name;
    const std::vector<unsigned char>& bytes;
    const char* options;
    int status;
    std::string said;  // in the last line of standard error on failure, on standard output otherwise
  } cases[] = {
      {"unknown", withUnknown, "", 0, "bytes"},
      {"tags", badTags, "", 1, tagsDamage + " could not be read; --force"},
      {"tags", badTags, "--force", 0, "dropped the damaged " + tagsDamage},
      {"cut", cut, "", 1, cutDamage},
      {"cut", cut, "--force", 0, cutDamage},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.name) + " " + c.options);
    const std::string src = dir.path(std::string(c.name) + ".mkv"), out = dir.path("out.mkv");
    writeFile(src, c.bytes);
    std::remove(out.c_str());
    CommandResult r = kapsel(std::string("optimize ") + c.options + " " + shellQuote(src) + " " + shellQuote(out));
    EXPECT_EQ(r.exitCode, c.status) << r.err;
    EXPECT_NE((c.status ? r.err : r.out).find(c.said), std::string::npos) << r.out << r.err;
    EXPECT_EQ(leftovers(dir), "");
    if (c.status) {
      EXPECT_FALSE(std::filesystem::exists(out));
      continue;
    }
    EXPECT_EQ(mkvmergeJson(out).exitCode, 0);
    if (c.bytes.size() == original.size()) expectSameFrames(in, out, 2);
    if (&c.bytes == &withUnknown) {
      const auto o = readFile(out);
      EXPECT_NE(std::search(o.begin(), o.end(), unknown.begin(), unknown.end()), o.end()) << "unknown element kept";
    }
  }
}

TEST(KapselInstall, ConsumerAndExamplesBuildAgainstTheInstalledTreeUnderAnyPrefix) {
  TempDir dir;
  // The tree may have been built with sanitizers: what is built against it links with the same ones.
  CommandResult cache = runCommand("grep -c 'KAPSEL_SANITIZE:BOOL=ON' " + shellQuote(std::string(KAPSEL_BINARY_DIR) + "/CMakeCache.txt"));
  const std::string flags = cache.out.rfind("1", 0) == 0 ? "-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined" : "";
  auto make = [&](const std::string& source, const std::string& build, const std::string& prefix) {
    CommandResult conf = runCommand("cmake -S " + shellQuote(source) + " -B " + shellQuote(build) + " " + flags +
                                    " -DCMAKE_PREFIX_PATH=" + shellQuote(prefix));
    CommandResult made = runCommand("cmake --build " + shellQuote(build) + " -j2");
    EXPECT_EQ(made.exitCode, 0) << conf.out << conf.err << made.out << made.err;
    return made.exitCode == 0;
  };
  const std::string src = dir.path("consumer");
  runCommand("mkdir -p " + shellQuote(src));
  // The consumer links the library, and loads the module the package names and calls its entry points.
  writeText(src + "/CMakeLists.txt",
            "cmake_minimum_required(VERSION 3.25)\nproject(consumer CXX)\nfind_package(Kapsel REQUIRED)\n"
            "add_executable(consumer main.cpp)\ntarget_link_libraries(consumer Kapsel::kapsel ${CMAKE_DL_LIBS})\n"
            "target_compile_definitions(consumer PRIVATE MODULE=\"$<TARGET_FILE:Kapsel::formatter>\")\n"
            "file(WRITE ${CMAKE_BINARY_DIR}/module-path.txt \"${Kapsel_FORMATTER_MODULE}\")\n");
  writeText(src + "/main.cpp",
            "#include \"kapsel/kapsel.h\"\n#include \"formatter/kapsel_formatter_results.h\"\n#include <dlfcn.h>\n"
            "int main() { unsigned char b[8];\n"
            "  if (Kapsel::vsizeEncode(127, b) != 2 || b[0] != 0x40) return 1;\n"
            "  void* m = dlopen(MODULE, RTLD_NOW | RTLD_LOCAL);\n"
            "  if (!m || !dlsym(m, \"BXGetNumberFormatters\") || !dlsym(m, \"BXGetFormatterInfo\")) return 2;\n"
            "  return dlsym(m, \"CreateFormatter\") && kapsel_formatter::kResultOk == 0 ? 0 : 3; }\n");
  for (const std::string name : {"one", "two"}) {
    SCOPED_TRACE(name);
    const std::string prefix = dir.path(name), build = dir.path("build-" + name);
    CommandResult inst = runCommand("cmake --install " + shellQuote(KAPSEL_BINARY_DIR) + " --prefix " + shellQuote(prefix));
    ASSERT_EQ(inst.exitCode, 0) << inst.err;
    ASSERT_TRUE(make(src, build, prefix));
    EXPECT_EQ(runCommand(shellQuote(build + "/consumer")).exitCode, 0);
    const auto modulePath = readFile(build + "/module-path.txt");
    EXPECT_EQ(runCommand("realpath " + shellQuote(std::string(modulePath.begin(), modulePath.end()))).out,
              prefix + "/lib/kapsel/kapsel_formatter.so\n");
    // pkg-config answers with this prefix, not the one the tree was configured with.
    CommandResult pc = runCommand("PKG_CONFIG_PATH=" + shellQuote(prefix + "/lib/pkgconfig") +
                                  " pkg-config --cflags --libs kapsel");
    EXPECT_EQ(pc.exitCode, 0);
    std::istringstream words(pc.out);
    for (std::string w; words >> w;) {
      if (w.rfind("-I", 0) == 0) {
        EXPECT_EQ(runCommand("realpath " + shellQuote(w.substr(2))).out, prefix + "/include\n");
      }
      if (w.rfind("-L", 0) == 0) {
        EXPECT_EQ(runCommand("realpath " + shellQuote(w.substr(2))).out, prefix + "/lib\n");
      }
    }
    EXPECT_NE(pc.out.find("-lkapsel"), std::string::npos);
    // Program, module, man page (renders without warnings) and bash completion.
    EXPECT_EQ(runCommand("test -x " + shellQuote(prefix + "/bin/kapsel") + " && test -f " +
                         shellQuote(prefix + "/lib/kapsel/kapsel_formatter.so") + " && test -f " +
                         shellQuote(prefix + "/share/bash-completion/completions/kapsel")).exitCode, 0);
    CommandResult man = runCommand("groff -man -ww -z " + shellQuote(prefix + "/share/man/man1/kapsel.1"));
    EXPECT_EQ(man.exitCode, 0);
    EXPECT_EQ(man.err, "");
    CommandResult complete = runCommand("bash -c " + shellQuote("source " + prefix + "/share/bash-completion/completions/kapsel; "
                                        "COMP_WORDS=(kapsel mux --pro); COMP_CWORD=2; _kapsel; echo ${COMPREPLY[@]}"));
    EXPECT_NE(complete.out.find("--progress=json"), std::string::npos) << complete.out << complete.err;
    if (name == "two") continue;
    // The example programs, as an application would build them: a file written, listed, retitled in place.
    const std::string examples = dir.path("build-examples"), file = dir.path("written.mkv");
    ASSERT_TRUE(make(std::string(KAPSEL_SOURCE_DIR) + "/examples", examples, prefix));
    CommandResult w = runCommand(shellQuote(examples + "/write_file") + " " + shellQuote(file));
    ASSERT_EQ(w.exitCode, 0) << w.err;
    EXPECT_EQ(w.out, "350 frames in 10 clusters, 10.000 s, index at the front\n");
    CommandResult list = runCommand(shellQuote(examples + "/list_tracks") + " " + shellQuote(file));
    EXPECT_EQ(list.out, "duration 10.000 s\ntrack 1: video V_MS/VFW/FOURCC language eng\n"
                        "track 2: audio A_PCM/INT/LIT language eng\n") << list.err;
    const auto before = frameMd5(file, 1);
    CommandResult title = runCommand(shellQuote(examples + "/set_title") + " " + shellQuote(file) + " 'A new title'");
    EXPECT_EQ(title.exitCode, 0) << title.err;
    CommandResult j = mkvmergeJson(file);
    EXPECT_EQ(j.exitCode, 0) << j.out;
    EXPECT_NE(j.out.find("\"title\": \"A new title\""), std::string::npos);
    EXPECT_NE(j.out.find("\"num_entries\": 2"), std::string::npos) << "two chapters";
    EXPECT_EQ(frameMd5(file, 1), before);
    EXPECT_EQ(before.size(), 100u);
  }
}
