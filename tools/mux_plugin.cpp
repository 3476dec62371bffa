// kapsel mux --plugin: plays the host for the formatter plug-in, one video and one audio stream.

#include <sys/stat.h>
#include <unistd.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
}

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>

#include "formatter/kapsel_formatter_results.h"
#include "host_sdk/host_sdk.h"
#include "host_sdk/plugin_module.h"
#include "host_sdk/reference.h"
#include "kapsel/kapsel.h"
#include "tools/cli_support.h"
#include "tools/commands.h"
#include "tools/mux_common.h"

namespace kapsel_cli {

namespace {

namespace fs = std::filesystem;

std::string findPlugin(const std::string& chosen, const std::string& programPath, std::string& error) {
  std::vector<std::string> candidates;
  if (!chosen.empty()) {
    candidates.push_back(chosen);
  } else {
    if (const char* env = std::getenv("KAPSEL_PLUGIN")) candidates.push_back(env);
    std::error_code ec;
    fs::path self = fs::canonical("/proc/self/exe", ec);
    if (ec) self = fs::absolute(programPath, ec);
    const fs::path dir = self.parent_path();
    candidates.push_back((dir / "kapsel_formatter.so").string());
    candidates.push_back((dir / "../lib/kapsel/kapsel_formatter.so").string());
    candidates.push_back((dir / "../formatter/kapsel_formatter.so").string());
  }
  for (const auto& c : candidates)
    if (access(c.c_str(), R_OK) == 0) return c;
  error = chosen.empty() ? "cannot find the formatter module kapsel_formatter.so (use --plugin PATH)"
                         : "cannot read the formatter module " + chosen;
  return "";
}

struct Codec {
  uint32_t maker = 0;
  uint32_t code = 0;
  const char* name = "";
};

Codec videoCodecFor(AVCodecID id) {
  switch (id) {
    case AV_CODEC_ID_VP8: return {FourCC("ON2!"), FourCC("VP8 "), "VP8"};
    case AV_CODEC_ID_H264: return {FourCC("KVI "), FourCC("H264"), "H.264"};
    case AV_CODEC_ID_MPEG4: return {FourCC("KVI "), FourCC("MP4V"), "MPEG-4 Part 2"};
    case AV_CODEC_ID_VP9: return {FourCC("KVI "), FourCC("VP90"), "VP9"};
    case AV_CODEC_ID_AV1: return {FourCC("KVI "), FourCC("AV01"), "AV1"};
    case AV_CODEC_ID_HEVC: return {FourCC("KVI "), FourCC("HEVC"), "HEVC"};
    default: return {0, 0, avcodec_get_name(id)};
  }
}

Codec audioCodecFor(AVCodecID id) {
  switch (id) {
    case AV_CODEC_ID_VORBIS: return {FourCC("KVI "), FourCC("VRBS"), "Vorbis"};
    case AV_CODEC_ID_AAC: return {FourCC("KVI "), FourCC("AAC "), "AAC"};
    case AV_CODEC_ID_MP3: return {FourCC("KVI "), FourCC("MP3 "), "MP3"};
    case AV_CODEC_ID_AC3: return {FourCC("KVI "), FourCC("AC3 "), "AC-3"};
    case AV_CODEC_ID_OPUS: return {FourCC("KVI "), FourCC("Opus"), "Opus"};
    case AV_CODEC_ID_FLAC: return {FourCC("KVI "), FourCC("FLAC"), "FLAC"};
    case AV_CODEC_ID_PCM_S16LE:
    case AV_CODEC_ID_PCM_S24LE:
    case AV_CODEC_ID_PCM_S32LE:
    case AV_CODEC_ID_PCM_U8: return {FourCC("KVI "), FourCC("LPCM"), "PCM"};
    default: return {0, 0, avcodec_get_name(id)};
  }
}

std::string upperName(const char* name) {
  std::string s = name;
  for (auto& c : s) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return s;
}

const char* channelMode(int channels) {
  switch (channels) {
    case 1: return "Mono";
    case 2: return "Stereo";
    case 6: return "5.1";
    case 7: return "6.1";
    case 8: return "7.1";
    default: return nullptr;
  }
}

struct Selected {
  int input = -1;
  int stream = -1;
  AVStream* st = nullptr;
  Codec codec;
  uint64_t frames = 0;
  uint64_t bytes = 0;
  bool sentConfig = false;
  std::vector<uint8_t> config;
  AVBSFContext* bsf = nullptr;
  int64_t lastTime = 0;
  ~Selected() { av_bsf_free(&bsf); }
};

// Splits Xiph-laced Vorbis extradata into its three header packets.
bool vorbisHeaders(const uint8_t* data, size_t size, std::vector<std::vector<uint8_t>>& headers) {
  if (size < 3 || data[0] != 2) return false;
  size_t pos = 1;
  size_t sizes[2] = {0, 0};
  for (auto& s : sizes) {
    while (pos < size && data[pos] == 255) s += data[pos++];
    if (pos >= size) return false;
    s += data[pos++];
  }
  if (sizes[0] + sizes[1] > size - pos) return false;
  headers.assign({std::vector<uint8_t>(data + pos, data + pos + sizes[0]),
                  std::vector<uint8_t>(data + pos + sizes[0], data + pos + sizes[0] + sizes[1]),
                  std::vector<uint8_t>(data + pos + sizes[0] + sizes[1], data + size)});
  return true;
}

}  // namespace

int runPluginMux(const MuxOptions& o, const std::string& programPath, InputList& inputs, bool webm) {
  const uint32_t formatCode = webm ? FourCC("WEBM") : FourCC("MKV ");
  const char* formatName = webm ? "WebM" : "Matroska";

  Selected video, audio;
  auto pick = [&](AVMediaType type, int wanted, Selected& sel) -> bool {
    for (size_t i = 0; i < inputs.size(); ++i) {
      AVFormatContext* f = inputs[i]->fmt;
      int idx = -1;
      if (wanted >= 0) {
        if (wanted < static_cast<int>(f->nb_streams) && f->streams[wanted]->codecpar->codec_type == type) idx = wanted;
      } else {
        idx = av_find_best_stream(f, type, -1, -1, nullptr, 0);
      }
      if (idx >= 0) {
        sel.input = static_cast<int>(i);
        sel.stream = idx;
        sel.st = f->streams[idx];
        return true;
      }
    }
    return false;
  };
  if (!o.noVideo && !pick(AVMEDIA_TYPE_VIDEO, o.videoStream, video) && o.videoStream >= 0)
    return fail("stream " + std::to_string(o.videoStream) + " is not a video stream");
  if (!o.noAudio && !pick(AVMEDIA_TYPE_AUDIO, o.audioStream, audio) && o.audioStream >= 0)
    return fail("stream " + std::to_string(o.audioStream) + " is not an audio stream");
  if (!video.st && !audio.st) return fail("no usable video or audio stream in the input");
  std::vector<std::pair<int, int>> chosen;
  if (video.st) chosen.emplace_back(video.input, video.stream);
  if (audio.st) chosen.emplace_back(audio.input, audio.stream);
  if (!o.quiet) reportLeftOut(inputs, chosen);

  // The plug-in.
  std::string error;
  const std::string pluginPath = findPlugin(o.plugin, programPath, error);
  if (pluginPath.empty()) return fail(error);
  PluginModule plugin;
  if (!plugin.open(pluginPath, &error)) return fail(error);
  if (!plugin.findMaker(formatCode, nullptr)) return fail(std::string("the formatter module does not write ") + formatName);
  CAFormatter* formatter = plugin.createFor(formatCode);
  if (!formatter) return fail("the formatter module refused to create a formatter");
  struct Releaser {
    CAFormatter*& f;
    ~Releaser() {
      if (f) f->Release();
    }
  } releaser{formatter};

  const std::string accepts =
      webm ? "it accepts VP8, VP9 and AV1 video and Vorbis and Opus audio"
           : "it accepts VP8, VP9, AV1, H.264, HEVC and MPEG-4 Part 2 video and Vorbis, Opus, FLAC, AAC, AC-3, MP3 and "
             "PCM audio";
  RefVideoCompressor vc;
  RefAudioCompressor ac;
  if (video.st) {
    AVCodecParameters* p = video.st->codecpar;
    video.codec = videoCodecFor(p->codec_id);
    if (!video.codec.code || !formatter->SupportsVideoCodec(video.codec.maker, video.codec.code))
      return fail("Kapsel cannot write " + upperName(video.codec.name) + " video into " + formatName + " yet; " + accepts);
    if ((p->codec_id == AV_CODEC_ID_H264 || p->codec_id == AV_CODEC_ID_HEVC) &&
        (p->extradata_size < 7 || p->extradata[0] != 1))
      return fail(upperName(video.codec.name) + " without a decoder configuration record (Annex-B stream) goes through "
                  "the plug-in only from MP4 or Matroska; without --plugin it is converted");
    if (p->extradata && p->extradata_size > 0) video.config.assign(p->extradata, p->extradata + p->extradata_size);
    vc.params.maker = video.codec.maker;
    vc.params.codec = video.codec.code;
    vc.params.width = static_cast<uint32_t>(p->width);
    vc.params.height = static_cast<uint32_t>(p->height);
    AVRational rate = video.st->avg_frame_rate.num ? video.st->avg_frame_rate : video.st->r_frame_rate;
    vc.params.frameRate = rate.num && rate.den ? av_q2d(rate) : 25.0;
    vc.params.displayName = video.codec.name;
    if (o.keyframeInterval) vc.params.keyFrameInterval = o.keyframeInterval;
  }
  std::vector<std::vector<uint8_t>> vorbis;
  if (audio.st) {
    AVCodecParameters* p = audio.st->codecpar;
    audio.codec = audioCodecFor(p->codec_id);
    // The plug-in writes AC-3 into Matroska although it does not list it among the codecs it supports.
    const bool ac3 = !webm && p->codec_id == AV_CODEC_ID_AC3;
    if (!audio.codec.code || !(ac3 || formatter->SupportsAudioCodec(audio.codec.maker, audio.codec.code)))
      return fail("Kapsel cannot write " + upperName(audio.codec.name) + " audio into " + formatName + " yet; " + accepts);
    const char* mode = channelMode(p->ch_layout.nb_channels);
    if (!mode) return fail(std::to_string(p->ch_layout.nb_channels) + " audio channels are not supported (1, 2, 6, 7 or 8)");
    if (p->codec_id == AV_CODEC_ID_VORBIS && !vorbisHeaders(p->extradata, static_cast<size_t>(p->extradata_size), vorbis))
      return fail("the Vorbis stream has no usable header packets");
    if ((p->codec_id == AV_CODEC_ID_OPUS || p->codec_id == AV_CODEC_ID_FLAC) && p->extradata && p->extradata_size > 0)
      audio.config.assign(p->extradata, p->extradata + p->extradata_size);
    if (p->codec_id == AV_CODEC_ID_AAC) {
      if (p->extradata && p->extradata_size > 0) {
        audio.config.assign(p->extradata, p->extradata + p->extradata_size);
      } else {
        // ADTS: headers are stripped and the decoder configuration produced by libavcodec.
        const AVBitStreamFilter* f = av_bsf_get_by_name("aac_adtstoasc");
        if (!f || av_bsf_alloc(f, &audio.bsf) < 0 || avcodec_parameters_copy(audio.bsf->par_in, p) < 0 ||
            (audio.bsf->time_base_in = audio.st->time_base, av_bsf_init(audio.bsf) < 0))
          return fail("cannot convert the ADTS AAC stream");
      }
    }
    ac.params.maker = audio.codec.maker;
    ac.params.codec = audio.codec.code;
    ac.params.sampleRate = static_cast<uint32_t>(p->sample_rate);
    int bits = p->bits_per_coded_sample ? p->bits_per_coded_sample : av_get_bits_per_sample(p->codec_id);
    ac.params.bitsPerSample = static_cast<uint32_t>(bits > 0 ? bits : 16);
    ac.params.channelMode = mode;
    ac.params.displayName = audio.codec.name;
  }

  // Times are shifted alike so that none is negative; the packets read to find out are muxed later.
  const int64_t shiftNs = startShift(inputs, chosen);

  // The plug-in writes a temporary file that becomes the output only when it is complete.
  TempOutput temp;
  if (!temp.create(o.output, error)) return fail(error);
  setGracefulStop(true);

  // Host configuration.
  formatter->SetOutputFile(CKVString(temp.path()));
  const int64_t duration = longestDuration(inputs);
  formatter->SetDurationHint(0, static_cast<uint64_t>(duration), AV_TIME_BASE);
  Array_c<CAceNameValuePair> meta;
  for (const auto& m : metadataEntries(inputs[0]->fmt, o.meta, false)) meta.Add(CAceNameValuePair(m.first, m.second));
  if (meta.GetCount()) formatter->SetMetaData(&meta);
  std::vector<std::unique_ptr<CAceMarker>> markers;
  for (auto& in : inputs) {
    for (unsigned i = 0; i < in->fmt->nb_chapters; ++i) {
      const AVChapter* c = in->fmt->chapters[i];
      const AVDictionaryEntry* t = av_dict_get(c->metadata, "title", nullptr, 0);
      markers.push_back(std::make_unique<CAceMarker>(CAceMarker::kMarkerTypeChapter,
                                                     t ? t->value : "Chapter " + std::to_string(i + 1),
                                                     static_cast<int64_t>(c->start) * c->time_base.num,
                                                     static_cast<uint64_t>(c->time_base.den)));
    }
    if (!markers.empty()) break;
  }
  for (const auto& c : o.chapters)
    markers.push_back(std::make_unique<CAceMarker>(CAceMarker::kMarkerTypeChapter, c.second, c.first));
  std::stable_sort(markers.begin(), markers.end(),
                   [](const auto& a, const auto& b) { return a->GetEncodedFrameTime() < b->GetEncodedFrameTime(); });
  CAceMarkerPtrList markerList;
  for (auto& m : markers) markerList.Add(m.get());
  if (markers.size()) formatter->SetChapterMarkers(&markerList);
  SetStreams(*formatter, video.st ? &vc : nullptr, audio.st ? &ac : nullptr);

  const uint32_t begun = formatter->BeginFormatting();
  if (begun == kapsel_formatter::kResultOutputNotOpened) return fail("cannot open " + o.output + " for writing");
  if (begun == kapsel_formatter::kResultUnknownVideoCodec) return fail("the formatter does not know the video codec " + std::string(video.codec.name));
  if (begun == kapsel_formatter::kResultUnknownAudioCodec) return fail("the formatter does not know the audio codec " + std::string(audio.codec.name));
  if (begun != 0) return fail("the formatter refused to start (result " + std::to_string(begun) + ")");

  if (!vorbis.empty()) {
    std::vector<RefAudioPacket> headers;
    for (auto& h : vorbis) headers.push_back({h, 0, 1000});
    KVAudio_t s = MakeAudioSample(headers);
    formatter->AddAudioSample(&s);
    ReleaseSample(s);
  }

  Progress progress("mux", progressMode(o.progress, o.quiet), Progress::Speed::RealTime);
  progress.setTotals(duration > 0 ? duration / double(AV_TIME_BASE) : 0, 0);
  const auto started = std::chrono::steady_clock::now();
  uint64_t bytesIn = 0;
  AVPacket* filtered = av_packet_alloc();
  double endSeconds = 0;  // the latest end of a packet handed over, for the interruption message

  // Times go over as the input has them, or in nanoseconds when they are shifted.
  auto timeArgs = [&](int64_t t, AVRational tb, int64_t& value, uint64_t& units) {
    if (shiftNs == 0) {
      value = t * tb.num;
      units = static_cast<uint64_t>(tb.den);
    } else {
      value = av_rescale_q(t, tb, kNanoseconds) + shiftNs;
      units = 1000000000;
    }
  };
  auto noteEnd = [&](const AVPacket* p, int64_t t, AVRational tb) {
    endSeconds = std::max(endSeconds, (t + std::max<int64_t>(p->duration, 0)) * av_q2d(tb) + shiftNs / 1e9);
  };

  auto sendVideo = [&](AVPacket* p) {
    const int64_t pts = p->pts != AV_NOPTS_VALUE ? p->pts : (p->dts != AV_NOPTS_VALUE ? p->dts : video.lastTime);
    const int64_t dts = p->dts != AV_NOPTS_VALUE ? p->dts : pts;
    video.lastTime = pts;
    const AVRational tb = video.st->time_base;
    const std::vector<uint8_t>* config = !video.sentConfig && !video.config.empty() ? &video.config : nullptr;
    int64_t value = 0, offset = 0;
    uint64_t units = 1;
    timeArgs(pts, tb, value, units);
    offset = shiftNs == 0 ? (pts - dts) * tb.num : av_rescale_q(pts - dts, tb, kNanoseconds);
    noteEnd(p, pts, tb);
    KVImage_t s = MakeVideoSample(p->data, static_cast<size_t>(p->size), value, units, offset,
                                  (p->flags & AV_PKT_FLAG_KEY) != 0, config);
    video.sentConfig = true;
    formatter->AddVideoSample(&s);
    ReleaseSample(s);
    ++video.frames;
    video.bytes += static_cast<uint64_t>(p->size);
  };
  auto sendAudio = [&](AVPacket* p) {
    const int64_t t = p->pts != AV_NOPTS_VALUE ? p->pts : (p->dts != AV_NOPTS_VALUE ? p->dts : audio.lastTime);
    audio.lastTime = t;
    const AVRational tb = audio.st->time_base;
    if (audio.config.empty() && audio.bsf) {
      size_t n = 0;
      const uint8_t* side = av_packet_get_side_data(p, AV_PKT_DATA_NEW_EXTRADATA, &n);
      if (side && n) audio.config.assign(side, side + n);
      else if (audio.bsf->par_out->extradata_size > 0)
        audio.config.assign(audio.bsf->par_out->extradata, audio.bsf->par_out->extradata + audio.bsf->par_out->extradata_size);
    }
    const std::vector<uint8_t>* config = !audio.sentConfig && !audio.config.empty() ? &audio.config : nullptr;
    int64_t value = 0;
    uint64_t units = 1;
    timeArgs(t, tb, value, units);
    noteEnd(p, t, tb);
    std::vector<RefAudioPacket> one{{std::vector<uint8_t>(p->data, p->data + p->size), value, units}};
    KVAudio_t s = MakeAudioSample(one, config);
    if (config) audio.sentConfig = true;
    formatter->AddAudioSample(&s);
    ReleaseSample(s);
    ++audio.frames;
    audio.bytes += static_cast<uint64_t>(p->size);
  };

  // Packets of several inputs are merged in decode-time order.
  PacketPump pump(inputs);
  PacketPump::Event event;
  // A first SIGINT or SIGTERM stops the reading; the file is finished with what was muxed.
  while (!stopSignal() && pump.next(event)) {
    if (!event.packet) continue;
    AVPacket* pkt = event.packet;
    bytesIn += static_cast<uint64_t>(pkt->size);
    if (event.input == video.input && pkt->stream_index == video.stream) {
      sendVideo(pkt);
    } else if (event.input == audio.input && pkt->stream_index == audio.stream) {
      if (!audio.bsf) {
        sendAudio(pkt);
      } else if (av_bsf_send_packet(audio.bsf, pkt) >= 0) {
        while (av_bsf_receive_packet(audio.bsf, filtered) == 0) {
          sendAudio(filtered);
          av_packet_unref(filtered);
        }
      }
    }
    pump.recycle(pkt);
    progress.update(bytesIn, endSeconds);
  }
  pump.stop();
  const int readError = pump.error();
  av_packet_free(&filtered);
  const int sig = stopSignal();
  progress.finish(!readError && !sig);

  // The module's own summary lines go to its standard error, for hosts; here they are shown only with --verbose.
  std::string moduleLines;
  {
    std::fflush(stderr);
    std::FILE* capture = std::tmpfile();
    const int saved = capture ? dup(STDERR_FILENO) : -1;
    if (saved >= 0) dup2(fileno(capture), STDERR_FILENO);
    formatter->EndFormatting(nullptr);
    std::fflush(stderr);
    if (saved >= 0) {
      dup2(saved, STDERR_FILENO);
      close(saved);
      std::rewind(capture);
      char buf[4096];
      for (size_t n; (n = std::fread(buf, 1, sizeof buf, capture)) > 0;) moduleLines.append(buf, n);
    }
    if (capture) std::fclose(capture);
  }
  formatter->Release();
  formatter = nullptr;
  if (o.verbose) {
    std::istringstream lines(moduleLines);
    for (std::string line; std::getline(lines, line);)
      if (!line.empty()) note("formatter: " + line);
  }

  if (readError && !sig) return fail("reading the input failed part-way: " + averr(readError));
  if (const int status = commitOutput(o.output, temp, video.frames + audio.frames != 0, sig, endSeconds); status >= 0) return status;

  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::error_code ec;
  const auto outSize = fs::file_size(o.output, ec);
  std::ostringstream summary;
  summary << "kapsel: wrote " << o.output << " (" << formatName << ", " << humanBytes(double(outSize)) << "): ";
  if (video.st)
    summary << "video " << video.codec.name << " " << video.frames << " frames, " << humanBytes(double(video.bytes));
  if (video.st && audio.st) summary << "; ";
  if (audio.st)
    summary << "audio " << audio.codec.name << " " << audio.frames << " packets, " << humanBytes(double(audio.bytes));
  char tail[128];
  std::snprintf(tail, sizeof tail, "; duration %.3f s; %.2f s at %.1f MB/s.", duration / double(AV_TIME_BASE), elapsed,
                elapsed > 0 ? bytesIn / 1e6 / elapsed : 0.0);
  summary << tail;
  if (!o.quiet) std::cerr << summary.str() << "\n";
  return 0;
}

}  // namespace kapsel_cli
