// Streams of the inputs described as tracks and attachments for the writer.

extern "C" {
#include <libavutil/mastering_display_metadata.h>
#include <libavutil/pixdesc.h>
}

#include <algorithm>

#include "tools/mux_common.h"

namespace kapsel_cli {

namespace {

// CodecID, CodecPrivate, codec delay and pre-roll of one stream.
Mapping mapCodec(const AVStream* st, bool webm, OutTrack& t, std::string& message) {
  t.mapping = mapStream(*st->codecpar, false, st->disposition);
  if (!t.mapping.ok) {
    message = t.mapping.error;
    return Mapping::kNoCodec;
  }
  t.codecName = t.mapping.codecName;
  if (webm) {
    t.mapping = mapStream(*st->codecpar, true, st->disposition);
    if (!t.mapping.ok) {
      message = t.mapping.error;
      return Mapping::kNotInWebm;
    }
  }
  Kapsel::TTrackSpec& s = t.desc;
  s.codecId = t.mapping.codecId;
  s.codecName = t.mapping.codecName;
  s.codecPrivate = t.mapping.codecPrivate;
  s.codecDelay = t.mapping.codecDelayNs;
  s.seekPreRoll = t.mapping.seekPreRollNs;
  s.bitDepth = static_cast<uint32_t>(t.mapping.bitDepth);
  return Mapping::kOk;
}

// Generic names that muxers put in handler_name, which are not the stream's name.
bool genericHandler(const std::string& name) {
  const std::string l = lower(name);
  return l.empty() || l.find("handler") != std::string::npos || l.rfind("core media", 0) == 0 ||
         l.rfind("gpac", 0) == 0 || l.rfind("l-smash", 0) == 0;
}

std::string tag(const AVStream* st, const char* key) {
  const AVDictionaryEntry* e = av_dict_get(st->metadata, key, nullptr, 0);
  return e ? e->value : "";
}

void describeColour(const AVStream* st, Kapsel::TColourSpec& c) {
  const AVCodecParameters* p = st->codecpar;
  // libav's colour enumerations are the ISO/IEC 23091-4 code points that Matroska uses too.
  if (p->color_space != AVCOL_SPC_UNSPECIFIED && p->color_space < AVCOL_SPC_NB) c.matrixCoefficients = p->color_space;
  if (p->color_trc != AVCOL_TRC_UNSPECIFIED && p->color_trc < AVCOL_TRC_NB) c.transferCharacteristics = p->color_trc;
  if (p->color_primaries != AVCOL_PRI_UNSPECIFIED && p->color_primaries < AVCOL_PRI_NB) c.primaries = p->color_primaries;
  if (p->color_range == AVCOL_RANGE_MPEG) c.range = 1;
  if (p->color_range == AVCOL_RANGE_JPEG) c.range = 2;
  switch (p->chroma_location) {
    case AVCHROMA_LOC_LEFT: c.chromaSitingHorz = 1, c.chromaSitingVert = 2; break;
    case AVCHROMA_LOC_CENTER: c.chromaSitingHorz = 2, c.chromaSitingVert = 2; break;
    case AVCHROMA_LOC_TOPLEFT: c.chromaSitingHorz = 1, c.chromaSitingVert = 1; break;
    case AVCHROMA_LOC_TOP: c.chromaSitingHorz = 2, c.chromaSitingVert = 1; break;
    default: break;
  }
  if (const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(p->format))) {
    if (!(d->flags & AV_PIX_FMT_FLAG_RGB) && d->nb_components >= 3) {
      c.chromaSubsamplingHorz = d->log2_chroma_w;
      c.chromaSubsamplingVert = d->log2_chroma_h;
      c.bitsPerChannel = d->comp[0].depth;
    }
  }
  size_t size = 0;
  if (const auto* cll = reinterpret_cast<const AVContentLightMetadata*>(
          av_stream_get_side_data(st, AV_PKT_DATA_CONTENT_LIGHT_LEVEL, &size))) {
    if (size >= sizeof *cll) c.maxCll = static_cast<int>(cll->MaxCLL), c.maxFall = static_cast<int>(cll->MaxFALL);
  }
}

// Nanoseconds per frame when the stream's frames have one constant duration; 0 otherwise.
uint64_t frameDuration(const AVStream* st) {
  const AVCodecParameters* p = st->codecpar;
  if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
    // A stream whose average rate differs from its base rate has frames of several durations.
    const AVRational avg = st->avg_frame_rate, base = st->r_frame_rate;
    if (avg.num <= 0 || avg.den <= 0 || av_cmp_q(avg, base) != 0) return 0;
    return static_cast<uint64_t>(av_rescale(1000000000, avg.den, avg.num));
  }
  if (p->codec_type != AVMEDIA_TYPE_AUDIO || p->sample_rate <= 0) return 0;
  // Only codecs whose every frame holds the same number of samples.
  int samples = 0;
  switch (p->codec_id) {
    case AV_CODEC_ID_AAC: samples = p->frame_size > 0 ? p->frame_size : 1024; break;
    case AV_CODEC_ID_MP3: samples = p->sample_rate < 32000 ? 576 : 1152; break;
    case AV_CODEC_ID_MP2: samples = 1152; break;
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3: samples = p->frame_size > 0 ? p->frame_size : 1536; break;
    default: return 0;
  }
  return static_cast<uint64_t>(av_rescale(samples, 1000000000, p->sample_rate));
}

}  // namespace

Mapping describeStream(AVFormatContext* fmt, int index, bool webm, OutTrack& t, std::string& message) {
  AVStream* st = fmt->streams[index];
  const AVCodecParameters* p = st->codecpar;
  t.st = st;
  Kapsel::TTrackSpec& s = t.desc;
  switch (p->codec_type) {
    case AVMEDIA_TYPE_VIDEO: s.kind = Kapsel::TTrackKind::kVideo; break;
    case AVMEDIA_TYPE_AUDIO: s.kind = Kapsel::TTrackKind::kAudio; break;
    case AVMEDIA_TYPE_SUBTITLE: s.kind = Kapsel::TTrackKind::kSubtitle; break;
    default:
      message = std::string("no Matroska track for ") + mediaKind(p->codec_type) + " streams";
      return Mapping::kNoCodec;
  }
  if (const Mapping m = mapCodec(st, webm, t, message); m != Mapping::kOk) return m;

  const std::string language = lower(tag(st, "language"));
  s.language = language.size() == 3 && language.find_first_not_of("abcdefghijklmnopqrstuvwxyz") == std::string::npos
                   ? language : "und";
  s.name = tag(st, "title");
  if (s.name.empty() && !genericHandler(tag(st, "handler_name"))) s.name = tag(st, "handler_name");
  if (st->disposition & AV_DISPOSITION_FORCED) s.flagForced = 1;
  s.defaultDuration = frameDuration(st);

  if (p->codec_type == AVMEDIA_TYPE_VIDEO) {
    s.pixelWidth = static_cast<uint32_t>(std::max(p->width, 0));
    s.pixelHeight = static_cast<uint32_t>(std::max(p->height, 0));
    // Anamorphic video: the display size keeps the picture's shape.
    const AVRational sar = av_guess_sample_aspect_ratio(fmt, st, nullptr);
    if (sar.num > 0 && sar.den > 0 && sar.num != sar.den && p->width > 0) {
      s.displayWidth = static_cast<uint32_t>(av_rescale(p->width, sar.num, sar.den));
      s.displayHeight = s.pixelHeight;
    }
    describeColour(st, s.colour);
  } else if (p->codec_type == AVMEDIA_TYPE_AUDIO) {
    s.samplingFrequency = p->sample_rate;
    s.channels = static_cast<uint32_t>(std::max(p->ch_layout.nb_channels, 0));
  }
  return Mapping::kOk;
}

bool describeAttachment(const AVStream* st, Kapsel::TAttachmentSpec& a) {
  const AVCodecParameters* p = st->codecpar;
  a.name = tag(st, "filename");
  a.mimeType = tag(st, "mimetype");
  a.description = tag(st, "title");
  if (p->codec_type == AVMEDIA_TYPE_ATTACHMENT) {
    if (!p->extradata || p->extradata_size <= 0) return false;
    a.data.assign(p->extradata, p->extradata + p->extradata_size);
  } else {
    // A cover picture of an audio file.
    const AVPacket& pic = st->attached_pic;
    if (!pic.data || pic.size <= 0) return false;
    a.data.assign(pic.data, pic.data + pic.size);
    const bool png = p->codec_id == AV_CODEC_ID_PNG;
    if (a.mimeType.empty()) a.mimeType = png ? "image/png" : "image/jpeg";
    if (a.name.empty()) a.name = png ? "cover.png" : "cover.jpg";
  }
  if (a.name.empty()) a.name = "attachment";
  if (a.mimeType.empty()) a.mimeType = "application/octet-stream";
  return true;
}

}  // namespace kapsel_cli
