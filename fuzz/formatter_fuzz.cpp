// Fuzz target: drives the formatter as a host does, with streams, metadata, chapters and packets
// decoded from the input, and checks that the file it writes is complete and loads.

#include <sys/stat.h>

#include <iostream>

#include "formatter/matroska_formatter.h"
#include "fuzz/fuzz_common.h"
#include "host_sdk/host_sdk.h"
#include "host_sdk/reference.h"

using namespace Kapsel;

namespace {

class Input {
 public:
  Input(const uint8_t* d, size_t n) : d_(d), n_(n) {}
  uint8_t byte() { return i_ < n_ ? d_[i_++] : 0; }
  uint16_t u16() { return static_cast<uint16_t>(byte() | byte() << 8); }
  bool more() const { return i_ < n_; }

 private:
  const uint8_t* d_;
  size_t n_;
  size_t i_ = 0;
};

std::vector<uint8_t> filler(size_t n, uint32_t seed) {
  std::vector<uint8_t> v(n);
  for (auto& c : v) c = static_cast<uint8_t>((seed = seed * 1103515245u + 12345u) >> 16);
  return v;
}

// Element ID and size at `pos`; false when they do not fit.
bool header(const std::vector<uint8_t>& b, size_t& pos, uint64_t& id, uint64_t& size, bool& unknown) {
  auto vint = [&](bool keepMarker, uint64_t& v, unsigned& len) {
    if (pos >= b.size() || b[pos] == 0) return false;
    len = static_cast<unsigned>(__builtin_clz(b[pos]) - 23);
    if (pos + len > b.size()) return false;
    v = keepMarker ? b[pos] : b[pos] & (0xFF >> len);
    for (unsigned k = 1; k < len; ++k) v = v << 8 | b[pos + k];
    pos += len;
    return true;
  };
  unsigned n;
  if (!vint(true, id, n) || !vint(false, size, n)) return false;
  unknown = size == (1ull << (7 * n)) - 1;
  return true;
}

const uint32_t kVideoCodecs[] = {FourCC("VP8 "), FourCC("H264"), FourCC("MP4V"), FourCC("VP62"), FourCC("XVID")};
const uint32_t kAudioCodecs[] = {FourCC("VRBS"), FourCC("AAC "), FourCC("LPCM"), FourCC("MP3 "), FourCC("AC3 "),
                                 FourCC("OPUS")};
const char* const kModes[] = {"Mono", "Stereo", "5.1", "7.1", "Joint Stereo", "Surround"};
const char* const kMetaNames[] = {"Title", "Artist", "Comment", "Genre", "Custom_Name", ""};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static fuzz::MemFile output("kapsel-formatter-out");
  static bool quiet = (std::cerr.rdbuf(nullptr), true);  // the formatter's summary lines
  (void)quiet;
  if (!output.ok() || !output.clear()) return 0;
  Input in(data, size);

  const uint8_t flags = in.byte();
  const bool webm = flags & 1, video = flags & 2, audio = flags & 4;
  const uint8_t codecs = in.byte();
  RefVideoParams vp{(flags & 8) ? FourCC("KVI ") : FourCC("ON2!"), kVideoCodecs[(codecs & 7) % 5], in.u16(),
                    in.u16(), static_cast<double>(in.byte()) / 2.0, "video", {}, {}, {}};
  if (flags & 16) vp.keyFrameInterval = in.byte();
  if (flags & 32) vp.autoKeyFrames = codecs & 64;
  if (flags & 64) vp.keyFrameMargin = codecs & 128;
  const uint8_t a = in.byte();
  RefAudioParams ap{FourCC("KVI "), kAudioCodecs[((codecs >> 3) & 7) % 6], 8000u * (1 + (a & 7)), 8u * (1 + (a >> 6)),
                    kModes[(a >> 3) % 6], "audio"};
  RefVideoCompressor vc(vp);
  RefAudioCompressor ac(ap);

  CAFormatter* f = new kapsel_formatter::CKVMatroskaFormatter(webm ? FourCC("WEBM") : FourCC("MKV "));
  f->SetOutputFile(output.path());
  const uint16_t start = in.u16(), end = in.u16();
  f->SetDurationHint(start, end, in.byte());

  Array_c<CAceNameValuePair> meta;
  for (int i = 0, n = in.byte() % 4; i < n; ++i) {
    const uint8_t k = in.byte();
    meta.Add(CAceNameValuePair(kMetaNames[k % 6], std::string(k >> 4, static_cast<char>('a' + (k & 15)))));
  }
  f->SetMetaData(&meta);
  std::vector<CAceMarker> markers;
  for (int i = 0, n = in.byte() % 5; i < n; ++i) {
    const uint8_t k = in.byte();
    markers.emplace_back((k & 1) ? 1 : CAceMarker::kMarkerTypeChapter, std::string(k % 7, 'c'),
                         static_cast<int64_t>(in.u16()) - 1000, (k & 2) ? 1000u : 90000u);
  }
  CAceMarkerPtrList markerList;
  for (auto& m : markers) markerList.Add(&m);
  f->SetChapterMarkers(&markerList);
  SetStreams(*f, video ? &vc : nullptr, audio ? &ac : nullptr);

  if (f->BeginFormatting() == 0) {
    int64_t vt = 0, at = 0;
    for (int count = 0; in.more() && count < 300; ++count) {
      const uint8_t kind = in.byte();
      const int64_t step = static_cast<int8_t>(in.byte());
      const size_t bytes = (kind & 0x80) ? in.u16() % 4096 : in.byte();
      const std::vector<uint8_t> payload = filler(bytes, static_cast<uint32_t>(count));
      const std::vector<uint8_t> config = filler(kind >> 4, 7);
      const uint64_t units = (kind & 8) ? 90000 : 1000;
      if (kind & 1) {
        vt += step * ((kind & 8) ? 90 : 1);
        KVImage_t s = MakeVideoSample(payload.data(), payload.size(), vt, units, (kind & 0x40) ? step : 0, kind & 2,
                                      (kind & 4) ? &config : nullptr);
        f->AddVideoSample(&s);
        ReleaseSample(s);
      } else {
        std::vector<RefAudioPacket> packets;
        for (int p = 0, np = 1 + ((kind >> 1) & 3); p < np; ++p) {
          at += step * ((kind & 8) ? 90 : 1);
          packets.push_back({filler(bytes / np, static_cast<uint32_t>(count * 4 + p)), at, units});
        }
        KVAudio_t s = MakeAudioSample(packets, (kind & 0x20) ? &config : nullptr);
        f->AddAudioSample(&s);
        ReleaseSample(s);
      }
    }
  }
  f->EndFormatting(nullptr);
  f->Release();
  if (RefPacket::LiveCount() != 0 || RefPacketBundle::LiveCount() != 0)
    fuzz::finding("the formatter kept packets after it was released");

  // The file: nothing at all, or an EBML header and one Segment that reaches the end of the file.
  std::vector<uint8_t> file;
  {
    FileStorage check(output.path(), File::kReadOnly);
    file.resize(check.file().size());
    if (!file.empty() && !check.file().load(file.data(), static_cast<unsigned long>(file.size())))
      fuzz::finding("the written file cannot be read");
  }
  // KAPSEL_FUZZ_KEEP=path keeps a copy of the written file, to look at with other readers.
  if (const char* keep = std::getenv("KAPSEL_FUZZ_KEEP"))
    if (FILE* out = std::fopen(keep, "wb")) {
      std::fwrite(file.data(), 1, file.size(), out);
      std::fclose(out);
    }
  if (file.empty()) return 0;
  size_t pos = 0;
  uint64_t id = 0, len = 0;
  bool unknown = false;
  if (!header(file, pos, id, len, unknown) || id != 0x1A45DFA3 || unknown || len > file.size() - pos)
    fuzz::finding("the written file does not start with an EBML header");
  pos += len;
  if (!header(file, pos, id, len, unknown) || id != 0x18538067 || unknown || pos + len != file.size())
    fuzz::finding("the Segment's size does not reach the end of the file");
  size_t clusters = 0;
  for (const size_t segEnd = pos + len; pos < segEnd;) {
    if (!header(file, pos, id, len, unknown) || unknown || len > segEnd - pos)
      fuzz::finding("a top-level element runs past the Segment or is left open");
    clusters += id == 0x1F43B675;
    pos += len;
  }

  FileStorage again(output.path(), File::kReadOnly);
  MatroskaDoc doc;
  doc.load(again, again.file().size());
  if (!doc.damagedRanges().empty()) fuzz::finding("the written file has damaged ranges");
  if (doc.segments_.size() != 1) fuzz::finding("the written file does not load as one Segment");
  if (doc.segments_.front()->clusters_.size() != clusters) fuzz::finding("not every cluster loads");
  return 0;
}
