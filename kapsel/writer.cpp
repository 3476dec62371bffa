#include "kapsel/writer.h"

#include <algorithm>
#include <deque>

#include "kapsel/inplace.h"
#include "kapsel/kapsel.h"

namespace Kapsel {

namespace {

constexpr uint64_t kIdSeekHead = 0x114D9B74;
constexpr uint64_t kIdCues = 0x1C53BB6B;
constexpr uint64_t kIdChapters = 0x1043A770;
constexpr uint64_t kIdAttachments = 0x1941A469;
constexpr uint64_t kIdTags = 0x1254C367;
constexpr uint64_t kIdCluster = 0x1F43B675;
constexpr uint64_t kOpenSize = 0xFFFFFFFFFFFFFFFFull;  // the maximum size marker: written open, patched later
constexpr unsigned kMaxLacedFrames = 8;
constexpr unsigned long kWriteLine = 1ul << 20;

using inplace::putId;
using inplace::putSize;
using inplace::putUInt;

void appendMaster(std::vector<unsigned char>& out, uint64_t id, const std::vector<unsigned char>& payload) {
  putId(out, id);
  putSize(out, payload.size());
  out.insert(out.end(), payload.begin(), payload.end());
}

// Saves one record when it fits the budget and keeps the counters.
bool saveRecord(const std::vector<unsigned char>& record, FileStorage& storage, uint64_t* position, uint64_t* remaining) {
  if (remaining && record.size() > *remaining) return false;
  if (!Kapsel::save(storage, record)) return false;
  if (position) *position += record.size();
  if (remaining) *remaining -= record.size();
  return true;
}

bool isWebmCodec(const std::string& id) {
  return id == "V_VP8" || id == "V_VP9" || id == "V_AV1" || id == "A_VORBIS" || id == "A_OPUS" ||
         id.rfind("D_WEBVTT/", 0) == 0;
}

}  // namespace

const char* describe(TWriteResult result) {
  switch (result) {
    case TWriteResult::kOk: return "ok";
    case TWriteResult::kNotOpen: return "the output is not open";
    case TWriteResult::kAfterFinish: return "the file is already finished";
    case TWriteResult::kUnknownTrack: return "a frame names a track that was not added";
    case TWriteResult::kTracksClosed: return "tracks can only be added before the first frame is written";
    case TWriteResult::kBadTrack: return "the track has no CodecID, a wrong kind or a number already taken";
    case TWriteResult::kNotInWebm: return "WebM cannot hold this codec; WebM takes VP8, VP9, AV1, Vorbis, Opus and WebVTT";
    case TWriteResult::kTimeBackwards: return "a frame's decode time goes back before its track's previous frame";
    case TWriteResult::kBadTime: return "a frame time is negative or too large";
    case TWriteResult::kWriteFailed: return "writing the file failed";
  }
  return "unknown result";
}

bool overwriteOpenSize(const IElement& element, IStorage& storage) {
  ReceiptPtr r = element.storageReceipt();
  ReceiptPtr here = storage.receipt();
  if (!r || !here) return false;
  const uint64_t payloadPosition = r->position() + 4 + 8;
  if (here->position() < payloadPosition) return false;
  unsigned char size[8];
  vsizeEncode(here->position() - payloadPosition, size, 8);
  ReceiptPtr field = r->receipt(4, 8);
  return field && field->save(size, 8);
}

bool saveCuePointRecords(const std::vector<TCuePoint>& cues, FileStorage& storage, uint64_t* position,
                         uint64_t* remaining) {
  std::vector<unsigned char> record, point, trackPos;
  for (const TCuePoint& c : cues) {
    trackPos.clear();
    putUInt(trackPos, 0xF7, c.track);
    putUInt(trackPos, 0xF1, c.clusterPosition);
    if (c.block > 1) putUInt(trackPos, 0x5378, c.block);
    point.clear();
    putUInt(point, 0xB3, c.time);
    appendMaster(point, 0xB7, trackPos);
    record.clear();
    appendMaster(record, 0xBB, point);
    if (!saveRecord(record, storage, position, remaining)) return false;
  }
  return true;
}

bool saveClusterSeekRecords(const std::vector<uint64_t>& positions, FileStorage& storage, uint64_t* position,
                            uint64_t* remaining) {
  std::vector<unsigned char> record, entry;
  for (uint64_t p : positions) {
    entry.clear();
    putId(entry, 0x53AB);
    putSize(entry, 4);
    unsigned char id[4];
    uintEncode(kIdCluster, id, 4);
    entry.insert(entry.end(), id, id + 4);
    putUInt(entry, 0x53AC, p);
    record.clear();
    appendMaster(record, 0x4DBB, entry);
    if (!saveRecord(record, storage, position, remaining)) return false;
  }
  return true;
}

void overwriteSeekPosition(SeekHead::SeekElt* seekEntry, uint64_t segmentPayloadPosition, const IElement& element) {
  if (!seekEntry || (*seekEntry)->id_->get() != element.getId()) return;
  ReceiptPtr target = element.storageReceipt();
  if (!target) return;
  const uint64_t p = target->position() - segmentPayloadPosition;
  auto& posElt = (*seekEntry)->position_;
  ReceiptPtr payload = posElt.payloadReceipt();
  posElt->setPosition(p);
  if (!payload || payload->numBytes() == 0 || payload->numBytes() > 8) return;
  unsigned char bytes[8];
  const unsigned n = static_cast<unsigned>(payload->numBytes());
  uintEncode(p, bytes, n);
  payload->save(bytes, n);
}

// ---------------------------------------------------------------- state

namespace {

// A frame waiting to be muxed, in ticks of the time base.
struct Pending {
  size_t track = 0;  // index into the track list
  const uint8_t* data = nullptr;
  size_t size = 0;
  std::vector<uint8_t> copy;
  TFrameRelease release;
  int64_t time = 0, decodeTime = 0, duration = -1, discardPadding = 0;
  bool key = false;
};

struct TrackState {
  TTrackSpec desc;
  uint64_t number = 0;
  Track* element = nullptr;
  std::deque<Pending> queue;
  bool ended = false;
  bool cueNeeded = true;
  int64_t lastDecode = INT64_MIN;
  bool video() const { return desc.kind == TTrackKind::kVideo; }
  bool audio() const { return desc.kind == TTrackKind::kAudio; }
  bool sparse() const { return desc.kind == TTrackKind::kSubtitle; }
};

}  // namespace

struct StreamWriter::Impl {
  // Setup.
  TWriterOptions options;
  WebmDoc doc;
  FileStorage ownStorage;
  FileStorage* storage = nullptr;
  std::deque<TrackState> tracks;
  std::vector<TChapterSpec> chapterSpecs;
  std::vector<TAttachmentSpec> attachmentSpecs;
  std::vector<TTagSpec> tagSpecs;
  TWriteResult status = TWriteResult::kNotOpen;
  bool headerWritten = false, finished = false;
  TWriterReport report;

  // Header layout.
  uint64_t segmentPayloadPosition = 0, reservationEnd = 0;
  SeekHeadElt seekHead;
  VoidElement voidElt;
  ChaptersElt chapters;
  AttachmentsElt attachments;
  TagsElt tags;
  uint64_t chapterCount = 0;

  // The cluster and block being written.
  ClusterElt cluster;
  uint64_t clusterPosition = ~0ull;
  uint32_t blocksInCluster = 0, clusterCount = 0;
  SimpleBlock block;
  size_t blockTrack = 0;
  int64_t blockStart = 0, blockLastTime = 0, blockLastDuration = 0;
  std::vector<std::pair<const unsigned char*, unsigned long>> blockFrames;  // the open block's frames
  std::vector<TFrameRelease> blockReleases;
  std::vector<std::vector<uint8_t>> blockCopies;
  MemoryStorage frameStorage;
  size_t cueTrack = 0;
  uint32_t cueTrackKeyFrames = 0;

  // Index tables.
  std::vector<uint64_t> clusterPositions;
  std::vector<TCuePoint> cues;
  int64_t earliestTime = 0, latestEnd = 0;

  Impl() : doc(kFileFormatMatroska) {}

  bool webm() const { return options.format == kFileFormatWebm; }
  bool hasVideo() const {
    return std::any_of(tracks.begin(), tracks.end(), [](const TrackState& t) { return t.video(); });
  }
  Segment& segment() { return *doc.segments_.front(); }
  MatroskaDoc::SegmentElt& segmentElt() { return doc.segments_.front(); }
  File& file() { return storage->file(); }
  uint64_t endOfFile() {
    file().seek(0, File::kRelativeToEnd);
    return file().absolutePosition();
  }
  bool fail(TWriteResult r) {
    if (status == TWriteResult::kOk) status = r;
    return false;
  }

  void start(const TWriterOptions& o);
  TrackState* byNumber(uint64_t number);
  void buildHeader();
  void buildChapters();
  void buildTags();
  void beginWriting();
  bool queueFrame(const TWriterFrame& f, TFrameRelease& release);
  bool ready() const;
  TrackState* nextTrack();
  void muxAll(bool flush);
  void mux(TrackState& t, Pending& f);
  bool joinsBlock(const TrackState& t, const Pending& f) const;
  void startNextCluster(int64_t time);
  void finishCurrentBlock();
  void saveBlock(const IElement& element);
  void blockSaved(bool ok);
  void addBlockFrames();
  void finishCurrentCluster();
  void addCuePoint(TrackState& t, const Pending& f);
  bool fillReservation(uint64_t from);
  void rewriteSeekHead();
  void writeIndex();
  void finishWriting();
};

void StreamWriter::Impl::start(const TWriterOptions& o) {
  options = o;
  if (options.timestampScale == 0) options.timestampScale = 1000000;
  doc = WebmDoc(options.format);
  doc.segments_.add();
  SegInfo& info = *segment().info_;
  info.timecodeScale_->set(options.timestampScale);
  if (!options.writingApp.empty()) info.writingApp_->set(options.writingApp);
  info.duration_->set(static_cast<double>(std::max<int64_t>(options.durationHint, 0)) /
                      static_cast<double>(options.timestampScale));
  if (!options.title.empty()) info.title_->set(options.title);
  status = TWriteResult::kOk;
}

TrackState* StreamWriter::Impl::byNumber(uint64_t number) {
  for (TrackState& t : tracks)
    if (t.number == number) return &t;
  return nullptr;
}

// Unique IDs are drawn in file order: the Segment's, the tracks', then the chapters'.
void StreamWriter::Impl::buildHeader() {
  SegInfo& info = *segment().info_;
  if (!webm()) {
    unsigned char uid[16];
    createUID(uid, 16);
    info.segmentUid_->set(uid);
  }
  for (TrackState& t : tracks) t.element->trackUid_->set(t.desc.uid ? t.desc.uid : createUID());
  buildChapters();
  buildTags();
  for (const TAttachmentSpec& a : attachmentSpecs) {
    AttdFile& f = *attachments->files_.add();
    if (!a.description.empty()) f.description_->set(a.description);
    f.name_->set(a.name);
    f.mimeType_->set(a.mimeType);
    f.data_->set(a.data, frameStorage);
    f.uid_->set(a.uid ? a.uid : createUID());
  }
}

template <class List>
void addChapterAtom(const TChapterSpec& c, List& list, uint64_t& count) {
  ChapAtom& atom = *list.add();
  atom.uid_->set(c.uid ? c.uid : createUID());
  atom.timeStart_->set(static_cast<uint64_t>(std::max<int64_t>(c.start, 0)));
  if (c.end >= 0) atom.timeEnd_->set(static_cast<uint64_t>(c.end));
  ChapDisp& display = *atom.displays_.add();
  display.string_->set(c.title);
  if (!c.language.empty()) display.language_->set(c.language);
  ++count;
  for (const TChapterSpec& child : c.children) addChapterAtom(child, atom.atoms_, count);
}

void StreamWriter::Impl::buildChapters() {
  if (chapterSpecs.empty()) return;
  Edition& edition = *chapters->editions_.add();
  edition.uid_->set(createUID());
  for (const TChapterSpec& c : chapterSpecs) addChapterAtom(c, edition.atoms_, chapterCount);
}

void StreamWriter::Impl::buildTags() {
  Tag* global = nullptr;
  for (const TTagSpec& desc : tagSpecs) {
    Tag* tag = nullptr;
    if (desc.track == 0) {
      if (!global) global = &*tags->tags_.add();
      tag = global;
    } else if (TrackState* t = byNumber(desc.track)) {
      tag = &*tags->tags_.add();
      tag->targets_->trackUids_.add()->set(t->element->trackUid_->get());
    } else {
      continue;
    }
    SimpleTag& st = *tag->simpleTags_.add();
    st.name_->set(desc.name);
    st.string_->set(desc.value);
  }
}

// ---------------------------------------------------------------- intake and interleaving

bool StreamWriter::Impl::queueFrame(const TWriterFrame& f, TFrameRelease& release) {
  TrackState* t = byNumber(f.track);
  if (!t) return fail(TWriteResult::kUnknownTrack);
  const int64_t scale = static_cast<int64_t>(std::min<uint64_t>(options.timestampScale, INT64_MAX / 4));
  const int64_t decodeNs = f.decodeTime == INT64_MIN ? f.time : f.decodeTime;
  if (f.time < 0 || decodeNs < 0 || f.time > INT64_MAX / 2 || decodeNs > INT64_MAX / 2) return fail(TWriteResult::kBadTime);
  auto ticks = [scale](int64_t ns) { return (ns + scale / 2) / scale; };
  Pending p;
  for (size_t i = 0; i < tracks.size(); ++i)
    if (&tracks[i] == t) p.track = i;
  p.time = ticks(f.time);
  p.decodeTime = ticks(decodeNs);
  if (f.duration >= 0) p.duration = ticks(std::min<int64_t>(f.duration, INT64_MAX / 2));
  if (!options.lenient && p.decodeTime < t->lastDecode) return fail(TWriteResult::kTimeBackwards);
  t->lastDecode = p.decodeTime;
  p.key = f.key;
  p.discardPadding = f.discardPadding;
  p.size = f.data ? f.size : 0;
  if (release) {
    p.data = f.data;
    p.release = std::move(release);
  } else if (p.size) {
    p.copy.assign(f.data, f.data + p.size);
    p.data = p.copy.data();
  }
  t->queue.push_back(std::move(p));
  return true;
}

// A frame may be muxed once every track that is still coming has one waiting: none can arrive earlier.
bool StreamWriter::Impl::ready() const {
  bool any = false;
  for (const TrackState& t : tracks) {
    if (!t.queue.empty()) any = true;
    else if (!t.ended && !t.sparse()) return false;
  }
  return any;
}

// The track whose first frame has the earliest decode time; audio wins ties, then the track added first.
TrackState* StreamWriter::Impl::nextTrack() {
  TrackState* best = nullptr;
  for (TrackState& t : tracks) {
    if (t.queue.empty()) continue;
    if (!best) {
      best = &t;
      continue;
    }
    const int64_t a = t.queue.front().decodeTime, b = best->queue.front().decodeTime;
    if (a < b || (a == b && t.audio() && !best->audio())) best = &t;
  }
  return best;
}

void StreamWriter::Impl::muxAll(bool flush) {
  while (status == TWriteResult::kOk && (flush || !options.interleave || ready())) {
    TrackState* t = nextTrack();
    if (!t) break;
    Pending f = std::move(t->queue.front());
    t->queue.pop_front();
    mux(*t, f);
  }
}

// ---------------------------------------------------------------- clusters, blocks and cues

bool StreamWriter::Impl::joinsBlock(const TrackState& t, const Pending& f) const {
  const size_t inBlock = blockFrames.size();
  if (inBlock == 0) return true;
  if (inBlock >= kMaxLacedFrames || webm() || &tracks[blockTrack] != &t || t.sparse() || t.desc.flagLacing == 0)
    return false;
  const bool legacy = options.indexRule == TIndexRule::kKeyFramesOnly;
  if (f.key && (legacy || !t.audio())) return false;
  // Readers space laced frames by the default duration: a frame off that step starts its own block.
  if (t.video() && legacy) return f.time == blockLastTime + blockLastDuration;
  if (legacy) return true;
  // Readers step through a lace by DefaultDuration in whole ticks: only an exact step keeps every time (without
  // one, laced video frames have no time at all).
  const uint64_t step = t.desc.defaultDuration;
  if (!(t.audio() || t.video()) || step == 0 || step % options.timestampScale != 0) return false;
  return f.time == blockStart + static_cast<int64_t>(inBlock * (step / options.timestampScale));
}

void StreamWriter::Impl::mux(TrackState& t, Pending& f) {
  if (!headerWritten) beginWriting();
  if (status != TWriteResult::kOk) {
    if (f.release) f.release();
    return;
  }
  const int64_t duration = f.duration >= 0 ? f.duration
                           : t.desc.defaultDuration
                               ? static_cast<int64_t>(t.desc.defaultDuration / options.timestampScale)
                               : 0;
  int64_t relative = f.time - static_cast<int64_t>(cluster->timecode_->get());
  earliestTime = std::min(earliestTime, f.time);
  latestEnd = std::max(latestEnd, f.time + duration);
  TrackState& cueT = tracks[cueTrack];
  const bool cueKey = f.key && (options.indexRule == TIndexRule::kKeyFramesOnly || !cueT.audio());
  const bool secondCueKey = &t == &cueT && cueKey && cueTrackKeyFrames == 1;
  const bool tooLong = options.maxClusterDuration &&
                       static_cast<uint64_t>(std::max<int64_t>(relative, 0)) * options.timestampScale >=
                           options.maxClusterDuration &&
                       (!hasVideo() || (t.video() && f.key));
  // A block timecode is 16 bits: a frame too far before the cluster also needs a new one.
  if (relative >= 32767 || relative < -32768 || secondCueKey || tooLong || !cluster.storageReceipt()) {
    startNextCluster(f.time);
    relative = 0;
  }
  const bool withDuration = t.sparse() && f.duration >= 0;
  const bool group = withDuration || f.discardPadding != 0;
  if (!joinsBlock(t, f) || group) finishCurrentBlock();
  if (blockFrames.empty()) {
    for (size_t i = 0; i < tracks.size(); ++i)
      if (&tracks[i] == &t) blockTrack = i;
    block.setTrackNumber(t.number);
    block.setRelativeTimecode(static_cast<short>(relative));
    block.setKeyframe(f.key);
    blockStart = f.time;
  }
  blockLastTime = f.time;
  blockLastDuration = duration;
  blockFrames.emplace_back(f.data, static_cast<unsigned long>(f.size));
  if (f.release) blockReleases.push_back(std::move(f.release));
  if (!f.copy.empty()) blockCopies.push_back(std::move(f.copy));
  ++report.frames;
  addCuePoint(t, f);
  if (group) {
    // A subtitle's duration and trimmed audio go in a BlockGroup: a SimpleBlock carries neither.
    Cluster::BlockGroupElt element;
    block.setKeyframe(false);
    block.setLacing(SimpleBlock::kNoLacing);
    addBlockFrames();
    block.exportData(element->block_->data(), frameStorage);
    if (withDuration) element->duration_->set(static_cast<uint64_t>(f.duration));
    if (f.discardPadding) element->discardPadding_->set(f.discardPadding);
    saveBlock(element);
  }
}

// Appends a block element and lets go of the frames it held.
void StreamWriter::Impl::saveBlock(const IElement& element) {
  endOfFile();
  blockSaved(static_cast<bool>(element.save(*storage, 0)));
}

void StreamWriter::Impl::blockSaved(bool ok) {
  block = SimpleBlock();
  blockFrames.clear();
  if (!ok || file().hadWriteError()) fail(TWriteResult::kWriteFailed);
  for (auto& r : blockReleases) r();
  blockReleases.clear();
  blockCopies.clear();
  ++blocksInCluster;
  ++report.blocks;
}

// The block's frames as receipts, for a header that lists their sizes or a BlockGroup's Block.
void StreamWriter::Impl::addBlockFrames() {
  static const unsigned char kNothing = 0;
  for (const auto& [data, size] : blockFrames) block.addFrame(receiptForConstMemory(size ? data : &kNothing, size));
}

void StreamWriter::Impl::finishCurrentBlock() {
  if (blockFrames.empty()) return;
  if (webm() || tracks[blockTrack].desc.flagLacing == 0)
    block.setLacing(SimpleBlock::kNoLacing);
  else
    block.setAutoLacing();
  if (!tracks[blockTrack].video()) block.setKeyframe(true);
  // The SimpleBlock's bytes go straight to the file: an element per block would cost allocations per frame.
  if (blockFrames.size() > 1) addBlockFrames();
  const std::vector<unsigned char> header = block.headerBytes();
  uint64_t payload = header.size();
  for (const auto& frame : blockFrames) payload += frame.second;
  unsigned char idAndSize[1 + 8] = {0xA3};
  const unsigned idAndSizeBytes = 1 + vsizeNumBytes(payload);
  vsizeEncode(payload, idAndSize + 1, idAndSizeBytes - 1);
  endOfFile();
  File& out = file();
  bool ok = out.save(idAndSize, idAndSizeBytes) && out.save(header.data(), static_cast<unsigned long>(header.size()));
  for (const auto& frame : blockFrames) ok = ok && (frame.second == 0 || out.save(frame.first, frame.second));
  blockSaved(ok);
}

void StreamWriter::Impl::finishCurrentCluster() {
  if (clusterCount == 0) return;
  finishCurrentBlock();
  endOfFile();
  overwriteOpenSize(cluster, *storage);
  // A finished cluster goes to the file: a writer killed later loses at most the cluster it was writing.
  if (TCache* cache = file().cache())
    if (!cache->flushAll()) fail(TWriteResult::kWriteFailed);
}

void StreamWriter::Impl::startNextCluster(int64_t time) {
  finishCurrentCluster();
  for (TrackState& t : tracks) t.cueNeeded = true;
  blocksInCluster = 0;
  cueTrackKeyFrames = 0;
  cluster = ClusterElt();
  cluster->timecode_->set(static_cast<uint64_t>(time));
  endOfFile();
  if (!cluster.savePaddedUpToSize(*storage, kOpenSize)) fail(TWriteResult::kWriteFailed);
  ReceiptPtr r = cluster.storageReceipt();
  clusterPosition = (r ? r->position() : file().absolutePosition()) - segmentPayloadPosition;
  if (clusterPositions.empty()) clusterPositions.push_back(clusterPosition);
  ++clusterCount;
}

void StreamWriter::Impl::addCuePoint(TrackState& t, const Pending& f) {
  TrackState& cueT = tracks[cueTrack];
  const bool video = hasVideo();
  bool key = f.key;
  if (options.indexRule == TIndexRule::kPerTrack) {
    // Audio and subtitle frames stand alone: the first of each track after a cue-track cue gets one.
    if (&t != &cueT && !t.video()) key = t.cueNeeded;
    if (&t == &cueT && !t.video()) key = false;
  }
  if (video && !key) return;
  if (&t == &cueT && key) {
    ++cueTrackKeyFrames;
    for (TrackState& other : tracks) other.cueNeeded = true;
  } else if (webm() && video) {
    return;
  }
  if (!t.cueNeeded && !key) return;
  t.cueNeeded = false;
  cues.push_back(TCuePoint{static_cast<uint64_t>(f.time), clusterPosition, t.number,
                           std::min<uint32_t>(blocksInCluster, 0xFFFF)});
}

// ---------------------------------------------------------------- layout and finishing

void StreamWriter::Impl::beginWriting() {
  headerWritten = true;
  buildHeader();
  File& f = file();
  f.seek(0, File::kRelativeToEnd);
  // The Segment is written open and its size patched at the end.
  segmentElt().setFixedSize(kOpenSize);
  if (!doc.save(*storage)) fail(TWriteResult::kWriteFailed);
  ReceiptPtr payload = segmentElt().payloadReceipt();
  segmentPayloadPosition = payload ? payload->position() : 0;
  Segment& seg = segment();

  seekHead = SeekHeadElt();
  seekHead.setFixedSize(kOpenSize);
  seekHead->indexThis(&segmentElt(), &seg.info_);
  seekHead->indexThis(&segmentElt(), &seg.tracks_);
  seekHead->indexThis(&segmentElt(), &seg.cues_);
  if (chapters.mustSave()) seekHead->indexThis(&segmentElt(), &chapters);
  if (attachments.mustSave()) seekHead->indexThis(&segmentElt(), &attachments);
  if (tags.mustSave()) seekHead->indexThis(&segmentElt(), &tags);
  endOfFile();
  seekHead.save(*storage);

  uint64_t reserve = options.reserveBytes;
  report.expectedClusters = options.expectedClusters;
  if (reserve == 0) {
    uint64_t expected = options.expectedClusters;
    if (expected == 0) expected = static_cast<uint64_t>(std::max<int64_t>(options.durationHint, 0) / 1000000000) + 1;
    const uint64_t perCluster = webm() && hasVideo() ? 1 : std::max<uint64_t>(tracks.size(), 1);
    reserve = (chapterCount + expected * perCluster) * 21 + 292;
    report.expectedClusters = expected;
  }
  voidElt = VoidElement();
  voidElt->set(reserve);
  voidElt.save(*storage);
  ReceiptPtr v = voidElt.storageReceipt();
  reservationEnd = v ? v->position() + v->numBytes() : endOfFile();

  if (chapters.mustSave()) {
    chapters.save(*storage);
    overwriteSeekPosition(seekHead->findFirst(kIdChapters), segmentPayloadPosition, chapters);
  }
  if (attachments.mustSave()) {
    attachments.save(*storage);
    overwriteSeekPosition(seekHead->findFirst(kIdAttachments), segmentPayloadPosition, attachments);
  }
  clusterPosition = ~0ull;
  blocksInCluster = 0;
  cueTrackKeyFrames = 0;
  cueTrack = 0;
  for (size_t i = tracks.size(); i-- > 0;)
    if (tracks[i].audio()) cueTrack = i;
  for (size_t i = tracks.size(); i-- > 0;)
    if (tracks[i].video()) cueTrack = i;
  clusterCount = 0;
  cluster = ClusterElt();
  if (!f.isOpen()) fail(TWriteResult::kWriteFailed);
}

// Fills [from, end of the reservation) with one Void; false when exactly one byte is left.
bool StreamWriter::Impl::fillReservation(uint64_t from) {
  if (from > reservationEnd) return false;
  const uint64_t gap = reservationEnd - from;
  if (gap == 0) return true;
  if (gap == 1) return false;
  File::Seek guard(file(), static_cast<int64_t>(from), File::kAbsolutePosition);
  voidElt = VoidElement();
  // The size field is forced to the width that makes the Void exactly fill the gap.
  const uint64_t v = gap - 1;
  const unsigned w = vsizeNumBytes(v);
  voidElt->set(v - w);
  voidElt.save(*storage, w);
  return true;
}

void StreamWriter::Impl::rewriteSeekHead() {
  ReceiptPtr r = seekHead.storageReceipt();
  if (!r) return;
  File::Seek guard(file(), static_cast<int64_t>(r->position()), File::kAbsolutePosition);
  seekHead.save(*storage);
  overwriteOpenSize(seekHead, *storage);
}

void StreamWriter::Impl::writeIndex() {
  File& f = file();
  Segment& seg = segment();
  if (cues.empty()) {
    // Without cues the entry would point nowhere: the SeekHead is written again without it.
    auto& items = seekHead->entries_.items;
    for (auto it = items.begin(); it != items.end(); ++it)
      if ((*it)->id_->get() == kIdCues) {
        items.erase(it);
        break;
      }
    rewriteSeekHead();
    if (ReceiptPtr h = seekHead.storageReceipt()) fillReservation(h->position() + h->numBytes());
  }

  // Seek points go right after the first SeekHead when they fit, extending it.
  ReceiptPtr head = seekHead.storageReceipt();
  uint64_t cursor = head ? head->position() + head->numBytes() : reservationEnd;
  bool inReservation = false;
  if (head && cursor <= reservationEnd) {
    File::Seek guard(f, static_cast<int64_t>(cursor), File::kAbsolutePosition);
    uint64_t position = cursor, remaining = reservationEnd - cursor;
    if (saveClusterSeekRecords(clusterPositions, *storage, &position, &remaining) && remaining != 1) {
      overwriteOpenSize(seekHead, *storage);
      cursor = position;
      inReservation = true;
    }
    fillReservation(inReservation ? cursor : head->position() + head->numBytes());
  }
  if (!inReservation) {
    SeekHeadElt second;
    second.setFixedSize(kOpenSize);
    endOfFile();
    second.save(*storage);
    saveClusterSeekRecords(clusterPositions, *storage, nullptr, nullptr);
    overwriteOpenSize(second, *storage);
    ReceiptPtr sr = second.storageReceipt();
    if (sr) seekHead->indexThis(kIdSeekHead, sr->position() - segmentPayloadPosition);
    rewriteSeekHead();
    head = seekHead.storageReceipt();
    cursor = head ? head->position() + head->numBytes() : reservationEnd;
    fillReservation(cursor);
  }

  // Cues: in what is left of the reservation, or at the end of the file.
  auto& cuesElt = seg.cues_;
  report.indexAtFront = inReservation;
  if (!cues.empty()) {
    bool written = false;
    if (cursor + 12 <= reservationEnd) {
      File::Seek guard(f, static_cast<int64_t>(cursor), File::kAbsolutePosition);
      cuesElt.savePaddedUpToSize(*storage, kOpenSize);
      uint64_t position = cursor + 12, remaining = reservationEnd - cursor - 12;
      if (saveCuePointRecords(cues, *storage, &position, &remaining) && remaining != 1) {
        overwriteOpenSize(cuesElt, *storage);
        fillReservation(position);
        written = true;
      } else {
        cuesElt.discardReceipts();
        fillReservation(cursor);
      }
    }
    if (!written) {
      report.indexAtFront = false;
      endOfFile();
      cuesElt.savePaddedUpToSize(*storage, kOpenSize);
      saveCuePointRecords(cues, *storage, nullptr, nullptr);
      overwriteOpenSize(cuesElt, *storage);
    }
    overwriteSeekPosition(seekHead->findFirst(kIdCues), segmentPayloadPosition, cuesElt);
  }
}

void StreamWriter::Impl::finishWriting() {
  muxAll(true);
  if (!headerWritten) {
    if (options.emptyWithoutFrames || status == TWriteResult::kWriteFailed) return;
    beginWriting();
  }
  finishCurrentCluster();
  writeIndex();
  Segment& seg = segment();
  if (tags.mustSave()) {
    endOfFile();
    tags.save(*storage);
    overwriteSeekPosition(seekHead->findFirst(kIdTags), segmentPayloadPosition, tags);
  }
  seg.info_->duration_->set(static_cast<double>(latestEnd - earliestTime));
  if (ReceiptPtr infoReceipt = seg.info_.storageReceipt()) {
    File::Seek guard(file(), static_cast<int64_t>(infoReceipt->position()), File::kAbsolutePosition);
    seg.info_.save(*storage);
  }
  endOfFile();
  overwriteOpenSize(segmentElt(), *storage);
  report.duration = static_cast<double>(latestEnd - earliestTime) * static_cast<double>(options.timestampScale) / 1e9;
}

// ---------------------------------------------------------------- the public object

StreamWriter::StreamWriter() : impl_(new Impl) {}

StreamWriter::~StreamWriter() {
  if (impl_->storage) finish();
}

TWriteResult StreamWriter::open(const std::string& path, const TWriterOptions& options) {
  Impl& m = *impl_;
  if (m.storage) return TWriteResult::kAfterFinish;
  FileStorage opened(path, File::kReadWrite);
  m.ownStorage.file() = opened.file();
  if (!m.ownStorage.file().isOpen()) return TWriteResult::kWriteFailed;
  // An existing file is emptied now: the new file replaces it whole.
  m.ownStorage.file().setSize(0);
  return open(m.ownStorage, options);
}

TWriteResult StreamWriter::open(FileStorage& storage, const TWriterOptions& options) {
  Impl& m = *impl_;
  if (m.storage && m.storage != &storage) return TWriteResult::kAfterFinish;
  if (!storage.file().isOpen()) return TWriteResult::kWriteFailed;
  m.storage = &storage;
  // Large lines make few big writes; four of them keep the open cluster's header at hand for its size patch.
  if (TCache* cache = storage.file().cache())
    if (cache->lineSize() < kWriteLine) cache->resize(4, kWriteLine);
  storage.file().allocateAhead();
  m.start(options);
  return TWriteResult::kOk;
}

TWriteResult StreamWriter::addTrack(const TTrackSpec& desc, uint64_t* number) {
  Impl& m = *impl_;
  if (m.status != TWriteResult::kOk) return m.status;
  if (m.finished) return TWriteResult::kAfterFinish;
  if (m.headerWritten) return TWriteResult::kTracksClosed;
  if (desc.codecId.empty() || (desc.number && m.byNumber(desc.number)) ||
      (desc.kind != TTrackKind::kVideo && desc.kind != TTrackKind::kAudio && desc.kind != TTrackKind::kSubtitle))
    return TWriteResult::kBadTrack;
  if (m.webm() && !m.options.lenient && !isWebmCodec(desc.codecId)) return TWriteResult::kNotInWebm;
  uint64_t n = desc.number;
  if (n == 0)
    for (n = 1; m.byNumber(n); ++n) {
    }
  TrackState& t = m.tracks.emplace_back();
  t.desc = desc;
  t.number = n;
  Track& e = *m.segment().tracks_->tracks_.add();
  t.element = &e;
  e.trackNumber_->set(n);
  e.trackType_->set(static_cast<uint64_t>(desc.kind));
  if (desc.flagDefault >= 0) e.flagDefault_->set(static_cast<uint64_t>(desc.flagDefault));
  if (desc.flagForced >= 0) e.flagForced_->set(static_cast<uint64_t>(desc.flagForced));
  if (desc.flagLacing >= 0) e.flagLacing_->set(static_cast<uint64_t>(desc.flagLacing));
  if (desc.defaultDuration) e.defaultDuration_->set(desc.defaultDuration);
  if (!desc.name.empty()) e.name_->set(desc.name);
  if (!desc.language.empty()) e.language_->set(desc.language);
  if (!desc.languageIetf.empty() && !m.webm()) e.languageBcp47_->set(desc.languageIetf);
  e.codecId_->set(desc.codecId);
  if (!desc.codecPrivate.empty()) e.codecPrivate_->set(desc.codecPrivate, m.frameStorage);
  if (!desc.codecName.empty()) e.codecName_->set(desc.codecName);
  if (desc.codecDelay) e.codecDelay_->set(desc.codecDelay);
  if (desc.seekPreRoll) e.seekPreRoll_->set(desc.seekPreRoll);
  if (desc.kind == TTrackKind::kVideo) {
    Video& v = *e.video_;
    if (desc.pixelWidth) v.pixelWidth_->set(desc.pixelWidth);
    if (desc.pixelHeight) v.pixelHeight_->set(desc.pixelHeight);
    if (desc.displayWidth) v.displayWidth_->set(desc.displayWidth);
    if (desc.displayHeight) v.displayHeight_->set(desc.displayHeight);
    const TColourSpec& c = desc.colour;
    Colour& col = *v.colour_;
    auto put = [](auto& elt, int value) {
      if (value >= 0) elt->set(static_cast<uint64_t>(value));
    };
    put(col.matrixCoefficients_, c.matrixCoefficients);
    put(col.bitsPerChannel_, c.bitsPerChannel);
    put(col.chromaSubsamplingHorz_, c.chromaSubsamplingHorz);
    put(col.chromaSubsamplingVert_, c.chromaSubsamplingVert);
    put(col.chromaSitingHorz_, c.chromaSitingHorz);
    put(col.chromaSitingVert_, c.chromaSitingVert);
    put(col.range_, c.range);
    put(col.transferCharacteristics_, c.transferCharacteristics);
    put(col.primaries_, c.primaries);
    put(col.maxCll_, c.maxCll);
    put(col.maxFall_, c.maxFall);
  } else if (desc.kind == TTrackKind::kAudio) {
    Audio& a = *e.audio_;
    if (desc.samplingFrequency > 0) a.samplingFrequency_->set(desc.samplingFrequency);
    if (desc.outputSamplingFrequency > 0) a.outputSamplingFrequency_->set(desc.outputSamplingFrequency);
    if (desc.channels) a.channels_->set(desc.channels);
    if (desc.bitDepth) a.bitDepth_->set(desc.bitDepth);
  }
  if (number) *number = n;
  return TWriteResult::kOk;
}

void StreamWriter::addChapter(const TChapterSpec& chapter) { impl_->chapterSpecs.push_back(chapter); }
void StreamWriter::addAttachment(const TAttachmentSpec& attachment) { impl_->attachmentSpecs.push_back(attachment); }
void StreamWriter::addTag(const TTagSpec& tag) { impl_->tagSpecs.push_back(tag); }

Track* StreamWriter::trackElement(uint64_t number) {
  TrackState* t = impl_->byNumber(number);
  return t ? t->element : nullptr;
}

SegInfo& StreamWriter::info() { return *impl_->segment().info_; }

TWriteResult StreamWriter::write(const TWriterFrame& frame) { return write(frame, TFrameRelease()); }

TWriteResult StreamWriter::write(const TWriterFrame& frame, TFrameRelease release) {
  Impl& m = *impl_;
  TWriteResult result = m.finished ? TWriteResult::kAfterFinish : m.status;
  if (result == TWriteResult::kOk && m.queueFrame(frame, release)) {
    m.muxAll(false);
    return m.status;
  }
  if (release) release();
  return result == TWriteResult::kOk ? m.status : result;
}

void StreamWriter::endTrack(uint64_t number) {
  if (TrackState* t = impl_->byNumber(number)) t->ended = true;
  if (impl_->status == TWriteResult::kOk && !impl_->finished) impl_->muxAll(false);
}

TWriterReport StreamWriter::finish() {
  Impl& m = *impl_;
  if (!m.finished && m.storage) {
    m.finished = true;
    if (m.status != TWriteResult::kNotOpen) m.finishWriting();
    for (TrackState& t : m.tracks)
      for (Pending& p : t.queue)
        if (p.release) p.release();
    for (auto& r : m.blockReleases) r();
    m.blockReleases.clear();
    // Cached lines go to the file now, so that a failing write is reported here.
    if (TCache* cache = m.file().cache()) cache->clear();
    if (m.file().hadWriteError()) m.fail(TWriteResult::kWriteFailed);
    m.report.clusters = m.clusterCount;
    m.report.cuePoints = m.cues.size();
    m.report.fileSize = m.endOfFile();
    m.report.result = m.status;
    if (m.storage == &m.ownStorage) m.ownStorage.file().close();
  }
  return m.report;
}

TWriteResult StreamWriter::status() const { return impl_->status; }
uint64_t StreamWriter::clusterCount() const { return impl_->clusterCount; }

}  // namespace Kapsel
