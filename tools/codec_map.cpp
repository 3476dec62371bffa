#include "codec_map.h"

#include <cctype>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "kapsel/codecs.h"

namespace kapsel_cli {

namespace {

enum class Private {
  kNone,
  kExtradata,  // as it is, when present
  kAvc,
  kHevc,
  kAv1,
  kAac,
  kFlac,
  kOpus,
  kXiph,
  kAlac,
};

struct Row {
  AVCodecID id;
  uint64_t type;
  const char* codecId;
  const char* name;
  Private priv;
  bool webm;
};

constexpr uint64_t kVideo = 1, kAudio = 2, kSubtitle = 17;

const Row kRows[] = {
    {AV_CODEC_ID_H264, kVideo, "V_MPEG4/ISO/AVC", "H.264", Private::kAvc, false},
    {AV_CODEC_ID_HEVC, kVideo, "V_MPEGH/ISO/HEVC", "HEVC", Private::kHevc, false},
    {AV_CODEC_ID_VP8, kVideo, "V_VP8", "VP8", Private::kNone, true},
    {AV_CODEC_ID_VP9, kVideo, "V_VP9", "VP9", Private::kNone, true},
    {AV_CODEC_ID_AV1, kVideo, "V_AV1", "AV1", Private::kAv1, true},
    {AV_CODEC_ID_MPEG4, kVideo, "V_MPEG4/ISO/ASP", "MPEG-4 Part 2", Private::kExtradata, false},
    {AV_CODEC_ID_MPEG1VIDEO, kVideo, "V_MPEG1", "MPEG-1 video", Private::kExtradata, false},
    {AV_CODEC_ID_MPEG2VIDEO, kVideo, "V_MPEG2", "MPEG-2 video", Private::kExtradata, false},
    {AV_CODEC_ID_VP6, kVideo, "V_ON2VP6", "VP6", Private::kNone, false},
    {AV_CODEC_ID_VP6F, kVideo, "V_ON2VP6", "VP6", Private::kNone, false},
    {AV_CODEC_ID_THEORA, kVideo, "V_THEORA", "Theora", Private::kXiph, false},
    {AV_CODEC_ID_AAC, kAudio, "A_AAC", "AAC", Private::kAac, false},
    {AV_CODEC_ID_MP3, kAudio, "A_MPEG/L3", "MP3", Private::kNone, false},
    {AV_CODEC_ID_MP2, kAudio, "A_MPEG/L2", "MP2", Private::kNone, false},
    {AV_CODEC_ID_VORBIS, kAudio, "A_VORBIS", "Vorbis", Private::kXiph, true},
    {AV_CODEC_ID_OPUS, kAudio, "A_OPUS", "Opus", Private::kOpus, true},
    {AV_CODEC_ID_FLAC, kAudio, "A_FLAC", "FLAC", Private::kFlac, false},
    {AV_CODEC_ID_AC3, kAudio, "A_AC3", "AC-3", Private::kNone, false},
    {AV_CODEC_ID_EAC3, kAudio, "A_EAC3", "E-AC-3", Private::kNone, false},
    {AV_CODEC_ID_DTS, kAudio, "A_DTS", "DTS", Private::kNone, false},
    {AV_CODEC_ID_ALAC, kAudio, "A_ALAC", "ALAC", Private::kAlac, false},
    {AV_CODEC_ID_PCM_S16LE, kAudio, "A_PCM/INT/LIT", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_S24LE, kAudio, "A_PCM/INT/LIT", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_S32LE, kAudio, "A_PCM/INT/LIT", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_U8, kAudio, "A_PCM/INT/LIT", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_S16BE, kAudio, "A_PCM/INT/BIG", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_S24BE, kAudio, "A_PCM/INT/BIG", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_S32BE, kAudio, "A_PCM/INT/BIG", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_F32LE, kAudio, "A_PCM/FLOAT/IEEE", "PCM", Private::kNone, false},
    {AV_CODEC_ID_PCM_F64LE, kAudio, "A_PCM/FLOAT/IEEE", "PCM", Private::kNone, false},
    {AV_CODEC_ID_SUBRIP, kSubtitle, "S_TEXT/UTF8", "SubRip", Private::kNone, false},
    {AV_CODEC_ID_TEXT, kSubtitle, "S_TEXT/UTF8", "plain text", Private::kNone, false},
    {AV_CODEC_ID_ASS, kSubtitle, "S_TEXT/ASS", "ASS", Private::kExtradata, false},
    {AV_CODEC_ID_SSA, kSubtitle, "S_TEXT/ASS", "SSA", Private::kExtradata, false},
    {AV_CODEC_ID_WEBVTT, kSubtitle, "S_TEXT/WEBVTT", "WebVTT", Private::kExtradata, true},
    {AV_CODEC_ID_HDMV_PGS_SUBTITLE, kSubtitle, "S_HDMV/PGS", "PGS", Private::kNone, false},
};

const Row* findRow(AVCodecID id) {
  for (const auto& r : kRows)
    if (r.id == id) return &r;
  return nullptr;
}

std::string readableName(AVCodecID id) {
  if (const Row* r = findRow(id)) return r->name;
  std::string s = avcodec_get_name(id);
  for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

const char* kindName(AVMediaType type) {
  switch (type) {
    case AVMEDIA_TYPE_VIDEO: return "video";
    case AVMEDIA_TYPE_AUDIO: return "audio";
    case AVMEDIA_TYPE_SUBTITLE: return "subtitles";
    default: return "data";
  }
}

const char* webvttKind(int disposition) {
  if (disposition & AV_DISPOSITION_CAPTIONS) return "D_WEBVTT/CAPTIONS";
  if (disposition & AV_DISPOSITION_DESCRIPTIONS) return "D_WEBVTT/DESCRIPTIONS";
  if (disposition & AV_DISPOSITION_METADATA) return "D_WEBVTT/METADATA";
  return "D_WEBVTT/SUBTITLES";
}

StreamMapping failed(std::string why) {
  StreamMapping m;
  m.error = std::move(why);
  return m;
}

// In-band parameters (H.264/HEVC/AV1 extradata that is not yet a record, or none) wait for the first key frame.
bool fromStreamBytes(Private kind, const uint8_t* data, size_t size, std::vector<uint8_t>& out) {
  switch (kind) {
    case Private::kAvc: return Kapsel::buildAvcConfigurationRecord(data, size, out);
    case Private::kHevc: return Kapsel::buildHevcConfigurationRecord(data, size, out);
    case Private::kAv1: return Kapsel::buildAv1ConfigurationRecord(data, size, out);
    case Private::kAac: return Kapsel::adtsAudioSpecificConfig(data, size, out);
    default: return false;
  }
}

Private kindOf(const StreamMapping& m) {
  if (m.codecId == "V_MPEG4/ISO/AVC") return Private::kAvc;
  if (m.codecId == "V_MPEGH/ISO/HEVC") return Private::kHevc;
  if (m.codecId == "V_AV1") return Private::kAv1;
  if (m.codecId == "A_AAC") return Private::kAac;
  return Private::kNone;
}

// Fills codecPrivate and conversion for the codecs whose extradata needs looking at; false: unusable.
bool setPrivate(const Row& row, const AVCodecParameters& par, StreamMapping& m) {
  const uint8_t* x = par.extradata;
  const size_t n = par.extradata && par.extradata_size > 0 ? static_cast<size_t>(par.extradata_size) : 0;
  const bool have = n > 0;
  switch (row.priv) {
    case Private::kNone: return true;
    case Private::kExtradata:
      if (have) m.codecPrivate.assign(x, x + n);
      return true;
    case Private::kAvc:
    case Private::kHevc: {
      const bool record = row.priv == Private::kAvc ? Kapsel::isAvcConfigurationRecord(x, n)
                                                     : Kapsel::isHevcConfigurationRecord(x, n);
      if (record && !Kapsel::isAnnexB(x, n)) {
        m.codecPrivate.assign(x, x + n);
        return true;
      }
      m.conversion = FrameConversion::kAnnexBToLengthPrefixed;
      m.needsFirstPacket = !fromStreamBytes(row.priv, x, n, m.codecPrivate);
      return true;
    }
    case Private::kAv1:
      m.conversion = FrameConversion::kAv1DropDelimiters;
      if (Kapsel::isAv1ConfigurationRecord(x, n)) {
        m.codecPrivate.assign(x, x + n);
        return true;
      }
      m.needsFirstPacket = !fromStreamBytes(row.priv, x, n, m.codecPrivate);
      return true;
    case Private::kAac:
      if (have && !Kapsel::isAdts(x, n)) {
        m.codecPrivate.assign(x, x + n);
        return true;
      }
      m.conversion = FrameConversion::kStripAdts;
      m.needsFirstPacket = true;
      return true;
    case Private::kFlac: return Kapsel::flacCodecPrivate(x, n, m.codecPrivate);
    case Private::kOpus:
      if (!Kapsel::opusCodecDelay(x, n, m.codecDelayNs)) return false;
      m.codecPrivate.assign(x, x + n);
      m.seekPreRollNs = Kapsel::kOpusSeekPreRollNs;
      return true;
    case Private::kXiph: {
      std::vector<Kapsel::CodecBytes> headers;
      return Kapsel::splitXiphHeaders(x, n, headers) && Kapsel::xiphCodecPrivate(headers, m.codecPrivate);
    }
    case Private::kAlac: return Kapsel::alacCodecPrivate(x, n, m.codecPrivate);
  }
  return false;
}

// From the configuration itself: demuxers do not all fill bits_per_raw_sample.
uint64_t bitDepthOf(const Row& row, const AVCodecParameters& par, const std::vector<uint8_t>& priv) {
  if (std::string(row.codecId).compare(0, 6, "A_PCM/") == 0) return static_cast<uint64_t>(av_get_bits_per_sample(par.codec_id));
  if (row.priv == Private::kFlac && priv.size() >= 8 + 14) return (((priv[8 + 12] & 1u) << 4) | (priv[8 + 13] >> 4)) + 1;
  if (row.priv == Private::kAlac && priv.size() >= 6) return priv[5];
  return 0;
}

}  // namespace

StreamMapping mapStream(const AVCodecParameters& par, bool webm, int disposition) {
  const Row* row = findRow(par.codec_id);
  if (webm && (!row || !row->webm))
    return failed("WebM cannot hold " + readableName(par.codec_id) + "; WebM takes VP8, VP9, AV1, Vorbis, Opus and WebVTT");
  if (!row)
    return failed("Kapsel cannot write " + readableName(par.codec_id) + " " + kindName(par.codec_type) +
                  " into Matroska yet");
  StreamMapping m;
  m.trackType = row->type;
  m.codecId = row->codecId;
  m.codecName = row->name;
  if (par.codec_id == AV_CODEC_ID_WEBVTT && webm) m.codecId = webvttKind(disposition);
  if (!setPrivate(*row, par, m)) return failed("the " + m.codecName + " stream has no usable codec configuration");
  m.bitDepth = bitDepthOf(*row, par, m.codecPrivate);
  m.ok = true;
  return m;
}

bool StreamMapping::takeFirstPacket(const uint8_t* data, size_t size) {
  if (!needsFirstPacket) return true;
  std::vector<uint8_t> built;
  if (!fromStreamBytes(kindOf(*this), data, size, built)) {
    error = codecId == "A_AAC" ? "the AAC stream is neither in ADTS frames nor has a decoder configuration"
                                : "the " + codecName + " stream carries no usable parameter sets before its first frame";
    return false;
  }
  codecPrivate = std::move(built);
  needsFirstPacket = false;
  return true;
}

bool StreamMapping::convert(const uint8_t* data, size_t size, std::vector<uint8_t>& buffer, const uint8_t** outData,
                            size_t* outSize) const {
  bool done = true;
  switch (conversion) {
    case FrameConversion::kNone:
      *outData = data;
      *outSize = size;
      return true;
    case FrameConversion::kAnnexBToLengthPrefixed: done = Kapsel::annexBToLengthPrefixed(data, size, buffer); break;
    case FrameConversion::kStripAdts: done = Kapsel::stripAdts(data, size, buffer); break;
    case FrameConversion::kAv1DropDelimiters: done = Kapsel::stripAv1TemporalDelimiters(data, size, buffer); break;
  }
  if (!done) return false;
  *outData = buffer.data();
  *outSize = buffer.size();
  return true;
}

}  // namespace kapsel_cli
