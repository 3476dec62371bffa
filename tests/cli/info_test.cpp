// kapsel info over real files from three writers, checked against what mkvmerge and ffprobe read in them.

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>
#include <string>

#include "support/readers.h"

using namespace kapsel_test;
using nlohmann::json;

namespace {

const std::string kProgram = KAPSEL_CLI;

struct Line {
  int depth;
  uint64_t position;
  std::string text;
};

// "    Name [0x1234] @5678 size ..." lines of the text output.
std::vector<Line> elementLines(const std::string& out) {
  static const std::regex re(R"(^( *)\S.* \[0x[0-9A-F]+\] @(\d+) size \d+ \(header \d+, data \d+\).*)");
  std::vector<Line> lines;
  std::istringstream in(out);
  std::smatch m;
  for (std::string s; std::getline(in, s);)
    if (std::regex_match(s, m, re)) lines.push_back({static_cast<int>(m[1].length() / 2), std::stoull(m[2]), s});
  return lines;
}

// Frames named by the block lines: "track 1, 00:00:00.040 (relative 40), key, 1 frame".
uint64_t framesInBlockLines(const std::vector<Line>& lines, uint64_t& blockLines) {
  static const std::regex re(R"(Block \[0xA[13]\] .*, (\d+) frames?$)");
  uint64_t frames = 0;
  blockLines = 0;
  std::smatch m;
  for (const auto& l : lines)
    if (std::regex_search(l.text, m, re)) {
      ++blockLines;
      frames += std::stoull(m[1]);
    }
  return frames;
}

// Peak resident memory of one run of the program, in kilobytes; -1 when it failed to run.
long peakKilobytes(const std::vector<std::string>& args, int& status) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    std::vector<char*> argv{const_cast<char*>(kProgram.c_str())};
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(kProgram.c_str(), argv.data());
    _exit(127);
  }
  rusage ru{};
  if (pid < 0 || wait4(pid, &status, 0, &ru) != pid) return -1;
  status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return ru.ru_maxrss;
}

// A file of `clusters` clusters holding one block of `blockBytes` each, written sparsely: only headers take disk.
void writeLargeFile(const std::string& path, uint64_t clusters, uint64_t blockBytes) {
  auto vint8 = [](std::string& s, uint64_t v) {
    s += static_cast<char>(0x01);
    for (int i = 6; i >= 0; --i) s += static_cast<char>(v >> (8 * i) & 0xFF);
  };
  const std::string head("\x1A\x45\xDF\xA3\x87\x42\x82\x84webm", 12);
  std::string segment("\x18\x53\x80\x67\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 12);  // open-ended
  const std::string info("\x15\x49\xA9\x66\x87\x2A\xD7\xB1\x83\x0F\x42\x40", 12);
  const std::string tracks("\x16\x54\xAE\x6B\x8F\xAE\x8D\xD7\x81\x01\x83\x81\x01\x86\x85V_VP8", 20);
  std::FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_TRUE(f);
  std::string start = head + segment + info + tracks;
  std::fwrite(start.data(), 1, start.size(), f);
  for (uint64_t c = 0; c < clusters; ++c) {
    std::string block("\xA3", 1);
    vint8(block, blockBytes + 4);
    block += std::string("\x81\x00\x00\x80", 4);
    std::string cluster("\x1F\x43\xB6\x75", 4);
    std::string body("\xE7\x84", 2);
    for (int i = 3; i >= 0; --i) body += static_cast<char>((c * 40) >> (8 * i) & 0xFF);
    vint8(cluster, body.size() + block.size() + blockBytes);
    cluster += body + block;
    std::fwrite(cluster.data(), 1, cluster.size(), f);
    std::fseek(f, static_cast<long>(blockBytes), SEEK_CUR);
  }
  std::fputc(0, f);  // the last block's bytes
  std::fclose(f);
}

TEST(KapselInfo, WritersFilesReadAsTheIndependentReadersReadThem) {
  if (!haveTool("ffmpeg") || !haveTool("ffprobe") || !haveTool("mkvmerge")) GTEST_SKIP() << "needs ffmpeg, mkvmerge";
  TempDir dir;
  const std::string src = dir.path("src.mkv"), ours = dir.path("ours.mkv"), ff = dir.path("ff.mkv"),
                    mm = dir.path("mm.mkv"), cover = dir.path("cover.png"), chapters = dir.path("chapters.txt"),
                    tags = dir.path("tags.xml");
  ASSERT_EQ(runCommand("ffmpeg -v error -y -f lavfi -i testsrc=size=160x120:rate=25:duration=3 -f lavfi -i "
                       "sine=duration=3 -c:v libvpx -c:a libvorbis " + shellQuote(src)).exitCode, 0);
  ASSERT_EQ(kapsel("mux " + shellQuote(src) + " -o " + shellQuote(ours) + " -q --meta title=Ours --chapter 0=Intro "
                   "--chapter 1.5=Middle").exitCode, 0);
  // ffmpeg writes CRC-32 elements in its level-1 elements.
  ASSERT_EQ(runCommand("ffmpeg -v error -y -i " + shellQuote(src) + " -c copy -metadata title=FF -metadata:s:a:0 "
                       "language=fre " + shellQuote(ff)).exitCode, 0);
  writeFile(cover, {0x89, 'P', 'N', 'G', 13, 10, 26, 10, 0, 0, 0, 0});
  writeText(chapters, "CHAPTER01=00:00:00.000\nCHAPTER01NAME=One\nCHAPTER02=00:00:02.000\nCHAPTER02NAME=Two\n");
  writeText(tags, "<Tags><Tag><Targets><TargetTypeValue>50</TargetTypeValue></Targets><Simple><Name>ARTIST</Name>"
                  "<String>Someone</String></Simple></Tag></Tags>");
  ASSERT_EQ(runCommand("mkvmerge -q -o " + shellQuote(mm) + " --language 1:fre --track-name 1:Sine --forced-display-flag 1:1 "
                       "--default-track-flag 0:0 --chapters " + shellQuote(chapters) + " --global-tags " + shellQuote(tags) +
                       " --attachment-mime-type image/png --attach-file " + shellQuote(cover) + " " + shellQuote(src))
                .exitCode, 0) << "mkvmerge";

  for (const std::string& file : {ours, ff, mm}) {
    SCOPED_TRACE(file);
    // The summary agrees with mkvmerge's identification and ffprobe's packets.
    CommandResult r = kapsel("info --json " + shellQuote(file));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const json summary = json::parse(r.out);
    const json mk = json::parse(mkvmergeJson(file).out);
    EXPECT_EQ(summary["container"]["duration_ns"], mk["container"]["properties"]["duration"]);
    ASSERT_EQ(summary["tracks"].size(), mk["tracks"].size());
    const std::vector<ProbePacket> packets = ffprobePackets(file);
    // An image attachment is also a stream to ffprobe, with a packet of its own.
    const auto trackPackets = std::count_if(packets.begin(), packets.end(), [&](const ProbePacket& p) {
      return p.stream < static_cast<int>(mk["tracks"].size());
    });
    for (size_t i = 0; i < mk["tracks"].size(); ++i) {
      const json& ours_ = summary["tracks"][i];
      const json& theirs = mk["tracks"][i]["properties"];
      EXPECT_EQ(ours_["number"], theirs["number"]);
      EXPECT_EQ(ours_["uid"], theirs["uid"]);
      EXPECT_EQ(ours_["type"], mk["tracks"][i]["type"]);
      EXPECT_EQ(ours_["codec_id"], theirs["codec_id"]);
      EXPECT_EQ(ours_["language"], theirs.value("language_ietf", theirs["language"].get<std::string>()));
      EXPECT_EQ(ours_["default"], theirs["default_track"]);
      EXPECT_EQ(ours_["forced"], theirs["forced_track"]);
      EXPECT_EQ(ours_["enabled"], theirs["enabled_track"]);
      if (theirs.contains("track_name")) {
        EXPECT_EQ(ours_["name"], theirs["track_name"]);
      }
      if (theirs.contains("pixel_dimensions")) {
        EXPECT_EQ(theirs["pixel_dimensions"].get<std::string>(),
                  std::to_string(ours_["pixel_width"].get<int>()) + "x" + std::to_string(ours_["pixel_height"].get<int>()));
      }
      if (theirs.contains("audio_channels")) {
        EXPECT_EQ(ours_["channels"], theirs["audio_channels"]);
        EXPECT_EQ(ours_["sampling_rate"].get<double>(), theirs["audio_sampling_frequency"].get<double>());
      }
      const auto count = std::count_if(packets.begin(), packets.end(), [&](const ProbePacket& p) { return p.stream == static_cast<int>(i); });
      EXPECT_EQ(ours_["packets"], count);
    }
    size_t atoms = 0;
    for (const auto& e : summary["chapters"]) atoms += e["chapters"].size();
    size_t theirAtoms = 0;
    for (const auto& e : mk["chapters"]) theirAtoms += e["num_entries"].get<size_t>();
    EXPECT_EQ(atoms, theirAtoms);
    ASSERT_EQ(summary["attachments"].size(), mk["attachments"].size());
    for (size_t i = 0; i < mk["attachments"].size(); ++i) {
      EXPECT_EQ(summary["attachments"][i]["name"], mk["attachments"][i]["file_name"]);
      EXPECT_EQ(summary["attachments"][i]["mime_type"], mk["attachments"][i]["content_type"]);
      EXPECT_EQ(summary["attachments"][i]["size"], mk["attachments"][i]["size"]);
      EXPECT_EQ(summary["attachments"][i]["uid"], mk["attachments"][i]["properties"]["uid"]);
    }
    EXPECT_TRUE(summary["damage"].empty());

    // Elements in file order, each once, with or without blocks and through the seek head.
    for (const std::string options : {"", "--blocks", "--seek-head"}) {
      SCOPED_TRACE(options);
      r = kapsel("info " + std::string(options) + " " + shellQuote(file));
      ASSERT_EQ(r.exitCode, 0) << r.err;
      const std::vector<Line> lines = elementLines(r.out);
      ASSERT_GT(lines.size(), 20u);
      for (size_t i = 1; i < lines.size(); ++i) ASSERT_LT(lines[i - 1].position, lines[i].position) << lines[i].text;
      uint64_t blockLines = 0;
      const uint64_t frames = framesInBlockLines(lines, blockLines);
      if (std::string(options) == "--blocks") {
        EXPECT_EQ(frames, static_cast<uint64_t>(trackPackets));
      } else {
        EXPECT_EQ(blockLines, 0u);
      }
    }
    if (file == ff) {
      EXPECT_NE(r.out.find("CRC-32 [0xBF]"), std::string::npos);
      EXPECT_NE(r.out.find(": ok (little-endian)"), std::string::npos);
    }
  }
  const json mmSummary = json::parse(kapsel("info --json " + shellQuote(mm)).out);
  EXPECT_EQ(mmSummary["chapters"][0]["chapters"][1]["start_ns"], 2000000000);
  EXPECT_EQ(mmSummary["chapters"][0]["chapters"][1]["names"][0]["name"], "Two");
  EXPECT_EQ(mmSummary["tags"][0]["tags"][0]["name"], "ARTIST");
  EXPECT_EQ(mmSummary["tags"][0]["tags"][0]["value"], "Someone");
  EXPECT_EQ(mmSummary["tracks"][1]["language"], "fr");
  const json ffSummary = json::parse(kapsel("info --json " + shellQuote(ff)).out);
  EXPECT_EQ(ffSummary["container"]["title"], "FF");
  EXPECT_EQ(ffSummary["tracks"][1]["language"], "fre");

  // A Void turned into an element no table knows is shown in its place, by ID; a changed byte fails a CRC-32.
  const json tree = json::parse(kapsel("info --json --tree --depth 1 " + shellQuote(ff)).out);
  std::vector<unsigned char> bytes = readFile(ff);
  uint64_t voidAt = 0, voidSize = 0, infoAt = 0;
  for (const auto& e : tree["elements"][1]["children"]) {
    if (e["name"] == "Void" && !voidAt) {
      voidAt = e["position"];
      voidSize = e["size"];
    }
    if (e["name"] == "SegInfo") infoAt = e["position"];
  }
  ASSERT_TRUE(voidSize >= 4 && voidSize < 0x3FFF && infoAt);
  bytes[voidAt] = 0x7A;
  bytes[voidAt + 1] = 0xBC;
  bytes[voidAt + 2] = static_cast<unsigned char>(0x40 | (voidSize - 4) >> 8);
  bytes[voidAt + 3] = static_cast<unsigned char>((voidSize - 4) & 0xFF);
  bytes[infoAt + 20] ^= 0x01;  // inside SegInfo, past its CRC-32
  const std::string changed = dir.path("changed.mkv");
  writeFile(changed, bytes);
  const std::string text = kapsel("info --depth 2 " + shellQuote(changed)).out;
  EXPECT_NE(text.find("\n  Unknown [0x7ABC] @" + std::to_string(voidAt) + " size " + std::to_string(voidSize) +
                      " (header 4, data " + std::to_string(voidSize - 4) + ")\n"), std::string::npos) << text;
  EXPECT_NE(text.find(": mismatch\n"), std::string::npos);

  // A cut file: what could be read is printed, then one line naming the damage, and status 3.
  const std::vector<unsigned char> whole = readFile(ours);
  const std::string cut = dir.path("cut.mkv");
  writeFile(cut, std::vector<unsigned char>(whole.begin(), whole.begin() + static_cast<long>(whole.size() / 2)));
  CommandResult r = kapsel("info " + shellQuote(cut));
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_FALSE(elementLines(r.out).empty());
  EXPECT_EQ(r.err, "kapsel: " + cut + " is damaged: bytes " + std::to_string(whole.size() / 2) + "-" +
                       std::to_string(whole.size()) + " (past the end of the file at " +
                       std::to_string(whole.size() / 2) + ") could not be read\n");
  r = kapsel("info --json " + shellQuote(cut));
  EXPECT_EQ(r.exitCode, 3);
  EXPECT_EQ(json::parse(r.out)["damage"][0]["begin"], whole.size() / 2);
}

TEST(KapselInfo, LargeFileInLittleMemory) {
  TempDir dir;
  const std::string big = dir.path("big.webm"), small = dir.path("small.webm");
  // 5 GB in 5000 clusters (sparse: a few megabytes on disk).
  writeLargeFile(big, 5000, 1000000);
  writeLargeFile(small, 5, 1000000);
  int status = -1;
  const long smallKb = peakKilobytes({"info", small}, status);
  ASSERT_EQ(status, 0);
  const long bigKb = peakKilobytes({"info", big}, status);
  ASSERT_EQ(status, 0);
  std::printf("[ info ] peak memory: %ld kB for 5 GB, %ld kB for 5 MB\n", bigKb, smallKb);
#if defined(__SANITIZE_ADDRESS__)
  // Red zones and the quarantine make every allocation larger.
  EXPECT_LT(bigKb - smallKb, 48 * 1024);
#else
  EXPECT_LT(bigKb - smallKb, 16 * 1024);
  EXPECT_LT(bigKb, 64 * 1024);
#endif
  const CommandResult r = kapsel("info --json " + shellQuote(big));
  ASSERT_EQ(r.exitCode, 0) << r.err;
  EXPECT_EQ(json::parse(r.out)["tracks"][0]["packets"], 5000);
}

}  // namespace
