// kapsel mux: every stream of the inputs that the output can hold, written with the library's streaming writer.

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>

#include "kapsel/writer.h"
#include "tools/cli_support.h"
#include "tools/commands.h"
#include "tools/mux_common.h"

namespace kapsel_cli {

namespace {

namespace fs = std::filesystem;

bool attachedPicture(const AVStream* st) { return (st->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0; }

std::string streamName(const StreamRef& r) { return "stream " + std::to_string(r.first) + ":" + std::to_string(r.second); }

std::string seconds(int64_t ns) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.3f s", ns / 1e9);
  return buf;
}

// The streams to keep, in output order: the mapped ones, or every stream the options do not leave out.
bool chooseStreams(const MuxOptions& o, const InputList& inputs, std::vector<StreamRef>& chosen, std::string& error) {
  if (!o.maps.empty()) {
    for (const StreamRef& m : o.maps) {
      const unsigned count = inputs[static_cast<size_t>(m.first)]->fmt->nb_streams;
      if (m.second < 0 || static_cast<unsigned>(m.second) >= count)
        return error = "--map " + std::to_string(m.first) + ":" + std::to_string(m.second) + ": " +
                       inputs[static_cast<size_t>(m.first)]->path + " has " + std::to_string(count) + " streams",
               false;
      if (std::find(chosen.begin(), chosen.end(), m) != chosen.end())
        return error = "--map " + std::to_string(m.first) + ":" + std::to_string(m.second) + " is given twice", false;
      chosen.push_back(m);
    }
    return true;
  }
  // --video-stream N and --audio-stream N name stream N of the first input where it is of that kind.
  auto only = [&](AVMediaType type, int wanted, StreamRef& ref) {
    if (wanted < 0) return true;
    for (size_t i = 0; i < inputs.size(); ++i) {
      const AVFormatContext* f = inputs[i]->fmt;
      if (wanted < static_cast<int>(f->nb_streams) && f->streams[wanted]->codecpar->codec_type == type &&
          !attachedPicture(f->streams[wanted])) {
        ref = {static_cast<int>(i), wanted};
        return true;
      }
    }
    error = "stream " + std::to_string(wanted) + " is not " + (type == AVMEDIA_TYPE_VIDEO ? "a video" : "an audio") +
            " stream";
    return false;
  };
  StreamRef video(-1, -1), audio(-1, -1);
  if ((!o.noVideo && !only(AVMEDIA_TYPE_VIDEO, o.videoStream, video)) ||
      (!o.noAudio && !only(AVMEDIA_TYPE_AUDIO, o.audioStream, audio)))
    return false;
  for (size_t i = 0; i < inputs.size(); ++i) {
    const AVFormatContext* f = inputs[i]->fmt;
    for (unsigned s = 0; s < f->nb_streams; ++s) {
      const StreamRef ref(static_cast<int>(i), static_cast<int>(s));
      const AVStream* st = f->streams[s];
      const AVMediaType type = st->codecpar->codec_type;
      if (type == AVMEDIA_TYPE_VIDEO && !attachedPicture(st) && (o.noVideo || (video.first >= 0 && ref != video)))
        continue;
      if (type == AVMEDIA_TYPE_AUDIO && (o.noAudio || (audio.first >= 0 && ref != audio))) continue;
      if (type == AVMEDIA_TYPE_DATA || type == AVMEDIA_TYPE_UNKNOWN) continue;
      chosen.push_back(ref);
    }
  }
  return true;
}

// The default flag of each track: the input's own where its format keeps one (Matroska, or any of its streams marked
// default); the other inputs' first video and first audio track are the default when no track of that kind is.
void defaultFlags(std::vector<std::unique_ptr<OutTrack>>& tracks, const InputList& inputs) {
  std::vector<bool> keepsFlags;
  for (const auto& in : inputs) {
    bool keeps = std::string(in->fmt->iformat->name).find("matroska") != std::string::npos;
    for (unsigned s = 0; s < in->fmt->nb_streams; ++s) keeps |= (in->fmt->streams[s]->disposition & AV_DISPOSITION_DEFAULT) != 0;
    keepsFlags.push_back(keeps);
  }
  for (Kapsel::TTrackKind kind : {Kapsel::TTrackKind::kVideo, Kapsel::TTrackKind::kAudio, Kapsel::TTrackKind::kSubtitle}) {
    bool any = false;
    for (auto& t : tracks) {
      if (t->desc.kind != kind || !keepsFlags[static_cast<size_t>(t->ref.first)]) continue;
      const bool on = (t->st->disposition & AV_DISPOSITION_DEFAULT) != 0;
      t->desc.flagDefault = on ? 1 : 0;
      any |= on;
    }
    for (auto& t : tracks) {
      if (t->desc.kind != kind || keepsFlags[static_cast<size_t>(t->ref.first)]) continue;
      const bool on = !any && kind != Kapsel::TTrackKind::kSubtitle;
      t->desc.flagDefault = on ? 1 : 0;
      any |= on;
    }
  }
}

// Chapters of the first input that has any (with their ends), and --chapter ones (without), by start time.
std::vector<Kapsel::TChapterSpec> chapterList(const MuxOptions& o, const InputList& inputs) {
  std::vector<Kapsel::TChapterSpec> list;
  for (auto& in : inputs) {
    for (unsigned i = 0; i < in->fmt->nb_chapters; ++i) {
      const AVChapter* c = in->fmt->chapters[i];
      const AVDictionaryEntry* t = av_dict_get(c->metadata, "title", nullptr, 0);
      Kapsel::TChapterSpec desc;
      desc.start = std::max<int64_t>(av_rescale_q(c->start, c->time_base, kNanoseconds), 0);
      const int64_t end = c->end == AV_NOPTS_VALUE ? -1 : av_rescale_q(c->end, c->time_base, kNanoseconds);
      desc.end = end > desc.start ? end : -1;
      desc.title = t ? t->value : "Chapter " + std::to_string(i + 1);
      list.push_back(desc);
    }
    if (!list.empty()) break;
  }
  for (const auto& c : o.chapters) {
    Kapsel::TChapterSpec desc;
    desc.start = static_cast<int64_t>(std::llround(c.first * 1e9));
    desc.title = c.second;
    list.push_back(desc);
  }
  std::stable_sort(list.begin(), list.end(), [](const auto& a, const auto& b) { return a.start < b.start; });
  return list;
}

const char* kindName(Kapsel::TTrackKind kind) {
  switch (kind) {
    case Kapsel::TTrackKind::kVideo: return "video";
    case Kapsel::TTrackKind::kAudio: return "audio";
    default: return "subtitle";
  }
}

}  // namespace

int runMux(const MuxOptions& o, const std::string& programPath) {
  setUpLibav(o.quiet);
  if (const std::string same = sameFileAs(o.output, o.inputs); !same.empty())
    return fail("the output " + o.output + " is the input " + same + "; write to another file");
  bool webm = o.format == "webm";
  if (o.format.empty()) webm = lower(fs::path(o.output).extension().string()) == ".webm";
  InputList inputs;
  std::string error;
  if (!openInputs(o.inputs, inputs, error)) return fail(error);
  return o.usePlugin ? runPluginMux(o, programPath, inputs, webm) : runWriterMux(o, inputs, webm);
}

int runWriterMux(const MuxOptions& o, InputList& inputs, bool webm) {
  const char* formatName = webm ? "WebM" : "Matroska";
  std::string error;
  std::vector<StreamRef> candidates;
  if (!chooseStreams(o, inputs, candidates, error)) return o.maps.empty() ? fail(error) : usageError(error);

  // Tracks and attachments; streams no track can hold are named and left out, unless they were mapped.
  std::vector<std::unique_ptr<OutTrack>> tracks;
  std::vector<Kapsel::TAttachmentSpec> attachments;
  std::vector<StreamRef> kept;
  std::map<StreamRef, std::string> why;
  for (const StreamRef& ref : candidates) {
    AVFormatContext* f = inputs[static_cast<size_t>(ref.first)]->fmt;
    const AVStream* st = f->streams[ref.second];
    if (st->codecpar->codec_type == AVMEDIA_TYPE_ATTACHMENT || attachedPicture(st)) {
      Kapsel::TAttachmentSpec a;
      if (webm)
        why[ref] = "WebM holds no attachments";
      else if (!describeAttachment(st, a))
        why[ref] = "the attachment holds no data";
      else
        attachments.push_back(std::move(a)), kept.push_back(ref);
      if (!o.maps.empty() && why.count(ref)) return fail(streamName(ref) + ": " + why[ref]);
      continue;
    }
    auto t = std::make_unique<OutTrack>();
    t->ref = ref;
    std::string message;
    switch (describeStream(f, ref.second, webm, *t, message)) {
      case Mapping::kOk:
        kept.push_back(ref);
        tracks.push_back(std::move(t));
        break;
      case Mapping::kNoCodec:
        if (!o.maps.empty()) return fail(streamName(ref) + ": " + message);
        why[ref] = message;
        break;
      case Mapping::kNotInWebm:
        return fail(streamName(ref) + ": " + message + (o.maps.empty() ? " (--map picks the streams to keep)" : ""));
    }
  }
  if (!o.quiet && o.maps.empty()) reportLeftOut(inputs, kept, why);
  if (tracks.empty()) return fail("no video, audio or subtitle stream in the input that " + std::string(formatName) + " can hold");

  // Per-track options name output tracks from 1.
  defaultFlags(tracks, inputs);
  auto trackFor = [&](const char* option, unsigned number, OutTrack*& t) {
    if (number > tracks.size()) {
      error = std::string(option) + " " + std::to_string(number) + ":...: the output has " +
              std::to_string(tracks.size()) + (tracks.size() == 1 ? " track" : " tracks");
      return false;
    }
    t = tracks[number - 1].get();
    return true;
  };
  OutTrack* t = nullptr;
  for (const auto& [n, v] : o.languages) {
    if (!trackFor("--language", n, t)) return usageError(error);
    t->desc.language = v;
  }
  for (const auto& [n, v] : o.trackNames) {
    if (!trackFor("--track-name", n, t)) return usageError(error);
    t->desc.name = v;
  }
  for (const auto& [n, v] : o.defaultTracks) {
    if (!trackFor("--default-track", n, t)) return usageError(error);
    t->desc.flagDefault = v ? 1 : 0;
  }

  std::vector<StreamRef> trackRefs;
  // libav gives a stream with a codec delay (Opus) times less that delay, taken off in the stream's time base (to
  // the nearest millisecond from Matroska); Matroska's block times include it, so it is added back as taken off.
  std::map<StreamRef, int64_t> delays;
  for (auto& tr : tracks) {
    trackRefs.push_back(tr->ref);
    const AVRational tb = tr->st->time_base;
    tr->delayNs = av_rescale_q(av_rescale_q(static_cast<int64_t>(tr->desc.codecDelay), kNanoseconds, tb), tb, kNanoseconds);
    if (tr->delayNs) delays[tr->ref] = tr->delayNs;
  }
  // Times are shifted alike so that none is negative; the packets read to find out are muxed later.
  const int64_t shiftNs = startShift(inputs, trackRefs, delays);
  // A CodecPrivate that only the stream's first key frame holds (in-band parameter sets, an ADTS header) is
  // taken from the packets read ahead.
  for (auto& tr : tracks) {
    for (const AVPacket* p : inputs[static_cast<size_t>(tr->ref.first)]->ahead) {
      if (!tr->mapping.needsFirstPacket) break;
      if (p->stream_index == tr->ref.second && tr->mapping.takeFirstPacket(p->data, static_cast<size_t>(p->size)))
        tr->desc.codecPrivate = tr->mapping.codecPrivate;
    }
    if (tr->mapping.needsFirstPacket)
      return fail(streamName(tr->ref) + ": " +
                  (tr->mapping.error.empty() ? "no decoder configuration in its first packets" : tr->mapping.error));
    // Frames of a raw stream follow each other by their durations, which holds only when none is reordered.
    for (const AVPacket* p : inputs[static_cast<size_t>(tr->ref.first)]->ahead) {
      if (p->stream_index != tr->ref.second) continue;
      if (p->pts == AV_NOPTS_VALUE && p->dts == AV_NOPTS_VALUE && tr->st->codecpar->video_delay > 0)
        return fail(streamName(tr->ref) + ": a raw stream of reordered frames carries no times; put it into a "
                    "container with times first");
      break;
    }
  }
  const int64_t duration = longestDuration(inputs);

  TempOutput temp;
  if (!temp.create(o.output, error)) return fail(error);
  setGracefulStop(true);

  Kapsel::TWriterOptions options;
  options.format = webm ? Kapsel::kFileFormatWebm : Kapsel::kFileFormatMatroska;
#ifdef KAPSEL_VERSION
  options.writingApp = std::string("kapsel mux ") + KAPSEL_VERSION;
#else
  options.writingApp = "kapsel mux";
#endif
  options.durationHint = av_rescale_q(duration, AV_TIME_BASE_Q, kNanoseconds);
  const auto tags = metadataEntries(inputs[0]->fmt, o.meta, true);
  for (const auto& [name, value] : tags)
    if (name == "TITLE") options.title = value;
  if (o.keyframeInterval) {
    // A cluster starts at each key frame of the video.
    for (auto& tr : tracks)
      if (tr->desc.kind == Kapsel::TTrackKind::kVideo && tr->desc.defaultDuration) {
        options.expectedClusters =
            static_cast<uint64_t>(options.durationHint / int64_t(tr->desc.defaultDuration) / o.keyframeInterval) + 1;
        break;
      }
  }

  // Declared before the writer, which hands packets back to it until the writer is gone.
  std::optional<PacketPump> pump;
  Kapsel::StreamWriter writer;
  if (writer.open(temp.path(), options) != Kapsel::TWriteResult::kOk) return fail("cannot open " + o.output + " for writing");
  // Packets of each input go to their track by stream index.
  std::vector<std::vector<OutTrack*>> byStream(inputs.size());
  for (size_t i = 0; i < inputs.size(); ++i) byStream[i].assign(inputs[i]->fmt->nb_streams, nullptr);
  for (auto& tr : tracks) {
    // What muxing reads of the stream, taken before the demuxer runs on a thread of its own.
    tr->timeBase = tr->st->time_base;
    tr->sampleRate = tr->st->codecpar->sample_rate;
    const Kapsel::TWriteResult r = writer.addTrack(tr->desc, &tr->number);
    if (r != Kapsel::TWriteResult::kOk) return fail(streamName(tr->ref) + ": " + Kapsel::describe(r));
    byStream[static_cast<size_t>(tr->ref.first)][static_cast<size_t>(tr->ref.second)] = tr.get();
  }
  for (const auto& a : attachments) writer.addAttachment(a);
  for (const auto& c : chapterList(o, inputs)) writer.addChapter(c);
  // The title is the file's title (SegmentInfo); a tag beside it would say the same twice.
  for (const auto& [name, value] : tags)
    if (name != "TITLE") writer.addTag({name, value, 0});

  Progress progress("mux", progressMode(o.progress, o.quiet), Progress::Speed::RealTime);
  progress.setTotals(duration > 0 ? duration / double(AV_TIME_BASE) : 0, 0);
  const auto started = std::chrono::steady_clock::now();
  uint64_t bytesIn = 0;
  Kapsel::TWriteResult writeResult = Kapsel::TWriteResult::kOk;
  int64_t endNs = 0;  // the latest end of a packet handed over, for the interruption message

  auto send = [&](OutTrack& tr, AVPacket* raw) {
    // The writer keeps the packet's bytes until it has written them; the packet is freed then.
    std::shared_ptr<AVPacket> pkt(raw, [&pump](AVPacket* p) { pump->recycle(p); });
    const AVRational tb = tr.timeBase;
    const int64_t offset = shiftNs + tr.delayNs;
    const int64_t given = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
    Kapsel::TWriterFrame frame;
    frame.track = tr.number;
    frame.duration = pkt->duration > 0 ? av_rescale_q(pkt->duration, tb, kNanoseconds) : -1;
    // A packet without times (a raw stream, whose frames are not reordered) follows the one before it.
    const int64_t source = given != AV_NOPTS_VALUE ? av_rescale_q(given, tb, kNanoseconds) : tr.nextTime;
    tr.nextTime = source + (frame.duration > 0 ? frame.duration : static_cast<int64_t>(tr.desc.defaultDuration));
    if (!tr.mapping.convert(pkt->data, static_cast<size_t>(pkt->size), tr.buffer, &frame.data, &frame.size)) {
      if (++tr.dropped <= 3) note(streamName(tr.ref) + ": the packet at " + seconds(source) + " cannot be converted; dropped");
      return;
    }
    if (tr.desc.codecId.rfind("D_WEBVTT", 0) == 0) {
      // A WebM WebVTT block is the cue's identifier line, its settings line and then its text.
      std::vector<uint8_t> block;
      for (AVPacketSideDataType type : {AV_PKT_DATA_WEBVTT_IDENTIFIER, AV_PKT_DATA_WEBVTT_SETTINGS}) {
        size_t n = 0;
        const uint8_t* side = av_packet_get_side_data(pkt.get(), type, &n);
        if (side) block.insert(block.end(), side, side + n);
        block.push_back('\n');
      }
      block.insert(block.end(), frame.data, frame.data + frame.size);
      tr.buffer.swap(block);
      frame.data = tr.buffer.data();
      frame.size = tr.buffer.size();
    }
    frame.time = source + offset;
    // Decode times before the start (B-frames ahead of the first shown frame) are all taken as the start. A video
    // frame without one (Matroska input, before the demuxer has worked it out) decodes with the frame before it.
    if (pkt->dts != AV_NOPTS_VALUE)
      frame.decodeTime = std::max<int64_t>(av_rescale_q(pkt->dts, tb, kNanoseconds) + offset, 0);
    else if (tr.desc.kind == Kapsel::TTrackKind::kVideo && given != AV_NOPTS_VALUE && tr.lastDecode != INT64_MIN)
      frame.decodeTime = tr.lastDecode;
    else
      frame.decodeTime = std::max<int64_t>(frame.time, tr.lastDecode);
    frame.key = tr.desc.kind != Kapsel::TTrackKind::kVideo || (pkt->flags & AV_PKT_FLAG_KEY);
    size_t skipBytes = 0;
    // Samples the encoder padded at the end of the stream are dropped by readers through DiscardPadding.
    if (const uint8_t* skip = av_packet_get_side_data(pkt.get(), AV_PKT_DATA_SKIP_SAMPLES, &skipBytes))
      if (skipBytes >= 8 && tr.sampleRate > 0) {
        const uint32_t end = skip[4] | skip[5] << 8 | skip[6] << 16 | static_cast<uint32_t>(skip[7]) << 24;
        frame.discardPadding = av_rescale(end, 1000000000, tr.sampleRate);
      }
    const char* problem = frame.time < 0 ? "is before the start of the output"
                          : frame.decodeTime < tr.lastDecode ? "goes back in time"
                                                              : nullptr;
    if (problem) {
      if (++tr.dropped <= 3)
        note(streamName(tr.ref) + ": the packet at " + seconds(frame.time - offset) + " (decode time " +
             seconds(frame.decodeTime - offset) + ") " + problem + "; dropped");
      return;
    }
    tr.lastDecode = frame.decodeTime;
    endNs = std::max(endNs, frame.time + std::max<int64_t>(frame.duration, 0));
    ++tr.frames;
    tr.bytes += frame.size;
    // Converted bytes live in a buffer the next packet reuses: the writer copies them.
    const Kapsel::TWriteResult r = frame.data == pkt->data ? writer.write(frame, [pkt]() mutable { pkt.reset(); })
                                                           : writer.write(frame);
    if (r != Kapsel::TWriteResult::kOk && writeResult == Kapsel::TWriteResult::kOk) writeResult = r;
  };

  // Packets of several inputs are merged in decode-time order, so that the writer's queues stay short.
  pump.emplace(inputs);
  PacketPump::Event event;
  // A first SIGINT or SIGTERM stops the reading; the file is finished with what was muxed.
  while (!stopSignal() && writeResult == Kapsel::TWriteResult::kOk && pump->next(event)) {
    const auto& streams = byStream[static_cast<size_t>(event.input)];
    if (!event.packet) {
      // The writer stops waiting for the tracks of an input that has ended.
      for (OutTrack* tr : streams)
        if (tr) writer.endTrack(tr->number);
      continue;
    }
    AVPacket* pkt = event.packet;
    bytesIn += static_cast<uint64_t>(pkt->size);
    OutTrack* tr = pkt->stream_index < static_cast<int>(streams.size()) ? streams[static_cast<size_t>(pkt->stream_index)] : nullptr;
    if (tr)
      send(*tr, pkt);
    else
      pump->recycle(pkt);
    progress.update(bytesIn, endNs / 1e9);
  }
  pump->stop();
  const int readError = pump->error();
  const int sig = stopSignal();
  progress.finish(!readError && !sig && writeResult == Kapsel::TWriteResult::kOk);
  const Kapsel::TWriterReport report = writer.finish();
  for (auto& tr : tracks)
    if (tr->dropped > 3) note(streamName(tr->ref) + ": " + std::to_string(tr->dropped) + " packets dropped in all");
  if (o.verbose)
    note("writer: " + std::to_string(report.clusters) + " clusters (" + std::to_string(report.expectedClusters) +
         " expected), " + std::to_string(report.blocks) + " blocks, " + std::to_string(report.cuePoints) +
         " cue points, index " + (report.indexAtFront ? "before" : "after") + " the clusters");

  uint64_t frames = 0;
  for (auto& tr : tracks) frames += tr->frames;
  if (readError && !sig) return fail("reading the input failed part-way: " + averr(readError));
  if (writeResult == Kapsel::TWriteResult::kOk) writeResult = report.result;
  if (writeResult == Kapsel::TWriteResult::kWriteFailed) return fail("writing " + o.output + " failed (disk full?)");
  if (writeResult != Kapsel::TWriteResult::kOk) return fail("writing " + o.output + " failed: " + Kapsel::describe(writeResult));
  if (const int status = commitOutput(o.output, temp, frames != 0, sig, endNs / 1e9); status >= 0) return status;

  if (o.quiet) return 0;
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  std::ostringstream summary;
  summary << "kapsel: wrote " << o.output << " (" << formatName << ", " << humanBytes(double(report.fileSize)) << "): ";
  for (size_t i = 0; i < tracks.size(); ++i) {
    const OutTrack& tr = *tracks[i];
    summary << (i ? "; " : "") << kindName(tr.desc.kind) << " " << tr.codecName << " " << tr.frames
            << (tr.desc.kind == Kapsel::TTrackKind::kVideo ? " frame" : " packet") << (tr.frames == 1 ? ", " : "s, ")
            << humanBytes(double(tr.bytes));
  }
  if (!attachments.empty())
    summary << "; " << attachments.size() << (attachments.size() == 1 ? " attachment" : " attachments");
  char tail[128];
  std::snprintf(tail, sizeof tail, "; duration %.3f s; %.2f s at %.1f MB/s.", report.duration, elapsed,
                elapsed > 0 ? bytesIn / 1e6 / elapsed : 0.0);
  summary << tail;
  std::cerr << summary.str() << "\n";
  return 0;
}

}  // namespace kapsel_cli
