// The streaming writer as a library user drives it: several tracks in any order, subtitles with durations, and
// every misuse answered with a result while the file stays readable.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kapsel/kapsel.h"
#include "support/readers.h"

using namespace Kapsel;
using namespace kapsel_test;

namespace {

std::vector<uint8_t> payload(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  for (auto& c : v) c = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
  return v;
}

// Random bytes behind a VP8 frame tag (and a key frame's start code), so that readers take them for VP8.
std::vector<uint8_t> vp8(size_t n, bool key, uint32_t seed) {
  std::vector<uint8_t> v = payload(n, seed);
  const uint8_t head[10] = {static_cast<uint8_t>(key ? 0x10 : 0x11), 0, 0, 0x9D, 0x01, 0x2A, 0x40, 0x00, 0x30, 0};
  std::copy(head, head + (key ? 10 : 3), v.begin());
  return v;
}

TTrackSpec track(TTrackKind kind, const char* codec, const char* language = "") {
  TTrackSpec t;
  t.kind = kind;
  t.codecId = codec;
  t.language = language;
  if (kind == TTrackKind::kVideo) t.pixelWidth = 64, t.pixelHeight = 48, t.defaultDuration = 40000000;
  if (kind == TTrackKind::kAudio) t.samplingFrequency = 48000, t.channels = 2, t.bitDepth = 16;
  return t;
}

}  // namespace

// Video, two audio tracks and subtitles handed over track by track: every frame comes back from an independent
// reader with its bytes and time, interleaved, and the subtitles keep their durations.
TEST(StreamWriter, ManyTracksInAnyOrderReadBackWhole) {
  TempDir dir;
  const std::string path = dir.path("multi.mkv");
  StreamWriter w;
  ASSERT_EQ(w.open(path), TWriteResult::kOk);
  uint64_t v = 0, a1 = 0, a2 = 0, s = 0;
  ASSERT_EQ(w.addTrack(track(TTrackKind::kVideo, "V_VP8"), &v), TWriteResult::kOk);
  ASSERT_EQ(w.addTrack(track(TTrackKind::kAudio, "A_PCM/INT/LIT", "ger"), &a1), TWriteResult::kOk);
  ASSERT_EQ(w.addTrack(track(TTrackKind::kAudio, "A_PCM/INT/LIT", "fre"), &a2), TWriteResult::kOk);
  ASSERT_EQ(w.addTrack(track(TTrackKind::kSubtitle, "S_TEXT/UTF8", "eng"), &s), TWriteResult::kOk);
  std::vector<std::vector<std::string>> sent(4);  // md5 of every frame, per track
  auto put = [&](uint64_t t, int64_t ms, size_t size, int64_t durMs, bool key) {
    const auto bytes = t == 1 ? vp8(size, key, static_cast<uint32_t>(ms)) : payload(size, static_cast<uint32_t>(ms * 10 + t));
    sent[t - 1].push_back(md5Hex(bytes.data(), bytes.size()));
    TWriterFrame f{t, bytes.data(), bytes.size(), ms * 1000000, INT64_MIN, durMs * 1000000, key};
    ASSERT_EQ(w.write(f), TWriteResult::kOk);
  };
  w.endTrack(s);  // subtitles are sparse: nothing waits for them
  for (int i = 0; i < 150; ++i) put(v, i * 40, 300, -1, i % 50 == 0);
  for (int i = 0; i < 300; ++i) put(a1, i * 20, 64, 20, true);
  for (int i = 0; i < 200; ++i) put(a2, i * 30, 48, 30, true);
  const char* lines[] = {"First line", "Second", "Third and last"};
  for (int i = 0; i < 3; ++i) {
    TWriterFrame f{s, reinterpret_cast<const uint8_t*>(lines[i]), strlen(lines[i]), 1000ll * 1000000 * (i + 1), INT64_MIN,
                   700000000, true};
    sent[3].push_back(md5Hex(f.data, f.size));
    ASSERT_EQ(w.write(f), TWriteResult::kOk);
  }
  const TWriterReport r = w.finish();
  EXPECT_EQ(r.result, TWriteResult::kOk);
  EXPECT_EQ(r.frames, 653u);
  EXPECT_TRUE(r.indexAtFront);

  std::string err;
  const auto packets = ffprobePackets(path, &err);
  EXPECT_EQ(err, "");
  ASSERT_EQ(packets.size(), 653u);
  std::vector<int64_t> last(4, -1);
  std::vector<int> count(4, 0);
  for (const auto& p : packets) {
    ASSERT_GE(p.stream, 0);
    EXPECT_GE(p.dtsMs, last[p.stream]) << "stream " << p.stream;
    last[p.stream] = p.dtsMs;
    const int64_t step[] = {40, 20, 30, 1000};
    EXPECT_EQ(p.ptsMs, step[p.stream] * (count[p.stream]++ + (p.stream == 3))) << "stream " << p.stream;
  }
  for (int t = 0; t < 4; ++t) EXPECT_EQ(frameMd5(path, t), sent[t]) << "stream " << t;
  CommandResult j = mkvmergeJson(path);
  EXPECT_EQ(j.exitCode, 0) << j.out;
  for (const char* lang : {"\"language\": \"ger\"", "\"language\": \"fre\"", "\"language\": \"eng\""})
    EXPECT_NE(j.out.find(lang), std::string::npos) << lang;
  CommandResult dur = runCommand("ffprobe -v error -select_streams 3 -show_entries packet=duration_time -of csv=p=0 " +
                                 shellQuote(path));
  EXPECT_EQ(dur.out, "0.700000\n0.700000\n0.700000\n");
}

// Misuse gets a result, never a crash; what was written before stays readable.
TEST(StreamWriter, MisuseIsAnsweredAndTheFileStaysWhole) {
  TempDir dir;
  StreamWriter w;
  const uint8_t byte = 1;
  TWriterFrame f{1, &byte, 1, 0, INT64_MIN, -1, true};
  EXPECT_EQ(w.write(f), TWriteResult::kNotOpen);
  EXPECT_EQ(w.addTrack(track(TTrackKind::kVideo, "V_VP8")), TWriteResult::kNotOpen);

  StreamWriter webm;
  TWriterOptions o;
  o.format = kFileFormatWebm;
  ASSERT_EQ(webm.open(dir.path("a.webm"), o), TWriteResult::kOk);
  EXPECT_EQ(webm.addTrack(track(TTrackKind::kVideo, "V_MPEG4/ISO/AVC")), TWriteResult::kNotInWebm);
  EXPECT_EQ(webm.addTrack(track(TTrackKind::kVideo, "")), TWriteResult::kBadTrack);
  uint64_t n = 0;
  ASSERT_EQ(webm.addTrack(track(TTrackKind::kVideo, "V_VP8"), &n), TWriteResult::kOk);
  EXPECT_EQ(webm.addTrack(track(TTrackKind::kAudio, "A_OPUS")), TWriteResult::kOk);
  webm.endTrack(2);
  f.track = 9;
  EXPECT_EQ(webm.write(f), TWriteResult::kUnknownTrack);  // sticky from here on
  f.track = n;
  EXPECT_EQ(webm.write(f), TWriteResult::kUnknownTrack);
  webm.finish();
  EXPECT_EQ(mkvmergeJson(dir.path("a.webm")).exitCode, 0);  // a header without clusters

  StreamWriter back;
  ASSERT_EQ(back.open(dir.path("b.mkv")), TWriteResult::kOk);
  ASSERT_EQ(back.addTrack(track(TTrackKind::kVideo, "V_VP8"), &n), TWriteResult::kOk);
  for (int64_t t : {0, 40, 80}) f.time = t * 1000000, (void)back.write(f);
  EXPECT_EQ(back.addTrack(track(TTrackKind::kAudio, "A_OPUS")), TWriteResult::kTracksClosed);
  f.time = 20000000;
  EXPECT_EQ(back.write(f), TWriteResult::kTimeBackwards);
  const TWriterReport r = back.finish();
  EXPECT_EQ(r.frames, 3u);
  EXPECT_EQ(back.write(f), TWriteResult::kAfterFinish);
  std::string err;
  EXPECT_EQ(ffprobePackets(dir.path("b.mkv"), &err).size(), 3u);
  EXPECT_EQ(err, "");
}

// A file that cannot grow (the size limit of the process) fails with a result and keeps its whole clusters.
TEST(StreamWriter, AWriteThatFailsPartWayLeavesAReadableFile) {
  TempDir dir;
  const std::string path = dir.path("full.mkv");
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    rlimit limit{3000000, 3000000};
    setrlimit(RLIMIT_FSIZE, &limit);
    StreamWriter w;
    uint64_t v = 0;
    if (w.open(path) != TWriteResult::kOk || w.addTrack(track(TTrackKind::kVideo, "V_VP8"), &v) != TWriteResult::kOk)
      _exit(2);
    const auto bytes = payload(5000, 1);
    TWriteResult result = TWriteResult::kOk;
    for (int i = 0; i < 2000 && result == TWriteResult::kOk; ++i)
      result = w.write({v, bytes.data(), bytes.size(), i * 40000000ll, INT64_MIN, -1, i % 10 == 0});
    _exit(result == TWriteResult::kWriteFailed && w.finish().result == TWriteResult::kWriteFailed ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  std::string err;
  const auto packets = ffprobePackets(path, &err);
  EXPECT_GE(packets.size(), 400u);
  EXPECT_LT(packets.size(), 600u);
}
