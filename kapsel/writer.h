#pragma once
// StreamWriter: writes a Matroska or WebM file in one pass from frames of any number of tracks.
//
// The header (EBML header, Segment, SegmentInfo, Tracks, a SeekHead, a Void reservation for the index,
// Chapters, Attachments) is written when the first frame is muxed. Clusters are written with open sizes and
// patched when they end. finish() puts the seek entries and Cues into the reservation when they fit (else at
// the end of the file), writes Tags, and patches Duration, the seek entries and the Segment size.
//
//   Kapsel::StreamWriter w;
//   w.open("out.mkv", options);
//   uint64_t video = 0;
//   w.addTrack(videoSpec, &video);
//   ... w.write(frame) for every frame ...
//   Kapsel::TWriterReport report = w.finish();
//
// A writer is used by one thread at a time. Every failure is sticky: once a call has failed, later calls
// return the same result and finish() still leaves the file readable up to the last whole cluster.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "kapsel/cluster.h"
#include "kapsel/document.h"
#include "kapsel/storage.h"

namespace Kapsel {

class Track;
class SegInfo;

enum class TWriteResult {
  kOk = 0,
  kNotOpen,           // open() has not succeeded
  kAfterFinish,       // finish() was already called
  kUnknownTrack,      // the frame names a track that was not added
  kTracksClosed,      // a track was added after the first frame was muxed
  kBadTrack,          // the track description is not usable (no CodecID, number taken, wrong kind)
  kNotInWebm,         // WebM cannot hold this codec
  kTimeBackwards,     // a frame's decode time is before the previous frame's of the same track
  kBadTime,           // a negative time, or one too large for the time base
  kWriteFailed,       // the store refused bytes
};

// One line naming the result, for messages.
const char* describe(TWriteResult result);

enum class TTrackKind : uint8_t { kVideo = 1, kAudio = 2, kSubtitle = 0x11 };

// Colour description of a video track (the Colour element); values below 0 are not written.
struct TColourSpec {
  int matrixCoefficients = -1, bitsPerChannel = -1, chromaSubsamplingHorz = -1, chromaSubsamplingVert = -1;
  int chromaSitingHorz = -1, chromaSitingVert = -1, range = -1, transferCharacteristics = -1, primaries = -1;
  int maxCll = -1, maxFall = -1;
};

struct TTrackSpec {
  TTrackKind kind = TTrackKind::kVideo;
  uint64_t number = 0;  // 0: the next free number
  uint64_t uid = 0;     // 0: a fresh random one
  std::string codecId;  // "V_VP9", "A_OPUS", "S_TEXT/UTF8", ...
  std::vector<uint8_t> codecPrivate;
  std::string codecName;  // readable name of the codec, written when not empty
  std::string name;
  std::string language;     // ISO 639-2 ("eng"); empty: not written (readers take "eng")
  std::string languageIetf; // BCP 47 ("en-US"); Matroska only
  int flagDefault = -1, flagForced = -1, flagLacing = -1;  // below 0: not written (defaults 1, 0, 1)
  uint64_t defaultDuration = 0;  // ns per frame; 0: not written
  uint64_t codecDelay = 0, seekPreRoll = 0;  // ns
  // Video.
  uint32_t pixelWidth = 0, pixelHeight = 0, displayWidth = 0, displayHeight = 0;
  TColourSpec colour;
  // Audio.
  double samplingFrequency = 0, outputSamplingFrequency = 0;
  uint32_t channels = 0, bitDepth = 0;
};

// A frame handed to write(); times are in nanoseconds from the start of the file.
struct TWriterFrame {
  uint64_t track = 0;
  const uint8_t* data = nullptr;
  size_t size = 0;
  int64_t time = 0;                  // presentation time
  int64_t decodeTime = INT64_MIN;    // INT64_MIN: the presentation time
  int64_t duration = -1;             // below 0: not given (the track's DefaultDuration is assumed)
  bool key = true;                   // a random-access point (video); see TIndexRule for audio
  int64_t discardPadding = 0;        // ns of decoded audio to drop at the end; not 0: written in a BlockGroup
};

// Called once the writer no longer needs a frame's bytes.
using TFrameRelease = std::function<void()>;

struct TChapterSpec {
  int64_t start = 0;  // ns
  int64_t end = -1;   // ns; below 0: not written
  std::string title;
  std::string language;  // ISO 639-2; empty: not written
  uint64_t uid = 0;      // 0: a fresh random one
  std::vector<TChapterSpec> children;
};

struct TAttachmentSpec {
  std::string name, mimeType, description;
  std::vector<uint8_t> data;
  uint64_t uid = 0;  // 0: a fresh random one
};

struct TTagSpec {
  std::string name, value;
  uint64_t track = 0;  // 0: the whole file; otherwise a track number
};

// How audio frames' key flags are read.
enum class TIndexRule : uint8_t {
  // Every audio frame stands alone: key flags of audio are ignored; the first frame of every other track after
  // each cue-track cue gets a cue point (Matroska), and an audio cue track gets one per cluster.
  kPerTrack,
  // Key flags are taken as given for every track: a key frame starts a new block and gets a cue point; a frame
  // that is not key gets one only as the first of its track in a cluster of a file without video.
  kKeyFramesOnly,
};

struct TWriterOptions {
  TFileFormat format = kFileFormatMatroska;
  std::string title, writingApp;
  uint64_t timestampScale = 1000000;  // ns per tick of block and cluster times
  int64_t durationHint = 0;           // ns; sizes the index reservation and is the Duration until finish()
  uint64_t expectedClusters = 0;      // 0: from the duration hint, one a second
  uint64_t reserveBytes = 0;          // 0: from the expected clusters, chapters and tracks
  uint64_t maxClusterDuration = 0;    // ns; 0: clusters end only at key frames of the cue track and the 16-bit limit
  bool interleave = true;             // false: frames are muxed in the order write() receives them
  bool lenient = false;               // accept out-of-order times (written as given) and any codec in WebM
  bool emptyWithoutFrames = false;    // finish() without frames leaves the file empty instead of a header
  TIndexRule indexRule = TIndexRule::kPerTrack;
};

struct TWriterReport {
  TWriteResult result = TWriteResult::kOk;
  uint64_t frames = 0, blocks = 0, clusters = 0, expectedClusters = 0, cuePoints = 0;
  uint64_t fileSize = 0;
  double duration = 0;     // seconds
  bool indexAtFront = false;  // seek entries and cues went into the reservation
};

class StreamWriter {
 public:
  StreamWriter();
  ~StreamWriter();  // finishes a file still open
  StreamWriter(const StreamWriter&) = delete;
  StreamWriter& operator=(const StreamWriter&) = delete;

  // Creates (or empties) the file at `path`, or writes into `storage` from its end (the store must outlive the
  // writer). Nothing else is written until the first frame is muxed.
  [[nodiscard]] TWriteResult open(const std::string& path, const TWriterOptions& options = {});
  [[nodiscard]] TWriteResult open(FileStorage& storage, const TWriterOptions& options = {});

  // Declarations, all before the first frame is muxed. addTrack stores the track's number in *number.
  [[nodiscard]] TWriteResult addTrack(const TTrackSpec& desc, uint64_t* number = nullptr);
  void addChapter(const TChapterSpec& chapter);
  void addAttachment(const TAttachmentSpec& attachment);
  void addTag(const TTagSpec& tag);
  // The elements themselves, for anything the descriptions above do not carry (null for an unknown number).
  Track* trackElement(uint64_t number);
  SegInfo& info();

  // Queues a frame; its bytes are copied, or kept until `release` is called when one is given.
  [[nodiscard]] TWriteResult write(const TWriterFrame& frame);
  [[nodiscard]] TWriteResult write(const TWriterFrame& frame, TFrameRelease release);
  // No more frames for this track: the interleaver stops waiting for it.
  void endTrack(uint64_t number);

  // Muxes every queued frame, writes the index and patches sizes, Duration and seek entries. Idempotent.
  TWriterReport finish();

  TWriteResult status() const;
  uint64_t clusterCount() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Pieces of the one-pass layout, also used by code that patches files in place.

// Patches the 8-byte size field of an element saved with an open size so that it ends at the storage's position.
bool overwriteOpenSize(const IElement& element, IStorage& storage);

struct TCuePoint {
  uint64_t time;             // ticks
  uint64_t clusterPosition;  // relative to the Segment's payload
  uint64_t track;
  uint32_t block;            // written when above 1
};

// Write CuePoint records, or Seek records pointing at Clusters, one after the other at the storage's position.
// With `remaining`, a record longer than what remains is not written and false is returned; `position` and
// `remaining` count the bytes written.
bool saveCuePointRecords(const std::vector<TCuePoint>& cues, FileStorage& storage, uint64_t* position,
                         uint64_t* remaining);
bool saveClusterSeekRecords(const std::vector<uint64_t>& positions, FileStorage& storage, uint64_t* position,
                            uint64_t* remaining);
// Rewrites in place the SeekPosition of a saved seek entry so that it points at `element`.
void overwriteSeekPosition(SeekHead::SeekElt* seekEntry, uint64_t segmentPayloadPosition, const IElement& element);

}  // namespace Kapsel
