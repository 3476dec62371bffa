// Writes a two-track Matroska file with the streaming writer: ten seconds of made-up video frames (a key frame a
// second) and audio packets, with two chapters. The bytes are not real media; the structure is.
//   write_file OUT.mkv

#include <cstdio>
#include <vector>

#include "kapsel/kapsel.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: write_file OUT.mkv\n");
    return 2;
  }
  using namespace Kapsel;
  TWriterOptions options;
  options.title = "Written by the streaming writer";
  options.writingApp = "write_file example";
  options.durationHint = 10'000'000'000;  // ns; sizes the index reserved at the front
  StreamWriter writer;
  if (writer.open(argv[1], options) != TWriteResult::kOk) {
    std::fprintf(stderr, "write_file: cannot create %s\n", argv[1]);
    return 1;
  }

  TTrackSpec video;
  video.codecId = "V_MS/VFW/FOURCC";  // any CodecID; a real program gives its codec's and its CodecPrivate
  video.codecPrivate.assign(40, 0);
  video.pixelWidth = 320;
  video.pixelHeight = 240;
  video.defaultDuration = 40'000'000;  // 25 frames a second
  TTrackSpec audio;
  audio.kind = TTrackKind::kAudio;
  audio.codecId = "A_PCM/INT/LIT";
  audio.samplingFrequency = 8000;
  audio.channels = 1;
  audio.bitDepth = 16;
  audio.language = "eng";
  uint64_t v = 0, a = 0;
  if (writer.addTrack(video, &v) != TWriteResult::kOk || writer.addTrack(audio, &a) != TWriteResult::kOk) return 1;
  writer.addChapter({0, 5'000'000'000, "First half", "eng", 0, {}});
  writer.addChapter({5'000'000'000, 10'000'000'000, "Second half", "eng", 0, {}});

  // Frames may come in any order across tracks: the writer interleaves them by time.
  std::vector<uint8_t> frame(1500, 0x55), packet(1600, 0);
  for (int i = 0; i < 250; ++i) {
    TWriterFrame f;
    f.track = v;
    f.data = frame.data();
    f.size = frame.size();
    f.time = i * 40'000'000ll;
    f.key = i % 25 == 0;
    if (writer.write(f) != TWriteResult::kOk) break;
  }
  for (int i = 0; i < 100; ++i) {
    TWriterFrame f;
    f.track = a;
    f.data = packet.data();
    f.size = packet.size();
    f.time = i * 100'000'000ll;
    f.duration = 100'000'000;
    if (writer.write(f) != TWriteResult::kOk) break;
  }
  const TWriterReport report = writer.finish();
  if (report.result != TWriteResult::kOk) {
    std::fprintf(stderr, "write_file: %s\n", describe(report.result));
    return 1;
  }
  std::printf("%llu frames in %llu clusters, %.3f s, index %s\n", static_cast<unsigned long long>(report.frames),
              static_cast<unsigned long long>(report.clusters), report.duration,
              report.indexAtFront ? "at the front" : "at the end");
  return 0;
}
