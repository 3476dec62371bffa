// Codec configuration records and packet conversions, checked against what ffmpeg writes into Matroska for the
// same streams (CodecPrivate read back by mkvmerge, blocks read back by libavformat), and against crafted bytes.

#include <gtest/gtest.h>

#include <functional>
#include <random>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "codec_map.h"
#include "kapsel/codecs.h"
#include "support/readers.h"

using namespace kapsel_test;
using Bytes = std::vector<uint8_t>;

namespace {

std::string hex(const Bytes& b) {
  static const char* digits = "0123456789abcdef";
  std::string s;
  for (uint8_t c : b) s += {digits[c >> 4], digits[c & 15]};
  return s;
}

Bytes unhex(const std::string& s) {
  Bytes b;
  for (size_t i = 0; i + 1 < s.size(); i += 2) b.push_back(static_cast<uint8_t>(std::stoi(s.substr(i, 2), nullptr, 16)));
  return b;
}

std::string mkvmergePrivate(const std::string& file) {
  const std::string json = mkvmergeJson(file).out;
  const std::string key = "\"codec_private_data\": \"";
  const size_t at = json.find(key);
  if (at == std::string::npos) return "";
  const size_t begin = at + key.size();
  return json.substr(begin, json.find('"', begin) - begin);
}

// The first stream's parameters and packets as libavformat reads them.
struct Stream {
  AVCodecParameters* par = avcodec_parameters_alloc();
  int disposition = 0;
  std::vector<Bytes> packets;
  ~Stream() { avcodec_parameters_free(&par); }
};

bool readStream(const std::string& file, Stream& s) {
  AVFormatContext* f = nullptr;
  if (avformat_open_input(&f, file.c_str(), nullptr, nullptr) < 0) return false;
  bool ok = avformat_find_stream_info(f, nullptr) >= 0 && f->nb_streams > 0 &&
            avcodec_parameters_copy(s.par, f->streams[0]->codecpar) >= 0;
  s.disposition = ok ? f->streams[0]->disposition : 0;
  AVPacket* p = av_packet_alloc();
  while (ok && av_read_frame(f, p) >= 0) {
    if (p->stream_index == 0) s.packets.emplace_back(p->data, p->data + p->size);
    av_packet_unref(p);
  }
  av_packet_free(&p);
  avformat_close_input(&f);
  return ok;
}

// ffmpeg leaves the zero byte of the next access unit's 4-byte start code at the end of a raw HEVC packet's last
// NAL unit; that byte belongs to the byte stream (mkvmerge drops it too), so it is taken off before comparing.
Bytes withoutTrailingZeros(const Bytes& lengthPrefixed) {
  Bytes out;
  for (size_t pos = 0; pos + 4 <= lengthPrefixed.size();) {
    size_t n = (size_t{lengthPrefixed[pos]} << 24) | (size_t{lengthPrefixed[pos + 1]} << 16) |
               (size_t{lengthPrefixed[pos + 2]} << 8) | lengthPrefixed[pos + 3];
    if (n > lengthPrefixed.size() - pos - 4) return lengthPrefixed;
    const size_t begin = pos + 4;
    pos = begin + n;
    while (n > 0 && lengthPrefixed[begin + n - 1] == 0) --n;
    out.insert(out.end(), {uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)});
    out.insert(out.end(), lengthPrefixed.begin() + static_cast<long>(begin), lengthPrefixed.begin() + static_cast<long>(begin + n));
  }
  return out;
}

}  // namespace

// Each clip is made by ffmpeg; ffmpeg also copies it into Matroska, and our CodecPrivate and blocks must equal
// what it wrote. Streams whose parameters travel in-band are also mapped again without extradata, from the first
// packet alone.
TEST(Codecs, MatchFfmpegMatroskaOutput) {
  if (!haveTool("ffmpeg") || !haveTool("mkvmerge")) GTEST_SKIP() << "ffmpeg and mkvmerge are needed";
  TempDir dir;
  const std::string video = "ffmpeg -y -v error -f lavfi -i testsrc=size=64x64:rate=10 -frames:v 5 ";
  const std::string audio = "ffmpeg -y -v error -f lavfi -i sine=frequency=440:duration=0.5 ";
  const std::string x265 = " -c:v libx265 -x265-params log-level=none ";
  struct Clip {
    const char* file;
    std::string make;  // shell command, run in the temporary directory
    const char* codecId;
    kapsel_cli::FrameConversion conversion;
    uint64_t bitDepth = 0;
  };
  using C = kapsel_cli::FrameConversion;
  const Clip clips[] = {
      {"high.h264", video + "-pix_fmt yuv420p -c:v libx264 high.h264", "V_MPEG4/ISO/AVC", C::kAnnexBToLengthPrefixed},
      {"hi444.h264", video + "-pix_fmt yuv444p10le -c:v libx264 hi444.h264", "V_MPEG4/ISO/AVC",
       C::kAnnexBToLengthPrefixed},
      {"base.ts", video + "-pix_fmt yuv420p -c:v libx264 -profile:v baseline base.ts", "V_MPEG4/ISO/AVC",
       C::kAnnexBToLengthPrefixed},
      {"back.h264",
       video + "-pix_fmt yuv420p -c:v libx264 -bf 0 f.mp4 && ffmpeg -v error -i f.mp4 -c copy -bsf:v h264_mp4toannexb back.h264",
       "V_MPEG4/ISO/AVC", C::kAnnexBToLengthPrefixed},
      {"f.mp4", video + "-pix_fmt yuv420p -c:v libx264 f.mp4", "V_MPEG4/ISO/AVC", C::kNone},
      {"main.hevc", video + "-pix_fmt yuv420p" + x265 + "main.hevc", "V_MPEGH/ISO/HEVC", C::kAnnexBToLengthPrefixed},
      {"main10.ts", video + "-pix_fmt yuv420p10le" + x265 + "main10.ts", "V_MPEGH/ISO/HEVC", C::kAnnexBToLengthPrefixed},
      {"aom.obu", video + "-c:v libaom-av1 -cpu-used 8 aom.obu", "V_AV1", C::kAv1DropDelimiters},
      {"svt.ivf", video + "-c:v libsvtav1 -svtav1-params log-level=0 svt.ivf 2>/dev/null", "V_AV1",
       C::kAv1DropDelimiters},
      {"adts.aac", audio + "-c:a aac adts.aac", "A_AAC", C::kStripAdts},
      {"a.flac", audio + "-c:a flac -sample_fmt s32 a.flac", "A_FLAC", C::kNone, 24},
      {"a.opus", audio + "-c:a libopus a.opus", "A_OPUS", C::kNone},
      {"a.ogg", audio + "-c:a libvorbis a.ogg", "A_VORBIS", C::kNone},
      {"a.m4a", audio + "-c:a alac a.m4a", "A_ALAC", C::kNone, 16},
  };
  for (const auto& clip : clips) {
    SCOPED_TRACE(clip.file);
    const std::string src = dir.path(clip.file), ref = dir.path(std::string(clip.file) + ".mkv");
    ASSERT_EQ(runCommand("cd " + shellQuote(dir.path()) + " && " + clip.make).exitCode, 0);
    // Raw streams carry no timestamps; ffmpeg's Matroska writer wants some.
    ASSERT_EQ(runCommand("ffmpeg -y -v error -i " + shellQuote(src) + " -c copy -bsf:v setts=ts=N " + shellQuote(ref)).exitCode, 0);
    Stream in, out;
    ASSERT_TRUE(readStream(src, in));
    ASSERT_TRUE(readStream(ref, out));
    ASSERT_FALSE(in.packets.empty());

    auto m = kapsel_cli::mapStream(*in.par, false, in.disposition);
    ASSERT_TRUE(m.ok) << m.error;
    EXPECT_EQ(m.codecId, clip.codecId);
    EXPECT_EQ(m.conversion, clip.conversion);
    EXPECT_EQ(m.bitDepth, clip.bitDepth);
    if (m.needsFirstPacket) {
      ASSERT_TRUE(m.takeFirstPacket(in.packets[0].data(), in.packets[0].size())) << m.error;
    }
    EXPECT_EQ(hex(m.codecPrivate), mkvmergePrivate(ref));

    if (m.conversion != C::kNone) {
      av_freep(&in.par->extradata);
      in.par->extradata_size = 0;
      auto bare = kapsel_cli::mapStream(*in.par, false);
      ASSERT_TRUE(bare.ok && bare.needsFirstPacket);
      ASSERT_TRUE(bare.takeFirstPacket(in.packets[0].data(), in.packets[0].size())) << bare.error;
      EXPECT_EQ(hex(bare.codecPrivate), hex(m.codecPrivate));
    }

    ASSERT_EQ(in.packets.size(), out.packets.size());
    Bytes buffer;
    for (size_t i = 0; i < in.packets.size(); ++i) {
      const uint8_t* data = nullptr;
      size_t size = 0;
      ASSERT_TRUE(m.convert(in.packets[i].data(), in.packets[i].size(), buffer, &data, &size)) << "packet " << i;
      const Bytes& theirs = out.packets[i];
      EXPECT_EQ(hex(Bytes(data, data + size)), hex(m.conversion == C::kAnnexBToLengthPrefixed ? withoutTrailingZeros(theirs) : theirs))
          << "packet " << i;
    }
  }
}

// Hand-derived bytes: each case feeds one function and expects its exact output, or false.
TEST(Codecs, CraftedInputs) {
  using namespace Kapsel;
  using Fn = std::function<bool(const Bytes&, Bytes&)>;
  const Fn avc = [](const Bytes& in, Bytes& out) { return buildAvcConfigurationRecord(in.data(), in.size(), out); };
  const Fn hevc = [](const Bytes& in, Bytes& out) { return buildHevcConfigurationRecord(in.data(), in.size(), out); };
  const Fn av1 = [](const Bytes& in, Bytes& out) { return buildAv1ConfigurationRecord(in.data(), in.size(), out); };
  const Fn av1Strip = [](const Bytes& in, Bytes& out) { return stripAv1TemporalDelimiters(in.data(), in.size(), out); };
  const Fn lengths = [](const Bytes& in, Bytes& out) { return annexBToLengthPrefixed(in.data(), in.size(), out); };
  const Fn asc = [](const Bytes& in, Bytes& out) { return adtsAudioSpecificConfig(in.data(), in.size(), out); };
  const Fn adts = [](const Bytes& in, Bytes& out) { return stripAdts(in.data(), in.size(), out); };
  const Fn flac = [](const Bytes& in, Bytes& out) { return flacCodecPrivate(in.data(), in.size(), out); };
  const Fn alac = [](const Bytes& in, Bytes& out) { return alacCodecPrivate(in.data(), in.size(), out); };
  const Fn xiph = [](const Bytes& in, Bytes& out) {
    std::vector<CodecBytes> headers;
    return splitXiphHeaders(in.data(), in.size(), headers) && xiphCodecPrivate(headers, out);
  };
  const Fn opus = [](const Bytes& in, Bytes& out) {
    uint64_t ns = 0;
    if (!opusCodecDelay(in.data(), in.size(), ns)) return false;
    out = {static_cast<uint8_t>(ns >> 24), static_cast<uint8_t>(ns >> 16), static_cast<uint8_t>(ns >> 8), static_cast<uint8_t>(ns)};
    return true;
  };
  // A real High-profile SPS (with an emulation-prevention byte) and PPS from libx264.
  const std::string sps = "6764000aacd94426c044000003000400000300503c489658", pps = "68ebe3cb22c0";
  const std::string stuffed300 = "02ff2d02" + std::string(600, 'a') + "bbbb" + "cc";
  struct Case {
    const char* what;
    const Fn* fn;
    std::string in, out;  // hex; out "-" when false is expected
  };
  const Case cases[] = {
      {"3- and 4-byte start codes, trailing zeros", &lengths, "000000016742000000016800000165aa00000001", "000000026742000000016800000002" "65aa"},
      {"length-prefixed input", &lengths, "0000000267420000000168", "-"},
      {"SPS, duplicate SPS, PPS, SPS extension", &avc, "00000001" + sps + "000001" + sps + "000001" + pps + "0000016d01",
       "0164000affe10018" + sps + "010006" + pps + "fdf8f80100026d01"},
      {"Baseline carries no extension", &avc, "0000016742c00a8c8d40000001" + pps, "0142c00affe100076742c00a8c8d40010006" + pps},
      {"no SPS", &avc, "000001" + pps + "00000165888400", "-"},
      {"truncated SPS", &avc, "0000016764000a000001" + pps, "-"},
      {"SPS whose Exp-Golomb code never ends", &avc, "0000016764000a00000300000300000001" + pps, "-"},
      {"HEVC without VPS", &hevc, "000001420101", "-"},
      {"truncated HEVC SPS", &hevc, "00000140010c01000001420101016000000001440100", "-"},
      {"reduced still-picture sequence header without size field, after a delimiter", &av1, "1200081a00302240",
       "81084e000a051a00302240"},
      {"sequence header claiming more than there is", &av1, "0a7f1a0030", "-"},
      {"OBU with the forbidden bit", &av1, "8a051a00302240", "-"},
      {"truncated sequence header", &av1, "0a011a", "-"},
      {"delimiters and padding dropped", &av1Strip, "1200" "7a02ffff" "320100", "320100"},
      {"overlong OBU size", &av1Strip, "32ffffffffffffffff01", "-"},
      {"ADTS: LC, 44.1 kHz, stereo", &asc, "fff15080015ffc616263", "1210"},
      {"ADTS with channels in-band", &asc, "fff15000015ffc616263", "-"},
      {"ADTS stripped", &adts, "fff15080015ffc616263", "616263"},
      {"ADTS with CRC stripped", &adts, "fff05080019ffc1234616263", "616263"},
      {"ADTS frame longer than the packet", &adts, "fff15080019ffc616263", "-"},
      {"two ADTS frames in one packet", &adts, "fff15080015ffc616263fff15080015ffc616263", "-"},
      {"not ADTS", &adts, "1210616263", "-"},
      {"bare STREAMINFO", &flac, std::string(68, '1'), "664c61438000002" "2" + std::string(68, '1')},
      {"fLaC whose last block lacks the flag", &flac, "664c614300000022" + std::string(68, '1') + "0400000161",
       "664c614300000022" + std::string(68, '1') + "8400000161"},
      {"fLaC without STREAMINFO first", &flac, "664c614304000022" + std::string(68, '1'), "-"},
      {"Opus pre-skip 312", &opus, "4f707573486561640102380180bb0000000000", "00632ea0"},
      {"not an Opus header", &opus, "4f707573546167730102380180bb0000000000", "-"},
      {"Xiph lacing of a 300-byte header", &xiph, stuffed300, stuffed300},
      {"16-bit size-prefixed headers", &xiph, "0003616263000164000165", "0203016162636465"},
      {"lacing past the end", &xiph, "02ffff0101", "-"},
      {"empty third header", &xiph, "0201016162", "-"},
      {"ALAC inside its atom", &alac, "00000024616c616300000000" + std::string(48, '7'), std::string(48, '7')},
      {"ALAC too short", &alac, std::string(46, '7'), "-"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Bytes out{0xEE};
    const bool ok = (*c.fn)(unhex(c.in), out);
    if (c.out == "-") {
      EXPECT_FALSE(ok);
    } else {
      EXPECT_TRUE(ok);
      EXPECT_EQ(hex(out), c.out);
    }
  }

  // Every prefix of valid input and random bytes: a clean answer, never a fault (run under the sanitizers).
  std::vector<Bytes> inputs;
  for (const auto& c : cases) inputs.push_back(unhex(c.in));
  std::mt19937 random(7);
  for (int i = 0; i < 3000; ++i) {
    Bytes b(random() % 48);
    for (auto& x : b) x = static_cast<uint8_t>(random() % 4 == 0 ? 0 : random());
    inputs.push_back(b);
  }
  for (const auto& in : inputs)
    for (size_t n = 0; n <= in.size(); ++n)
      for (const Fn* fn : {&avc, &hevc, &av1, &av1Strip, &lengths, &asc, &adts, &flac, &alac, &xiph, &opus}) {
        Bytes out;
        (void)(*fn)(Bytes(in.begin(), in.begin() + static_cast<long>(n)), out);
      }
}

// Stream parameters as libav describes them, mapped for Matroska or WebM: what no clip above or in the corpus maps.
TEST(Codecs, StreamMappingTable) {
  using C = kapsel_cli::FrameConversion;
  const std::string webmTakes = "; WebM takes VP8, VP9, AV1, Vorbis, Opus and WebVTT";
  struct Row {
    AVCodecID id;
    bool webm;
    int disposition;
    std::string extradata;  // hex
    std::string expected;   // codec ID, or the error
    std::string codecPrivate;
    uint64_t bitDepth, codecDelay, seekPreRoll;
  };
  const Row rows[] = {
      {AV_CODEC_ID_PCM_S32BE, false, 0, "", "A_PCM/INT/BIG", "", 32, 0, 0},
      {AV_CODEC_ID_PCM_F64LE, false, 0, "", "A_PCM/FLOAT/IEEE", "", 64, 0, 0},
      {AV_CODEC_ID_OPUS, true, 0, "4f707573486561640102000f80bb0000000000", "A_OPUS",
       "4f707573486561640102000f80bb0000000000", 0, 80000000, 80000000},
      {AV_CODEC_ID_OPUS, false, 0, "0102", "the Opus stream has no usable codec configuration", "", 0, 0, 0},
      {AV_CODEC_ID_VP6F, false, 0, "", "V_ON2VP6", "", 0, 0, 0},
      {AV_CODEC_ID_HDMV_PGS_SUBTITLE, false, 0, "", "S_HDMV/PGS", "", 0, 0, 0},
      {AV_CODEC_ID_WEBVTT, false, AV_DISPOSITION_CAPTIONS, "", "S_TEXT/WEBVTT", "", 0, 0, 0},
      {AV_CODEC_ID_WEBVTT, true, 0, "", "D_WEBVTT/SUBTITLES", "", 0, 0, 0},
      {AV_CODEC_ID_WEBVTT, true, AV_DISPOSITION_CAPTIONS, "", "D_WEBVTT/CAPTIONS", "", 0, 0, 0},
      {AV_CODEC_ID_WEBVTT, true, AV_DISPOSITION_DESCRIPTIONS, "", "D_WEBVTT/DESCRIPTIONS", "", 0, 0, 0},
      {AV_CODEC_ID_WEBVTT, true, AV_DISPOSITION_METADATA, "", "D_WEBVTT/METADATA", "", 0, 0, 0},
      {AV_CODEC_ID_H264, true, 0, "", "WebM cannot hold H.264" + webmTakes, "", 0, 0, 0},
      {AV_CODEC_ID_CINEPAK, true, 0, "", "WebM cannot hold CINEPAK" + webmTakes, "", 0, 0, 0},
      {AV_CODEC_ID_CINEPAK, false, 0, "", "Kapsel cannot write CINEPAK video into Matroska yet", "", 0, 0, 0},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.expected);
    Stream s;
    s.par->codec_id = r.id;
    s.par->codec_type = avcodec_get_type(r.id);
    const Bytes extra = unhex(r.extradata);
    if (!extra.empty()) {
      s.par->extradata = static_cast<uint8_t*>(av_mallocz(extra.size() + AV_INPUT_BUFFER_PADDING_SIZE));
      s.par->extradata_size = static_cast<int>(extra.size());
      std::copy(extra.begin(), extra.end(), s.par->extradata);
    }
    const auto m = kapsel_cli::mapStream(*s.par, r.webm, r.disposition);
    EXPECT_EQ(m.ok ? m.codecId : m.error, r.expected);
    EXPECT_EQ(hex(m.codecPrivate), r.codecPrivate);
    EXPECT_EQ(m.bitDepth, r.bitDepth);
    EXPECT_EQ(m.codecDelayNs, r.codecDelay);
    EXPECT_EQ(m.seekPreRollNs, r.seekPreRoll);
    EXPECT_EQ(m.conversion, C::kNone);
    EXPECT_FALSE(m.needsFirstPacket);
  }

  // A first packet without parameter sets leaves the mapping waiting, with a reason.
  Stream s;
  s.par->codec_id = AV_CODEC_ID_H264;
  auto m = kapsel_cli::mapStream(*s.par, false);
  const Bytes slice = unhex("0000000165888400");
  EXPECT_FALSE(m.takeFirstPacket(slice.data(), slice.size()));
  EXPECT_TRUE(m.needsFirstPacket);
  EXPECT_EQ(m.error, "the H.264 stream carries no usable parameter sets before its first frame");
}
