// kapsel repair on files cut off at chosen places (ours, ffmpeg's, WebM) and on a kapsel mux killed with SIGKILL:
// every whole block stays byte for byte, independent readers get the true duration and can seek, twice changes nothing.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/readers.h"

using namespace kapsel_test;

namespace {

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty() && line[0] != '#') out.push_back(line);
  return out;
}

// Every packet: stream, times, size and the md5 of its bytes.
std::vector<std::string> packetHashes(const std::string& file) {
  return lines(runCommand("ffmpeg -v error -i " + shellQuote(file) + " -map 0 -c copy -f framemd5 -").out);
}

// How many packets of a file lie wholly before byte `cut`.
size_t packetsBefore(const std::string& file, uint64_t cut) {
  size_t n = 0;
  for (const auto& l : lines(runCommand("ffprobe -v error -show_entries packet=pos,size -of csv=p=0 " + shellQuote(file)).out)) {
    const size_t comma = l.find(',');
    if (comma != std::string::npos && std::stoull(l.substr(comma + 1)) + std::stoull(l.substr(0, comma)) <= cut) ++n;
  }
  return n;
}

double formatDuration(const std::string& file) {
  return std::atof(runCommand("ffprobe -v error -show_entries format=duration -of csv=p=0 " + shellQuote(file)).out.c_str());
}

// The end of the latest packet, as ffprobe times them.
double lastPacketEnd(const std::string& file) {
  double end = 0;
  for (const auto& l : lines(runCommand("ffprobe -v error -show_entries packet=pts_time,duration_time -of csv=p=0 " +
                                        shellQuote(file)).out))
    end = std::max(end, std::atof(l.c_str()) + std::atof(l.substr(l.find(',') + 1).c_str()));
  return end;
}

std::vector<uint64_t> clusterStarts(const std::vector<unsigned char>& bytes) {
  const unsigned char id[] = {0x1F, 0x43, 0xB6, 0x75};
  std::vector<uint64_t> out;
  for (auto it = bytes.begin(); (it = std::search(it, bytes.end(), id, id + 4)) != bytes.end(); ++it)
    out.push_back(static_cast<uint64_t>(it - bytes.begin()));
  return out;
}

void cutCopy(const std::string& from, const std::string& to, uint64_t size) {
  std::vector<unsigned char> bytes = readFile(from);
  bytes.resize(std::min<uint64_t>(size, bytes.size()));
  writeFile(to, bytes);
}

// A kapsel mux of `input` fed through a pipe that stalls, killed with SIGKILL once `bytes` are on disk; the
// temporary file it leaves beside its target.
std::string killedMux(const TempDir& dir, const std::string& input, uint64_t bytes) {
  const std::string script =
      "cd " + shellQuote(dir.path()) + " || exit 1; { head -c 700000 " + shellQuote(input) + "; sleep 4; } | " +
      shellQuote(KAPSEL_CLI) + " mux -q - -o killed.mkv >/dev/null 2>&1 & pid=$!; i=0; "
      "while [ $i -lt 600 ] && [ \"$(cat .killed.mkv.kapsel-* 2>/dev/null | wc -c)\" -lt " + std::to_string(bytes) +
      " ]; do sleep 0.1; i=$((i+1)); done; kill -9 $pid; wait";
  runCommand(script);
  for (const auto& entry : std::filesystem::directory_iterator(dir.path()))
    if (entry.path().filename().string().rfind(".killed.mkv.kapsel-", 0) == 0) return entry.path().string();
  return "";
}

}  // namespace

TEST(KapselRepair, CutFilesKeepEveryWholeBlockAndReadersSeek) {
  if (!haveTool("ffmpeg") || !haveTool("mkvmerge") || !haveTool("webm_info")) GTEST_SKIP() << "needs ffmpeg, mkvmerge, webm_info";
  TempDir dir;
  const std::string ff = dir.path("ffmpeg.mkv"), ours = dir.path("ours.mkv"), webm = dir.path("ffmpeg.webm");
  const std::string lavfi = "-f lavfi -i testsrc2=size=320x240:rate=25:duration=20 -f lavfi -i sine=duration=20 -g 50 ";
  ASSERT_EQ(runCommand("ffmpeg -v error -y " + lavfi + "-c:v libx264 -c:a aac " + shellQuote(ff)).exitCode, 0);
  ASSERT_EQ(runCommand("ffmpeg -v error -y " + lavfi + "-c:v libvpx -b:v 300k -c:a libvorbis " + shellQuote(webm)).exitCode, 0);
  ASSERT_EQ(kapsel("mux -q " + shellQuote(ff) + " -o " + shellQuote(ours)).exitCode, 0);
  const std::string killed = killedMux(dir, ff, 400000);
  // ffmpeg's file with its SeekHead and the Void after it turned into an unknown element and a 24-byte Void: the
  // front has room only for a SeekHead that names a second one at the end.
  const std::string noRoom = dir.path("no-room.mkv");
  {
    std::vector<unsigned char> b = readFile(ff);
    const unsigned char seekHead[] = {0x11, 0x4D, 0x9B, 0x74};
    const size_t at = static_cast<size_t>(std::search(b.begin(), b.end(), seekHead, seekHead + 4) - b.begin());
    ASSERT_LT(at, 100u);
    ASSERT_EQ(b[at + 4] & 0x80, 0x80);
    const size_t v = at + 5 + (b[at + 4] & 0x7F);
    ASSERT_EQ(b[v], 0xEC);
    unsigned w = 1;
    while (!(b[v + 1] & (0x80 >> (w - 1)))) ++w;
    uint64_t voidSize = b[v + 1] & (0xFF >> w);
    for (unsigned i = 1; i < w; ++i) voidSize = voidSize << 8 | b[v + 1 + i];
    const size_t room = v + 1 + w + voidSize - at;
    std::vector<unsigned char> front = {0x7A, 0xBC, 0x01, 0, 0, 0, 0, 0, 0, static_cast<unsigned char>(room - 24 - 10)};
    front.resize(room - 24);
    front.insert(front.end(), {0xEC, 0x80 | 22});
    front.resize(room);
    std::copy(front.begin(), front.end(), b.begin() + at);
    writeFile(noRoom, b);
  }
  ASSERT_FALSE(killed.empty()) << "the killed mux left no temporary file";

  // The killed file with every cluster open, as live recorders write them.
  const std::string allOpen = dir.path("all-open.mkv");
  {
    std::vector<unsigned char> b = readFile(killed);
    for (uint64_t at : clusterStarts(b))
      if (b[at + 4] == 0x01) std::fill(b.begin() + at + 5, b.begin() + at + 12, 0xFF);
    writeFile(allOpen, b);
  }

  enum Where { MidBlock, AfterClusterHeader, BeforeCluster, AtSixtyPercent, InFirstCluster, AsItIs };
  struct Case {
    std::string name, source;
    Where where;
  } cases[] = {
      {"ours mid-block", ours, MidBlock},
      {"ours after a cluster header", ours, AfterClusterHeader},
      {"ours at 60 %", ours, AtSixtyPercent},
      {"ffmpeg mid-block (CRC-32s)", ff, MidBlock},
      {"ffmpeg in a cluster's last block", ff, BeforeCluster},
      {"ffmpeg with no room before the clusters", noRoom, AtSixtyPercent},
      {"WebM at 60 %", webm, AtSixtyPercent},
      {"kapsel mux killed", killed, AsItIs},
      {"open clusters, cut in the first", allOpen, InFirstCluster},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const std::vector<unsigned char> original = readFile(c.source);
    const std::vector<uint64_t> clusters = clusterStarts(original);
    ASSERT_GE(clusters.size(), c.where == AsItIs || c.where == InFirstCluster ? 1u : 6u);
    uint64_t cut = original.size();
    if (c.where == MidBlock) cut = clusters[2] + 5000;
    if (c.where == BeforeCluster) cut = clusters[4] - 1;
    if (c.where == AtSixtyPercent) cut = original.size() * 6 / 10;
    if (c.where == InFirstCluster) cut = clusters[0] + 30000;
    if (c.where == AfterClusterHeader) {
      unsigned width = 1;
      while (!(original[clusters[3] + 4] & (0x80 >> (width - 1)))) ++width;
      cut = clusters[3] + 4 + width;
    }
    const std::string file = dir.path("cut.mkv");
    cutCopy(c.source, file, cut);
    // The finished file the cut one is a prefix of (the killed mux's is ours, muxed from the same input).
    const std::string whole = c.source == killed || c.source == allOpen ? ours : c.source;

    ASSERT_EQ(kapsel("repair --dry-run " + shellQuote(file)).exitCode, 0);
    ASSERT_EQ(readFile(file).size(), cut) << "a dry run changed the file";
    const CommandResult r = kapsel("repair " + shellQuote(file));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out.find("is whole"), std::string::npos) << r.out;

    const std::vector<std::string> got = packetHashes(file), all = packetHashes(whole);
    const size_t before = packetsBefore(whole, cut);
    ASSERT_GT(got.size(), 0u);
    // A laced block cut in its middle loses the frames that were whole in it.
    EXPECT_LE(got.size(), before);
    EXPECT_GE(got.size() + 3, before);
    EXPECT_TRUE(std::equal(got.begin(), got.end(), all.begin())) << "a kept packet differs from the original";

    const double duration = formatDuration(file);
    EXPECT_NEAR(duration, lastPacketEnd(file), 0.041);

    const double target = duration * 0.9;
    const std::string seek = "ffprobe -v debug -read_intervals " + std::to_string(target) +
                             "%+#1 -select_streams v:0 -show_entries packet=pts_time,flags -of csv=p=0 " + shellQuote(file);
    const CommandResult s = runCommand(seek);
    const std::vector<std::string> first = lines(s.out);
    ASSERT_FALSE(first.empty()) << s.err;
    EXPECT_NE(first[0].find('K'), std::string::npos) << first[0];
    EXPECT_NEAR(std::atof(first[0].c_str()), target - 1.0, 1.1) << "seeking landed far from the target";
    // Through the Cues the reader skips most of the file; without them it reads it all.
    const size_t stats = s.err.find("Statistics: ");
    const uint64_t size = readFile(file).size();
    if (size > 400000 && stats != std::string::npos) {
      EXPECT_LT(std::stoull(s.err.substr(stats + 12)), size / 2) << "the reader did not find the Cues";
    }

    EXPECT_EQ(mkvmergeJson(file).exitCode, 0);
    if (c.source == webm) {
      EXPECT_EQ(webmInfo(file).exitCode, 0);
    }
    const std::vector<unsigned char> repaired = readFile(file);
    const CommandResult again = kapsel("repair " + shellQuote(file));
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_NE(again.out.find("is whole"), std::string::npos) << again.out;
    EXPECT_EQ(readFile(file), repaired) << "a second repair changed the file";
  }
}

TEST(KapselRepair, FilesItCannotOrNeedNotRepairStayUnchanged) {
  if (!haveTool("ffmpeg")) GTEST_SKIP() << "needs ffmpeg";
  TempDir dir;
  const std::string whole = dir.path("whole.mkv");
  ASSERT_EQ(runCommand("ffmpeg -v error -y -f lavfi -i testsrc2=size=160x120:rate=10:duration=2 -c:v libx264 " +
                       shellQuote(whole)).exitCode, 0);
  writeFile(dir.path("text.mkv"), std::vector<unsigned char>(100, 'x'));
  cutCopy(whole, dir.path("header-only.mkv"), clusterStarts(readFile(whole)).at(0) + 8);
  struct Case {
    std::string file;
    int status;
    std::string says;
  } cases[] = {
      {whole, 0, "is whole"},
      {dir.path("text.mkv"), 1, "is not a Matroska or WebM file"},
      {dir.path("header-only.mkv"), 3, "no whole block"},
      {dir.path("missing.mkv"), 1, "cannot open"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::vector<unsigned char> before = readFile(c.file);
    const CommandResult r = kapsel("repair " + shellQuote(c.file));
    EXPECT_EQ(r.exitCode, c.status);
    EXPECT_NE((r.out + r.err).find(c.says), std::string::npos) << r.out << r.err;
    EXPECT_EQ(readFile(c.file), before);
  }
}
