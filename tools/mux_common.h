#pragma once
// What both ways of muxing share: the inputs opened with libavformat, the start shift, metadata names, messages.

extern "C" {
#include <libavformat/avformat.h>
}

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kapsel/writer.h"
#include "tools/codec_map.h"

namespace kapsel_cli {

struct Input {
  std::string path;
  AVFormatContext* fmt = nullptr;
  AVPacket* pending = nullptr;  // the next packet of this input, read ahead for merging inputs
  std::deque<AVPacket*> ahead;  // packets read before muxing to find the earliest time
  bool done = false;
  int error = 0;
  ~Input();
  // The next packet from the input, nullptr at the end or on an error (kept in `error`).
  AVPacket* read();
  // The next packet to mux: the look-ahead first, then the input.
  AVPacket* next();
};

using InputList = std::vector<std::unique_ptr<Input>>;
// (input index, stream index)
using StreamRef = std::pair<int, int>;

// Reads the inputs on a thread of its own, their packets merged in decode-time order, while the caller muxes: the
// two cores each take a half of the copying. Packets held between the two are bounded in bytes.
class PacketPump {
 public:
  // A packet of input `input` (the taker frees it), or, with packet nullptr, the end of input `input`.
  struct Event {
    AVPacket* packet = nullptr;
    int input = -1;
  };
  explicit PacketPump(InputList& inputs);
  ~PacketPump();
  PacketPump(const PacketPump&) = delete;
  PacketPump& operator=(const PacketPump&) = delete;
  // The next event; false once reading is over (every input ended, a read failed, a stop signal came).
  bool next(Event& event);
  // Frees a taken packet on the reading thread, which allocated it: freeing it here would contend for its heap.
  void recycle(AVPacket* packet);
  // Stops reading early; what was read and not taken is freed.
  void stop();
  // A read error (an AVERROR) that ended the reading, else 0; read after stop().
  int error() const { return error_; }

 private:
  void run();
  bool push(const Event& event);  // false once stopped
  InputList& inputs_;
  std::mutex lock_;
  std::condition_variable readable_, writable_;
  std::deque<Event> queue_, taken_;  // taken_: the taker's batch, outside the lock
  std::vector<AVPacket*> used_;      // recycled, for the reading thread to free
  size_t bytes_ = 0;
  bool closed_ = false, stopped_ = false, takerWaiting_ = false, readerWaiting_ = false;
  int error_ = 0;
  std::thread thread_;
};

// Quiets libav and lets a stop signal interrupt reading.
void setUpLibav(bool quiet);
// Opens every input and reads its stream information; error is one line for fail().
bool openInputs(const std::vector<std::string>& paths, InputList& inputs, std::string& error);

// Nanoseconds to add to every time so that none of the chosen streams starts before zero (0 when none does; inputs
// that all run on a clock, MPEG-TS/PS or Ogg, start at zero), with
// `offsets` (ns) added to some streams' times first. The packets read to find out stay in the inputs' look-ahead.
int64_t startShift(InputList& inputs, const std::vector<StreamRef>& chosen,
                   const std::map<StreamRef, int64_t>& offsets = {});

// One line per stream of the inputs that the output will not carry; `why` adds a reason to some of them.
void reportLeftOut(const InputList& inputs, const std::vector<StreamRef>& chosen,
                   const std::map<StreamRef, std::string>& why = {});

// The longest input duration in microseconds (0 when none is known).
int64_t longestDuration(const InputList& inputs);

// Global metadata of the first input and --meta entries (which replace the input's entry of the same name), in the
// order met. Known names in any case are spelt as the host spells them ("Title"), or as Matroska tags ("TITLE").
std::vector<std::pair<std::string, std::string>> metadataEntries(const AVFormatContext* first,
                                                                 const std::vector<std::pair<std::string, std::string>>& meta,
                                                                 bool matroskaNames);

// The written file ends with its Segment size patched; otherwise a write failed on the way.
bool outputComplete(const std::string& path);

class TempOutput;
// The end of a run: a complete output replaces the target, and a run stopped by signal `sig` says how many seconds
// the output holds. Returns the exit status to stop with, or -1 when the run ended normally and goes on.
int commitOutput(const std::string& output, TempOutput& temp, bool anythingMuxed, int sig, double heldSeconds);

std::string averr(int code);
std::string lower(std::string s);
std::string humanBytes(double bytes);
const char* mediaKind(AVMediaType type);

constexpr AVRational kNanoseconds{1, 1000000000};

// One stream of an input as a track of the output.
struct OutTrack {
  StreamRef ref;
  AVStream* st = nullptr;
  AVRational timeBase{1, 1};
  int sampleRate = 0;
  int64_t delayNs = 0;  // the codec delay libav took off the stream's times
  Kapsel::TTrackSpec desc;
  std::string codecName;  // readable, for messages
  uint64_t number = 0;    // in the output
  StreamMapping mapping;  // also converts the packets when the output carries them otherwise
  std::vector<uint8_t> buffer;  // for converted packets
  int64_t lastDecode = INT64_MIN;  // ns, after the shift
  int64_t nextTime = 0;  // ns before the shift: where a packet without times goes
  uint64_t frames = 0, bytes = 0, dropped = 0;
};

enum class Mapping { kOk, kNoCodec, kNotInWebm };
// Describes stream `index` of `fmt` as a track: codec, language, name, forced flag, sizes, colour, durations.
// Anything but kOk comes with one line in `message`. A CodecPrivate that comes from the first key frame is still
// missing (track.mapping.needsFirstPacket).
Mapping describeStream(AVFormatContext* fmt, int index, bool webm, OutTrack& track, std::string& message);
// An attachment stream (a font of ASS subtitles) or an attached picture; false when it holds no data.
bool describeAttachment(const AVStream* st, Kapsel::TAttachmentSpec& attachment);

struct MuxOptions;
// The two ways of muxing, once the inputs are open: through the formatter plug-in (one video, one audio stream) and
// through the library's writer (every stream).
int runPluginMux(const MuxOptions& options, const std::string& programPath, InputList& inputs, bool webm);
int runWriterMux(const MuxOptions& options, InputList& inputs, bool webm);

}  // namespace kapsel_cli
