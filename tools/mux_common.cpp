// Inputs of kapsel mux, read through libavformat.

#include "tools/mux_common.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "kapsel/kapsel.h"
#include "tools/commands.h"

namespace kapsel_cli {

namespace {

int interrupted(void*) { return stopSignal() != 0; }

// Once muxing is stopped by a signal, the demuxers' complaints about the cut-off read are noise.
void logUnlessStopped(void* context, int level, const char* format, va_list args) {
  if (!stopSignal()) av_log_default_callback(context, level, format, args);
}

const std::map<std::string, std::string>& metadataNames() {
  static const std::map<std::string, std::string> names = {
      {"title", "Title"},         {"artist", "Artist"},       {"comment", "Comment"},
      {"genre", "Genre"},         {"copyright", "Copyright"}, {"description", "Description"},
      {"encoded_by", "Encoded_By"}, {"publisher", "Publisher"}, {"keywords", "Keywords"},
      {"producer", "Producer"}};
  return names;
}

bool technicalTag(const std::string& key) {
  static const char* skip[] = {"encoder", "major_brand", "minor_version", "compatible_brands", "creation_time",
                               "duration", "handler_name", "vendor_id", "language"};
  for (const char* s : skip)
    if (key == s) return true;
  return false;
}

}  // namespace

Input::~Input() {
  av_packet_free(&pending);
  for (AVPacket* p : ahead) av_packet_free(&p);
  avformat_close_input(&fmt);
}

AVPacket* Input::read() {
  if (done) return nullptr;
  AVPacket* p = av_packet_alloc();
  const int err = av_read_frame(fmt, p);
  if (err >= 0) return p;
  av_packet_free(&p);
  done = true;
  if (err != AVERROR_EOF) error = err;
  return nullptr;
}

AVPacket* Input::next() {
  if (ahead.empty()) return read();
  AVPacket* p = ahead.front();
  ahead.pop_front();
  return p;
}

namespace {
// Reading stops while this much packet data waits, and resumes at half of it.
constexpr size_t kHeldBytes = 4 << 20;
// The taker wakes for a batch (not for every packet), or for a few large packets.
constexpr size_t kBatchPackets = 64, kBatchBytes = 1 << 20;
// An AVPacket and its buffer reference, beside the data.
constexpr size_t kPacketOverhead = 256;

void blockStopSignals(bool block) {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(block ? SIG_BLOCK : SIG_UNBLOCK, &set, nullptr);
}
}  // namespace

PacketPump::PacketPump(InputList& inputs) : inputs_(inputs) {
  thread_ = std::thread([this] { run(); });
  // A stop signal goes to the reading thread, where it interrupts a read that waits (on a pipe).
  blockStopSignals(true);
}

PacketPump::~PacketPump() {
  stop();
  for (Event& e : queue_) av_packet_free(&e.packet);
  for (Event& e : taken_) av_packet_free(&e.packet);
  for (AVPacket*& p : used_) av_packet_free(&p);
}

void PacketPump::recycle(AVPacket* packet) {
  std::lock_guard<std::mutex> hold(lock_);
  if (!stopped_) {
    used_.push_back(packet);
    return;
  }
  av_packet_free(&packet);
}

void PacketPump::stop() {
  if (!thread_.joinable()) return;
  {
    std::lock_guard<std::mutex> hold(lock_);
    stopped_ = true;
  }
  writable_.notify_all();
  thread_.join();
  blockStopSignals(false);
}

bool PacketPump::push(const Event& event) {
  std::unique_lock<std::mutex> hold(lock_);
  if (used_.size() >= kBatchPackets) {
    std::vector<AVPacket*> used;
    used.swap(used_);
    hold.unlock();
    for (AVPacket*& p : used) av_packet_free(&p);
    hold.lock();
  }
  if (bytes_ >= kHeldBytes) {
    readerWaiting_ = true;
    writable_.wait(hold, [this] { return stopped_ || bytes_ <= kHeldBytes / 2; });
    readerWaiting_ = false;
  }
  if (stopped_) return false;
  queue_.push_back(event);
  bytes_ += kPacketOverhead + (event.packet ? static_cast<size_t>(event.packet->size) : 0);
  if (takerWaiting_ && (queue_.size() >= kBatchPackets || bytes_ >= kBatchBytes)) readable_.notify_one();
  return true;
}

bool PacketPump::next(Event& event) {
  if (taken_.empty()) {
    std::unique_lock<std::mutex> hold(lock_);
    takerWaiting_ = true;
    readable_.wait(hold, [this] { return closed_ || stopped_ || queue_.size() >= kBatchPackets || bytes_ >= kBatchBytes; });
    takerWaiting_ = false;
    if (queue_.empty()) return false;
    taken_.swap(queue_);
    bytes_ = 0;
    if (readerWaiting_) writable_.notify_one();
  }
  event = taken_.front();
  taken_.pop_front();
  return true;
}

void PacketPump::run() {
  std::vector<bool> ended(inputs_.size(), false);
  auto timeOf = [](const Input& in) {
    const AVPacket* p = in.pending;
    const int64_t t = p->dts != AV_NOPTS_VALUE ? p->dts : p->pts;
    return t == AV_NOPTS_VALUE ? -1e300 : t * av_q2d(in.fmt->streams[p->stream_index]->time_base);
  };
  try {
    while (!stopSignal()) {
      int next = -1;
      for (size_t i = 0; i < inputs_.size(); ++i) {
        Input& in = *inputs_[i];
        if (!in.pending && !(in.done && in.ahead.empty())) {
          in.pending = in.next();
          if (in.error) error_ = in.error;
        }
        if (in.pending && (next < 0 || timeOf(in) < timeOf(*inputs_[static_cast<size_t>(next)])))
          next = static_cast<int>(i);
        if (!in.pending && !ended[i]) {
          ended[i] = true;
          if (!push({nullptr, static_cast<int>(i)})) break;
        }
      }
      if (next < 0 || error_) break;
      Input& in = *inputs_[static_cast<size_t>(next)];
      AVPacket* p = in.pending;
      in.pending = nullptr;
      if (!push({p, next})) {
        av_packet_free(&p);
        break;
      }
    }
  } catch (const std::bad_alloc&) {
    error_ = AVERROR(ENOMEM);
  }
  {
    std::lock_guard<std::mutex> hold(lock_);
    closed_ = true;
  }
  readable_.notify_one();
}

void setUpLibav(bool quiet) {
  // Failures are told in kapsel's own one line; libav's diagnostics come in addition unless -q.
  av_log_set_level(quiet ? AV_LOG_QUIET : AV_LOG_ERROR);
  av_log_set_callback(logUnlessStopped);
}

bool openInputs(const std::vector<std::string>& paths, InputList& inputs, std::string& error) {
  for (const auto& path : paths) {
    auto in = std::make_unique<Input>();
    in->path = path;
    in->fmt = avformat_alloc_context();
    if (!in->fmt) return error = "out of memory", false;
    in->fmt->interrupt_callback = {interrupted, nullptr};
    // "-" is standard input; a muxer reading it needs no seeking.
    int err = avformat_open_input(&in->fmt, path == "-" ? "pipe:0" : path.c_str(), nullptr, nullptr);
    if (err < 0)
      return error = "cannot read " + (path == "-" ? std::string("standard input") : path) + ": " + averr(err), false;
    err = avformat_find_stream_info(in->fmt, nullptr);
    if (err < 0) return error = "cannot read " + path + ": " + averr(err), false;
    inputs.push_back(std::move(in));
  }
  return true;
}

int64_t startShift(InputList& inputs, const std::vector<StreamRef>& chosen, const std::map<StreamRef, int64_t>& offsets) {
  int64_t earliest = INT64_MAX;  // ns
  // Transport and program streams (and Ogg) run on a clock that starts anywhere: their first packet starts at zero.
  bool clock = !inputs.empty();
  for (size_t i = 0; i < inputs.size(); ++i) {
    Input& in = *inputs[i];
    clock = clock && (in.fmt->iformat->flags & AVFMT_TS_DISCONT);
    // Per stream: INT64_MAX before its first packet, then the end of its look-ahead, INT64_MIN once past it.
    // Half a second past each stream's first packet covers reordering.
    std::map<int, int64_t> until;
    for (const auto& c : chosen)
      if (c.first == static_cast<int>(i)) until[c.second] = INT64_MAX;
    auto looking = [&] {
      return std::any_of(until.begin(), until.end(), [](const auto& u) { return u.second != INT64_MIN; });
    };
    for (size_t count = 0; looking() && count < 2000; ++count) {
      AVPacket* p = in.read();
      if (!p) break;
      in.ahead.push_back(p);
      auto u = until.find(p->stream_index);
      const int64_t t = p->pts != AV_NOPTS_VALUE ? p->pts : p->dts;
      if (u == until.end() || t == AV_NOPTS_VALUE) continue;
      const AVRational tb = in.fmt->streams[p->stream_index]->time_base;
      const auto offset = offsets.find({static_cast<int>(i), p->stream_index});
      // Rounded down so that the earliest packet lands on zero or just after it, never before.
      const int64_t ns = av_rescale_q_rnd(t, tb, kNanoseconds, AV_ROUND_DOWN) +
                         (offset != offsets.end() ? offset->second : 0);
      earliest = std::min(earliest, ns);
      const int64_t us = av_rescale_q(t, tb, AV_TIME_BASE_Q);
      if (u->second == INT64_MAX)
        u->second = us + AV_TIME_BASE / 2;
      else if (us >= u->second)
        u->second = INT64_MIN;
    }
  }
  if (earliest == INT64_MAX) return 0;
  return clock ? -earliest : -std::min<int64_t>(earliest, 0);
}

void reportLeftOut(const InputList& inputs, const std::vector<StreamRef>& chosen,
                   const std::map<StreamRef, std::string>& why) {
  for (size_t i = 0; i < inputs.size(); ++i) {
    const AVFormatContext* f = inputs[i]->fmt;
    for (unsigned s = 0; s < f->nb_streams; ++s) {
      const StreamRef ref(static_cast<int>(i), static_cast<int>(s));
      if (std::find(chosen.begin(), chosen.end(), ref) != chosen.end()) continue;
      const AVCodecParameters* p = f->streams[s]->codecpar;
      const AVDictionaryEntry* lang = av_dict_get(f->streams[s]->metadata, "language", nullptr, 0);
      const auto reason = why.find(ref);
      std::cerr << "kapsel: leaving out stream " << i << ":" << s << " (" << mediaKind(p->codec_type) << ", "
                << avcodec_get_name(p->codec_id) << ", " << (lang ? lang->value : "und") << ")"
                << (reason != why.end() ? ": " + reason->second : "") << "\n";
    }
  }
}

int64_t longestDuration(const InputList& inputs) {
  int64_t duration = 0;
  for (auto& in : inputs)
    if (in->fmt->duration != AV_NOPTS_VALUE) duration = std::max<int64_t>(duration, in->fmt->duration);
  return duration;
}

std::vector<std::pair<std::string, std::string>> metadataEntries(
    const AVFormatContext* first, const std::vector<std::pair<std::string, std::string>>& meta, bool matroskaNames) {
  std::vector<std::pair<std::string, std::string>> entries;
  auto put = [&](const std::string& name, const std::string& value, bool replace) {
    auto it = metadataNames().find(lower(name));
    std::string known = it != metadataNames().end() ? it->second : name;
    if (matroskaNames && it != metadataNames().end())
      std::transform(known.begin(), known.end(), known.begin(), [](unsigned char c) { return std::toupper(c); });
    if (replace)
      entries.erase(std::remove_if(entries.begin(), entries.end(), [&](const auto& e) { return e.first == known; }),
                    entries.end());
    entries.emplace_back(known, value);
  };
  const AVDictionaryEntry* e = nullptr;
  while ((e = av_dict_get(first->metadata, "", e, AV_DICT_IGNORE_SUFFIX)))
    if (!technicalTag(lower(e->key))) put(e->key, e->value, false);
  for (const auto& m : meta) put(m.first, m.second, true);
  return entries;
}

bool outputComplete(const std::string& path) {
  Kapsel::FileStorage in(path, Kapsel::File::kReadOnly);
  if (!in.file().isOpen()) return false;
  const uint64_t fileSize = in.file().size();
  if (Kapsel::loadEbmlId(in) != 0x1A45DFA3) return false;
  unsigned n = 0;
  const uint64_t headSize = Kapsel::vsizeDecode(in, n);
  if (n == 0 || headSize == ~0ull) return false;
  in.file().seek(static_cast<int64_t>(headSize), Kapsel::File::kRelativeToCurrent);
  if (Kapsel::loadEbmlId(in) != 0x18538067) return false;
  const uint64_t segSize = Kapsel::vsizeDecode(in, n);
  const uint64_t payload = in.file().absolutePosition();
  return n != 0 && segSize != ~0ull && payload + segSize == fileSize;
}

int commitOutput(const std::string& output, TempOutput& temp, bool anythingMuxed, int sig, double heldSeconds) {
  if (!anythingMuxed) {
    if (!sig) return fail("the input holds no packets of the chosen streams");
    fail("interrupted before anything was muxed; " + output + " was not written");
    return 128 + sig;
  }
  std::string error;
  if (!outputComplete(temp.path())) return fail("writing " + output + " failed (disk full?)");
  if (!temp.commit(error)) return fail(error);
  if (!sig) return -1;
  char held[64];
  std::snprintf(held, sizeof held, "%.1f", heldSeconds);
  fail(std::string(sig == SIGINT ? "interrupted" : "terminated") + "; " + output + " holds the first " + held +
       " seconds");
  return 128 + sig;
}

std::string averr(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

std::string lower(std::string s) {
  for (auto& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

std::string humanBytes(double b) {
  const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int u = 0;
  while (b >= 1024 && u < 4) {
    b /= 1024;
    ++u;
  }
  char buf[32];
  std::snprintf(buf, sizeof buf, u ? "%.1f %s" : "%.0f %s", b, units[u]);
  return buf;
}

const char* mediaKind(AVMediaType type) {
  const char* kind = av_get_media_type_string(type);
  return kind ? kind : "unknown";
}

}  // namespace kapsel_cli
