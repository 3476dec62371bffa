#include "formatter/matroska_formatter.h"

#include <cmath>
#include <cstdio>
#include <iostream>

using namespace Kapsel;

namespace kapsel_formatter {

namespace {

constexpr uint32_t kMakerKvi = FourCC("KVI ");
constexpr uint32_t kMakerOn2 = FourCC("ON2!");
constexpr uint64_t kIdSeekHead = 0x114D9B74;
constexpr uint64_t kIdCues = 0x1C53BB6B;
constexpr uint64_t kIdChapters = 0x1043A770;
constexpr uint64_t kIdTags = 0x1254C367;
constexpr uint64_t kIdCluster = 0x1F43B675;
constexpr const char* kWritingApp = "Kelvaro Brevant";
constexpr uint64_t kOpenSize = 0xFFFFFFFFFFFFFFFFull;  // the maximum size marker: written open, patched later

const char* videoCodecId(uint32_t codec) {
  switch (codec) {
    case FourCC("H264"): return "V_MPEG4/ISO/AVC";
    case FourCC("MP4V"): return "V_MPEG4/ISO/ASP";
    case FourCC("VP62"): return "V_ON2VP6";
    case FourCC("VP8 "): return "V_VP8";
    default: return nullptr;
  }
}

const char* audioCodecId(uint32_t codec) {
  switch (codec) {
    case FourCC("AAC "): return "A_AAC";
    case FourCC("AC3 "): return "A_AC3";
    case FourCC("LPCM"): return "A_PCM/INT/LIT";
    case FourCC("MP3 "): return "A_MPEG/L3";
    case FourCC("VRBS"): return "A_VORBIS";
    default: return nullptr;
  }
}

uint32_t channelsForMode(const std::string& mode) {
  if (mode == "Mono") return 1;
  if (mode == "Stereo" || mode == "Joint Stereo" || mode == "Dual Channel") return 2;
  if (mode == "5.1") return 6;
  if (mode == "6.1") return 7;
  if (mode == "7.1") return 8;
  return 0;
}

void appendId(std::vector<unsigned char>& out, uint64_t id) {
  unsigned char b[8];
  out.insert(out.end(), b, b + uintEncode(id, b));
}

void appendSize(std::vector<unsigned char>& out, uint64_t size) {
  unsigned char b[8];
  out.insert(out.end(), b, b + vsizeEncode(size, b));
}

void appendUInt(std::vector<unsigned char>& out, uint64_t id, uint64_t value) {
  unsigned char b[8];
  const unsigned n = uintEncode(value, b);
  appendId(out, id);
  appendSize(out, n);
  out.insert(out.end(), b, b + n);
}

void appendMaster(std::vector<unsigned char>& out, uint64_t id, const std::vector<unsigned char>& payload) {
  appendId(out, id);
  appendSize(out, payload.size());
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

void releaseBundle(IPacketBundle*& bundle) {
  if (bundle) bundle->Release();
  bundle = nullptr;
}

}  // namespace

// ---------------------------------------------------------------- helpers

CKVTagMap::CKVTagMap() {
  add("Title", "TITLE");
  add("Publisher", "PUBLISHER");
  add("Description", "DESCRIPTION");
  add("Encoded_By", "ENCODED_BY");
  add("Type", "CONTENT_TYPE");
  add("Artist", "ARTIST");
  add("Comment", "COMMENT");
  add("Copyright", "COPYRIGHT");
  add("Keywords", "KEYWORDS");
  add("Producer", "PRODUCER");
  add("Content_Rating", "LAW_RATING");
  add("Genre", "GENRE");
  add("Encoded_With", "ENCODER");
}

std::string CKVTagMap::operator[](const std::string& name) const {
  auto it = map_.find(name);
  return it == map_.end() ? name : it->second;
}

const CKVTagMap& CKVTagMap::instance() {
  static const CKVTagMap map;
  return map;
}

void TFrameQueue::push_back(TFrame* f) {
  f->next = nullptr;
  f->prev = tail_;
  if (tail_)
    tail_->next = f;
  else
    head_ = f;
  tail_ = f;
  ++count_;
}

TFrame* TFrameQueue::pop_front() {
  TFrame* f = head_;
  if (!f) return nullptr;
  head_ = f->next;
  if (head_)
    head_->prev = nullptr;
  else
    tail_ = nullptr;
  f->next = f->prev = nullptr;
  --count_;
  return f;
}

void TFrameQueue::clear() {
  while (TFrame* f = pop_front()) {
    if (f->data) f->data->Release();
    delete f;
  }
}

uint64_t toMilliseconds(int64_t value, uint64_t unitsPerSecond) {
  if (value <= 0) return 0;  // times before the start are clamped to it
  if (unitsPerSecond == 1000) return static_cast<uint64_t>(value);
  if (unitsPerSecond == 0) return 0;
  const double ms = static_cast<double>(value) * 1000.0 / static_cast<double>(unitsPerSecond) + 0.5;
  return ms >= 1.8e19 ? ~0ull : static_cast<uint64_t>(ms);
}

bool overwriteUnknownPayloadSize(const IElement& element, IStorage& storage) {
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

bool saveCuePoints(const TDataTable<TCue, 65536>& cues, FileStorage& storage, uint64_t* position,
                   uint64_t* remaining) {
  std::vector<unsigned char> record, point, trackPos;
  for (uint32_t i = 0; i < cues.count(); ++i) {
    const TCue& c = cues[i];
    trackPos.clear();
    appendUInt(trackPos, 0xF7, c.track);
    appendUInt(trackPos, 0xF1, c.clusterPosition);
    if (c.block > 1) appendUInt(trackPos, 0x5378, c.block);
    point.clear();
    appendUInt(point, 0xB3, c.time);
    appendMaster(point, 0xB7, trackPos);
    record.clear();
    appendMaster(record, 0xBB, point);
    if (!saveRecord(record, storage, position, remaining)) return false;
  }
  return true;
}

bool saveSeekPoints(const TDataTable<unsigned long long, 65536>& positions, FileStorage& storage, uint64_t* position,
                    uint64_t* remaining) {
  std::vector<unsigned char> record, entry;
  for (uint32_t i = 0; i < positions.count(); ++i) {
    entry.clear();
    appendId(entry, 0x53AB);
    appendSize(entry, 4);
    unsigned char id[4];
    uintEncode(kIdCluster, id, 4);
    entry.insert(entry.end(), id, id + 4);
    appendUInt(entry, 0x53AC, positions[i]);
    record.clear();
    appendMaster(record, 0x4DBB, entry);
    if (!saveRecord(record, storage, position, remaining)) return false;
  }
  return true;
}

void overwriteSeekEntry(SeekHead::SeekElt* seekEntry, uint64_t segmentPayloadPosition, const IElement& element) {
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

// ---------------------------------------------------------------- the formatter object

CKVMatroskaFormatter::CKVMatroskaFormatter(uint32_t formatCode)
    : doc_(formatCode == FourCC("WEBM") ? kFileFormatWebm : kFileFormatMatroska), storage_() {}

CKVMatroskaFormatter::~CKVMatroskaFormatter() {
  EndFormatting(nullptr);
  releaseBlockPackets();
}

CKVMatroskaFormatter& CKVMatroskaFormatter::operator=(const CKVMatroskaFormatter& o) {
  if (this == &o) return *this;
  CAFormatter::operator=(o);
  static_cast<MatroskaDoc&>(doc_) = o.doc_;
  doc_.setFileFormat(o.doc_.fileFormat());
  storage_.file() = o.storage_.file();
  videoCompressor_ = o.videoCompressor_;
  audioCompressor_ = o.audioCompressor_;
  isWebM_ = o.isWebM_;
  videoMaker_ = o.videoMaker_;
  videoCodec_ = o.videoCodec_;
  videoCodecId_ = o.videoCodecId_;
  width_ = o.width_;
  height_ = o.height_;
  frameRate_ = o.frameRate_;
  audioMaker_ = o.audioMaker_;
  audioCodec_ = o.audioCodec_;
  audioCodecId_ = o.audioCodecId_;
  sampleRate_ = o.sampleRate_;
  bitsPerSample_ = o.bitsPerSample_;
  channels_ = o.channels_;
  expectedClusters_ = o.expectedClusters_;
  videoPrivate_ = o.videoPrivate_;
  audioPrivate_ = o.audioPrivate_;
  frameDurationMs_ = o.frameDurationMs_;
  segmentPayloadPosition_ = o.segmentPayloadPosition_;
  reservationEnd_ = o.reservationEnd_;
  cueTrack_ = o.cueTrack_;
  cueTrackKeyFrames_ = o.cueTrackKeyFrames_;
  cueNeeded_ = o.cueNeeded_;
  seekHead_ = o.seekHead_;
  voidElt_ = o.voidElt_;
  chapters_ = o.chapters_;
  tags_ = o.tags_;
  cluster_ = o.cluster_;
  clusterPosition_ = o.clusterPosition_;
  blocksInCluster_ = o.blocksInCluster_;
  clusterCount_ = o.clusterCount_;
  // Queued frames and block bytes belong to the source's packets and are not shared.
  clusterPositions_ = o.clusterPositions_;
  cues_ = o.cues_;
  earliestTime_ = o.earliestTime_;
  latestEnd_ = o.latestEnd_;
  chapterTimes_ = o.chapterTimes_;
  chapterCount_ = o.chapterCount_;
  return *this;
}

CAFormatter* CKVMatroskaFormatter::CreateCopy() const {
  auto* copy = new CKVMatroskaFormatter(static_cast<uint32_t>(doc_.fileFormat()));
  *copy = *this;
  // A copy has its own output: it never writes into the source's file.
  copy->storage_.file() = File();
  copy->videoCompressor_ = nullptr;
  copy->audioCompressor_ = nullptr;
  return copy;
}

uint32_t CKVMatroskaFormatter::Release() {
  delete this;
  return 0;
}

bool CKVMatroskaFormatter::SupportsAudioCodec(uint32_t maker, uint32_t codec) const {
  if (maker == kMakerKvi && codec == FourCC("VRBS")) return true;
  if (doc_.fileFormat() == kFileFormatWebm) return false;
  if (maker == kMakerKvi && codec == FourCC("AAC ")) return true;
  if (codec == FourCC("MP3 ")) return true;
  return maker == kMakerKvi && codec == FourCC("LPCM");
}

bool CKVMatroskaFormatter::SupportsVideoCodec(uint32_t maker, uint32_t codec) const {
  if (maker == kMakerOn2 && codec == FourCC("VP8 ")) return true;
  if (doc_.fileFormat() == kFileFormatWebm) return false;
  return codec == FourCC("H264") || codec == FourCC("MP4V");
}

void CKVMatroskaFormatter::SetVideoCompressors(const Array_c<IVideoCompressor*>& compressors) {
  videoCompressor_ = compressors.GetCount() > 0 ? compressors[0] : nullptr;
  CAFormatter::SetVideoCompressors(compressors);
}

void CKVMatroskaFormatter::SetAudioCompressors(const Array_c<IAudioCompressor*>& compressors) {
  audioCompressor_ = compressors.GetCount() > 0 ? compressors[0] : nullptr;
  CAFormatter::SetAudioCompressors(compressors);
}

// ---------------------------------------------------------------- setup

uint32_t CKVMatroskaFormatter::BeginFormatting() {
  // A file still open from an earlier job is finished first.
  if (began_) EndFormatting(nullptr);
  isWebM_ = doc_.fileFormat() == kFileFormatWebm;
  earliestTime_ = latestEnd_ = 0;
  cues_.clear();
  clusterPositions_.clear();
  videoCodecId_.clear();
  videoMaker_ = videoCodec_ = 0;
  frameRate_ = 24.0;
  audioCodecId_.clear();
  audioMaker_ = audioCodec_ = 0;
  sampleRate_ = 0;
  bitsPerSample_ = 16;
  channels_ = 0;

  const double scale = DurationHintTimeScale() ? static_cast<double>(DurationHintTimeScale()) : 1.0;
  const double span = DurationHintEnd() > DurationHintStart()
                          ? static_cast<double>(DurationHintEnd() - DurationHintStart())
                          : 0.0;
  const double seconds = span / scale;
  expectedClusters_ = static_cast<uint64_t>(std::min(seconds, 1e12)) + 1;
  clusterCount_ = 0;

  if (videoCompressor_) {
    videoMaker_ = videoCompressor_->GetMaker();
    videoCodec_ = videoCompressor_->GetCodec();
    const char* id = videoCodecId(videoCodec_);
    if (!id) return kResultUnknownVideoCodec;
    videoCodecId_ = id;
    width_ = videoCompressor_->GetWidth();
    height_ = videoCompressor_->GetHeight();
    const double rate = videoCompressor_->GetFrameRate();
    if (rate > 0 && std::isfinite(rate)) frameRate_ = rate;
    uint32_t interval = 0;
    bool autoKeys = true;
    if (videoCompressor_->GetKeyFrameInterval(interval) && interval > 0 &&
        (!videoCompressor_->GetAutoKeyFrames(autoKeys) || autoKeys)) {
      const double frames = std::min(seconds * frameRate_, 1e12);
      expectedClusters_ = (static_cast<uint64_t>(frames) + 1) / interval + 1;
      bool margin = true;
      if (!videoCompressor_->GetKeyFrameMargin(margin) || margin) expectedClusters_ += expectedClusters_ / 2;
    }
  }
  frameDurationMs_ = static_cast<uint64_t>(1000.0 / frameRate_ + 0.5);

  if (audioCompressor_) {
    audioMaker_ = audioCompressor_->GetMaker();
    audioCodec_ = audioCompressor_->GetCodec();
    const char* id = audioCodecId(audioCodec_);
    if (!id) return kResultUnknownAudioCodec;
    audioCodecId_ = id;
    sampleRate_ = audioCompressor_->GetSampleRate();
    bitsPerSample_ = audioCompressor_->GetBitsPerSample();
    channels_ = channelsForMode(audioCompressor_->GetChannelMode().str());
  }
  // A stream is expected when the host asked for it and said how it is coded.
  videoExpected_ = VideoExpected() && videoCompressor_ != nullptr;
  audioExpected_ = AudioExpected() && audioCompressor_ != nullptr;

  FileStorage opened(OutputFile().str(), File::kReadWrite);
  storage_.file() = opened.file();
  if (!storage_.file().isOpen()) return kResultOutputNotOpened;
  // An existing file is emptied now: a job that receives no frames leaves an empty file.
  storage_.file().setSize(0);
  began_ = true;
  return kResultOk;
}

void CKVMatroskaFormatter::buildVorbisPrivate() {
  if (audioQueue_.count() < 3) return;
  TFrame* headers[3];
  for (auto& h : headers) h = audioQueue_.pop_front();
  std::vector<unsigned char> priv{2};
  for (int i = 0; i < 2; ++i) {
    uint64_t size = headers[i]->data ? headers[i]->data->GetSize() : 0;
    while (size >= 255) {
      priv.push_back(255);
      size -= 255;
    }
    priv.push_back(static_cast<unsigned char>(size));
  }
  for (auto& h : headers) {
    if (h->data) {
      const uint8_t* d = h->data->GetData();
      if (d) priv.insert(priv.end(), d, d + h->data->GetSize());
      h->data->Release();
    }
    delete h;
  }
  audioPrivate_ = priv;
}

Segment& CKVMatroskaFormatter::segment() { return *doc_.segments_.front(); }
MatroskaDoc::SegmentElt& CKVMatroskaFormatter::segmentElt() { return doc_.segments_.front(); }

void CKVMatroskaFormatter::buildHeader() {
  const TFileFormat format = doc_.fileFormat();
  doc_ = WebmDoc(format);
  doc_.segments_.add();
  Segment& seg = segment();
  SegInfo& info = *seg.info_;
  info.timecodeScale_->set(1000000);
  info.writingApp_->set(kWritingApp);
  const double scale = DurationHintTimeScale() ? static_cast<double>(DurationHintTimeScale()) : 1.0;
  const double span = DurationHintEnd() > DurationHintStart()
                          ? static_cast<double>(DurationHintEnd() - DurationHintStart())
                          : 0.0;
  info.duration_->set(span * 1000.0 / scale);
  // Readers show the container's title from here, not from the tags.
  for (uint32_t i = 0; i < MetaData().GetCount(); ++i)
    if (MetaData()[i].GetName().str() == "Title") info.title_->set(MetaData()[i].GetValue().str());
  if (!isWebM_) {
    unsigned char uid[16];
    createUID(uid, 16);
    info.segmentUid_->set(uid);
  }

  if (videoExpected()) {
    Track& t = *seg.tracks_->tracks_.add();
    t.trackNumber_->set(1);
    t.trackType_->set(1);
    t.trackUid_->set(createUID());
    t.defaultDuration_->set(static_cast<uint64_t>(1.0 / frameRate_ * 1e9));
    t.trackTimecodeScale_->set(1.0);
    t.codecId_->set(videoCodecId_);
    t.codecName_->set(videoCompressor_->GetDisplayName().str());
    t.video_->pixelWidth_->set(width_);
    t.video_->pixelHeight_->set(height_);
    if ((videoCodec_ == FourCC("H264") || videoCodec_ == FourCC("MP4V")) && !videoPrivate_.empty())
      t.codecPrivate_->set(videoPrivate_, frameStorage_);
  }
  if (audioExpected()) {
    Track& t = *seg.tracks_->tracks_.add();
    t.trackNumber_->set(2);
    t.trackType_->set(2);
    t.trackUid_->set(createUID());
    t.trackTimecodeScale_->set(1.0);
    t.flagLacing_->set(isWebM_ ? 0 : 1);
    t.codecId_->set(audioCodecId_);
    t.codecName_->set(audioCompressor_->GetDisplayName().str());
    t.audio_->samplingFrequency_->set(static_cast<double>(sampleRate_));
    t.audio_->channels_->set(channels_);
    t.audio_->bitDepth_->set(bitsPerSample_);
    if (audioCodec_ == FourCC("VRBS")) buildVorbisPrivate();
    if ((audioCodec_ == FourCC("AAC ") || audioCodec_ == FourCC("VRBS")) && !audioPrivate_.empty())
      t.codecPrivate_->set(audioPrivate_, frameStorage_);
  }

  chapters_ = ChaptersElt();
  chapterTimes_.clear();
  std::vector<std::pair<std::string, double>> marks;
  for (const CAceMarker& m : ChapterMarkers())
    if (m.GetType() == CAceMarker::kMarkerTypeChapter) marks.emplace_back(m.GetName().str(), m.GetEncodedFrameTime());
  chapterCount_ = 0;
  if (!marks.empty()) {
    Edition& edition = *chapters_->editions_.add();
    edition.uid_->set(createUID());
    if (marks.front().second > 0.0) marks.insert(marks.begin(), {"Intro", 0.0});
    for (const auto& m : marks) {
      const double t = m.second > 0.0 && std::isfinite(m.second) ? m.second : 0.0;
      ChapAtom& atom = *edition.atoms_.add();
      atom.uid_->set(createUID());
      atom.timeStart_->set(static_cast<uint64_t>(t * 1e9));
      atom.displays_.add()->string_->set(m.first);
      chapterTimes_.push_back(static_cast<uint64_t>(t * 1000.0));
      ++chapterCount_;
    }
  }

  tags_ = TagsElt();
  if (!isWebM_ && MetaData().GetCount() > 0) {
    Tag& tag = *tags_->tags_.add();
    for (uint32_t i = 0; i < MetaData().GetCount(); ++i) {
      SimpleTag& st = *tag.simpleTags_.add();
      st.name_->set(CKVTagMap::instance()[MetaData()[i].GetName().str()]);
      st.string_->set(MetaData()[i].GetValue().str());
    }
  }
}

// ---------------------------------------------------------------- intake

uint32_t CKVMatroskaFormatter::AddVideoSample(KVImage_t* sample) {
  if (!sample) return 0;
  const bool take = began_ && videoExpected();
  if (take && (videoCodec_ == FourCC("H264") || videoCodec_ == FourCC("MP4V")) && videoPrivate_.empty() &&
      sample->descriptors) {
    if (IPacket* p = sample->descriptors->Find(IPacket::kPacketTypeDescriptor)) {
      if (p->GetData() && p->GetSize()) videoPrivate_.assign(p->GetData(), p->GetData() + p->GetSize());
    }
  }
  IPacket* packet = take && sample->data && sample->data->GetCount() > 0 ? sample->data->TakePacket(0) : nullptr;
  if (packet) {
    auto* f = new TFrame;
    f->data = packet;
    f->time = toMilliseconds(sample->time, sample->timeUnits);
    f->decodeTime = toMilliseconds(sample->time - sample->compositionOffset, sample->timeUnits);
    f->duration = frameDurationMs_;
    f->track = 1;
    f->key = !sample->notKeyFrame;
    videoQueue_.push_back(f);
  }
  releaseBundle(sample->descriptors);
  releaseBundle(sample->data);
  if (packet) mux(false);
  return 0;
}

uint32_t CKVMatroskaFormatter::AddAudioSample(KVAudio_t* sample) {
  if (!sample) return 0;
  const bool take = began_ && audioExpected();
  if (take && audioCodec_ == FourCC("AAC ") && audioPrivate_.empty() && sample->descriptors) {
    if (IPacket* p = sample->descriptors->Find(IPacket::kPacketTypeDescriptor)) {
      if (p->GetData() && p->GetSize()) audioPrivate_.assign(p->GetData(), p->GetData() + p->GetSize());
    }
  }
  bool added = false;
  IPacketBundle* bundle = sample->packets;
  if (take && bundle && bundle->GetCount() > 0) {
    auto timeOf = [](IPacket* p) { return toMilliseconds(p->GetTimeValue(), p->GetTimeUnits()); };
    if (TFrame* last = audioQueue_.back()) {
      if (IPacket* first = bundle->GetPacket(0)) {
        const uint64_t t = timeOf(first);
        last->duration = t > last->time ? t - last->time : 0;
      }
    }
    while (bundle->GetCount() > 0) {
      IPacket* p = bundle->TakePacket(0);
      if (!p) break;
      auto* f = new TFrame;
      f->data = p;
      f->track = 2;
      f->time = f->decodeTime = timeOf(p);
      IPacket* next = bundle->GetCount() > 0 ? bundle->GetPacket(0) : nullptr;
      if (next) {
        const uint64_t t = timeOf(next);
        f->duration = t > f->time ? t - f->time : 0;
      } else {
        f->duration = 1;  // corrected when the next buffer arrives
      }
      audioQueue_.push_back(f);
      added = true;
    }
  }
  releaseBundle(sample->descriptors);
  releaseBundle(sample->packets);
  if (added) mux(false);
  return 0;
}

bool CKVMatroskaFormatter::mux(bool flush) {
  bool result = flush;
  for (;;) {
    if (!flush && ((videoExpected() && videoQueue_.count() < 2) || (audioExpected() && audioQueue_.count() < 2)))
      break;
    result = muxOneFrame();
    if (!result) break;
  }
  return result;
}

bool CKVMatroskaFormatter::muxOneFrame() {
  if (!headerWritten_) {
    if (audioQueue_.empty() && videoQueue_.empty()) return false;
    beginWriting();
  }
  TFrame* frame = nullptr;
  if (!audioQueue_.empty() && !videoQueue_.empty())
    frame = audioQueue_.front()->decodeTime > videoQueue_.front()->decodeTime ? videoQueue_.pop_front()
                                                                                : audioQueue_.pop_front();
  else if (!audioQueue_.empty())
    frame = audioQueue_.pop_front();
  else if (!videoQueue_.empty())
    frame = videoQueue_.pop_front();
  if (!frame) return false;

  if (frame->track == 2) {
    while (!chapterTimes_.empty() && chapterTimes_.front() < frame->time + frame->duration) {
      frame->key = true;
      chapterTimes_.pop_front();
    }
  }
  int64_t relative = static_cast<int64_t>(frame->time - cluster_->timecode_->get());
  earliestTime_ = std::min(earliestTime_, frame->time);
  latestEnd_ = std::max(latestEnd_, frame->time + frame->duration);
  const bool secondCueKey = frame->track == cueTrack_ && frame->key && cueTrackKeyFrames_ == 1;
  // A block timecode is 16 bits: a frame too far before the cluster also needs a new one.
  if (relative >= 32767 || relative < -32768 || secondCueKey || !cluster_.storageReceipt()) {
    startNextCluster(*frame);
    relative = 0;
  }
  const unsigned long inBlock = block_.getNumberOfFrames();
  // Readers space laced frames by the default duration: a video frame off that step starts its own block.
  const bool offStep = frame->track == 1 && frame->time != blockLastTime_ + frameDurationMs_;
  if (inBlock >= 8 ||
      (inBlock >= 1 && (isWebM_ || frame->key || frame->track != block_.getTrackNumber() || offStep)))
    finishCurrentBlock();
  if (block_.getNumberOfFrames() == 0) {
    block_.setTrackNumber(frame->track);
    block_.setRelativeTimecode(static_cast<short>(relative));
    block_.setKeyframe(frame->key);
  }
  blockLastTime_ = frame->time;
  IPacket* packet = frame->data;
  frame->data = nullptr;
  if (packet && packet->GetData() && packet->GetSize() > 0) {
    // The block points at the packet's bytes; the packet is released when the block is written.
    block_.addFrame(receiptForConstMemory(packet->GetData(), packet->GetSize()));
    blockPackets_.push_back(packet);
  } else {
    static const unsigned char kNothing = 0;
    block_.addFrame(receiptForConstMemory(&kNothing, 0));
    if (packet) packet->Release();
  }
  addCuePoint(*frame);
  delete frame;
  return true;
}

// ---------------------------------------------------------------- clusters, blocks and cues

void CKVMatroskaFormatter::releaseBlockPackets() {
  for (IPacket* p : blockPackets_) p->Release();
  blockPackets_.clear();
}

void CKVMatroskaFormatter::finishCurrentBlock() {
  if (block_.getNumberOfFrames() == 0) return;
  if (isWebM_)
    block_.setLacing(SimpleBlock::kNoLacing);
  else
    block_.setAutoLacing();
  if (block_.getTrackNumber() == 2) block_.setKeyframe(true);
  Cluster::SimpleBlockElt element;
  block_.exportData(element->data(), frameStorage_);
  block_ = SimpleBlock();
  storage_.file().seek(0, File::kRelativeToEnd);
  element.save(storage_, 0);
  releaseBlockPackets();
  ++blocksInCluster_;
}

void CKVMatroskaFormatter::finishCurrentCluster() {
  if (clusterCount_ == 0) return;
  finishCurrentBlock();
  storage_.file().seek(0, File::kRelativeToEnd);
  overwriteUnknownPayloadSize(cluster_, storage_);
}

void CKVMatroskaFormatter::startNextCluster(const TFrame& frame) {
  finishCurrentCluster();
  cueNeeded_.assign(cueNeeded_.size(), true);
  blocksInCluster_ = 0;
  cueTrackKeyFrames_ = 0;
  cluster_ = ClusterElt();
  cluster_->timecode_->set(frame.time);
  storage_.file().seek(0, File::kRelativeToEnd);
  cluster_.savePaddedUpToSize(storage_, kOpenSize);
  ReceiptPtr r = cluster_.storageReceipt();
  clusterPosition_ = (r ? r->position() : storage_.file().absolutePosition()) - segmentPayloadPosition_;
  if (clusterPositions_.empty()) clusterPositions_.add(clusterPosition_);
  ++clusterCount_;
}

void CKVMatroskaFormatter::addCuePoint(const TFrame& frame) {
  if (videoExpected() && !frame.key) return;
  if (frame.track == cueTrack_ && frame.key) {
    ++cueTrackKeyFrames_;
    cueNeeded_.assign(cueNeeded_.size(), true);
  } else if (isWebM_ && videoExpected()) {
    return;
  }
  if (frame.track >= cueNeeded_.size()) return;
  if (!cueNeeded_[frame.track] && !frame.key) return;
  cueNeeded_[frame.track] = false;
  cues_.add(TCue{frame.time, clusterPosition_, static_cast<uint16_t>(frame.track),
                 static_cast<uint16_t>(std::min<uint32_t>(blocksInCluster_, 0xFFFF))});
}

// ---------------------------------------------------------------- layout and finishing

uint64_t CKVMatroskaFormatter::endOfFile() {
  storage_.file().seek(0, File::kRelativeToEnd);
  return storage_.file().absolutePosition();
}

void CKVMatroskaFormatter::beginWriting() {
  headerWritten_ = true;
  buildHeader();
  File& file = storage_.file();
  file.setSize(0);
  file.seek(0, File::kAbsolutePosition);
  // The Segment is written open and its size patched at the end.
  segmentElt().setFixedSize(kOpenSize);
  doc_.save(storage_);
  ReceiptPtr payload = segmentElt().payloadReceipt();
  segmentPayloadPosition_ = payload ? payload->position() : 0;
  Segment& seg = segment();

  seekHead_ = SeekHeadElt();
  seekHead_.setFixedSize(kOpenSize);
  seekHead_->indexThis(&segmentElt(), &seg.info_);
  seekHead_->indexThis(&segmentElt(), &seg.tracks_);
  seekHead_->indexThis(&segmentElt(), &seg.cues_);
  if (chapters_.mustSave()) seekHead_->indexThis(&segmentElt(), &chapters_);
  if (tags_.mustSave()) seekHead_->indexThis(&segmentElt(), &tags_);
  endOfFile();
  seekHead_.save(storage_);

  voidElt_ = VoidElement();
  voidElt_->set((chapterCount_ + expectedClusters_) * 21 + 292);
  voidElt_.save(storage_);
  ReceiptPtr v = voidElt_.storageReceipt();
  reservationEnd_ = v ? v->position() + v->numBytes() : endOfFile();

  if (chapters_.mustSave()) {
    chapters_.save(storage_);
    overwriteSeekEntry(seekHead_->findFirst(kIdChapters), segmentPayloadPosition_, chapters_);
  }
  clusterPosition_ = ~0ull;
  blocksInCluster_ = 0;
  cueNeeded_.assign(3, true);
  cueTrackKeyFrames_ = 0;
  cueTrack_ = videoExpected() ? 1 : 2;
  clusterCount_ = 0;
  cluster_ = ClusterElt();
}

// Fills [from, end of the reservation) with one Void; false when exactly one byte is left.
bool CKVMatroskaFormatter::fillReservation(uint64_t from) {
  if (from > reservationEnd_) return false;
  const uint64_t gap = reservationEnd_ - from;
  if (gap == 0) return true;
  if (gap == 1) return false;
  File::Seek guard(storage_.file(), static_cast<int64_t>(from), File::kAbsolutePosition);
  voidElt_ = VoidElement();
  // The size field is forced to the width that makes the Void exactly fill the gap.
  const uint64_t v = gap - 1;
  const unsigned w = vsizeNumBytes(v);
  voidElt_->set(v - w);
  voidElt_.save(storage_, w);
  return true;
}

void CKVMatroskaFormatter::rewriteSeekHead() {
  ReceiptPtr r = seekHead_.storageReceipt();
  if (!r) return;
  File::Seek guard(storage_.file(), static_cast<int64_t>(r->position()), File::kAbsolutePosition);
  seekHead_.save(storage_);
  overwriteUnknownPayloadSize(seekHead_, storage_);
}

void CKVMatroskaFormatter::finishWriting() {
  if (!headerWritten_) return;
  while (!audioQueue_.empty() || !videoQueue_.empty())
    if (!muxOneFrame()) break;
  finishCurrentCluster();
  File& file = storage_.file();
  Segment& seg = segment();

  if (cues_.empty()) {
    // Without cues the entry would point nowhere: the SeekHead is written again without it.
    auto& items = seekHead_->entries_.items;
    for (auto it = items.begin(); it != items.end(); ++it)
      if ((*it)->id_->get() == kIdCues) {
        items.erase(it);
        break;
      }
    rewriteSeekHead();
    if (ReceiptPtr h = seekHead_.storageReceipt()) fillReservation(h->position() + h->numBytes());
  }

  // Seek points go right after the first SeekHead when they fit, extending it.
  ReceiptPtr head = seekHead_.storageReceipt();
  uint64_t cursor = head ? head->position() + head->numBytes() : reservationEnd_;
  bool inReservation = false;
  if (head && cursor <= reservationEnd_) {
    File::Seek guard(file, static_cast<int64_t>(cursor), File::kAbsolutePosition);
    uint64_t position = cursor, remaining = reservationEnd_ - cursor;
    if (saveSeekPoints(clusterPositions_, storage_, &position, &remaining) && remaining != 1) {
      overwriteUnknownPayloadSize(seekHead_, storage_);
      cursor = position;
      inReservation = true;
    }
    fillReservation(inReservation ? cursor : head->position() + head->numBytes());
  }
  if (!inReservation) {
    SeekHeadElt second;
    second.setFixedSize(kOpenSize);
    endOfFile();
    second.save(storage_);
    saveSeekPoints(clusterPositions_, storage_);
    overwriteUnknownPayloadSize(second, storage_);
    ReceiptPtr sr = second.storageReceipt();
    if (sr) seekHead_->indexThis(kIdSeekHead, sr->position() - segmentPayloadPosition_);
    rewriteSeekHead();
    head = seekHead_.storageReceipt();
    cursor = head ? head->position() + head->numBytes() : reservationEnd_;
    fillReservation(cursor);
  }

  // Cues: in what is left of the reservation, or at the end of the file.
  auto& cuesElt = seg.cues_;
  bool cuesWritten = false;
  if (!cues_.empty()) {
    if (cursor + 12 <= reservationEnd_) {
      File::Seek guard(file, static_cast<int64_t>(cursor), File::kAbsolutePosition);
      cuesElt.savePaddedUpToSize(storage_, kOpenSize);
      uint64_t position = cursor + 12, remaining = reservationEnd_ - cursor - 12;
      if (saveCuePoints(cues_, storage_, &position, &remaining) && remaining != 1) {
        overwriteUnknownPayloadSize(cuesElt, storage_);
        fillReservation(position);
        cuesWritten = true;
      } else {
        cuesElt.discardReceipts();
        fillReservation(cursor);
      }
    }
    if (!cuesWritten) {
      endOfFile();
      cuesElt.savePaddedUpToSize(storage_, kOpenSize);
      saveCuePoints(cues_, storage_);
      overwriteUnknownPayloadSize(cuesElt, storage_);
      cuesWritten = true;
    }
    overwriteSeekEntry(seekHead_->findFirst(kIdCues), segmentPayloadPosition_, cuesElt);
  }

  if (tags_.mustSave()) {
    endOfFile();
    tags_.save(storage_);
    overwriteSeekEntry(seekHead_->findFirst(kIdTags), segmentPayloadPosition_, tags_);
  }

  seg.info_->duration_->set(static_cast<double>(latestEnd_ - earliestTime_));
  if (ReceiptPtr infoReceipt = seg.info_.storageReceipt()) {
    File::Seek guard(file, static_cast<int64_t>(infoReceipt->position()), File::kAbsolutePosition);
    seg.info_.save(storage_);
  }

  endOfFile();
  overwriteUnknownPayloadSize(segmentElt(), storage_);

  std::cerr << "\nEXPECTED CLUSTERS   : " << expectedClusters_ << "\nFINAL CLUSTER COUNT : " << clusterCount_
            << "\n\n";
  std::cerr.flush();
}

uint32_t CKVMatroskaFormatter::EndFormatting(KVImage_t*) {
  if (began_) {
    finishWriting();
    storage_.file().close();
  }
  resetForNextFile();
  return 0;
}

void CKVMatroskaFormatter::resetForNextFile() {
  audioQueue_.clear();
  videoQueue_.clear();
  releaseBlockPackets();
  doc_ = WebmDoc(doc_.fileFormat());
  storage_.file() = File();
  frameStorage_ = MemoryStorage();
  videoPrivate_.clear();
  audioPrivate_.clear();
  cueNeeded_.clear();
  seekHead_ = SeekHeadElt();
  voidElt_ = VoidElement();
  chapters_ = ChaptersElt();
  tags_ = TagsElt();
  cluster_ = ClusterElt();
  block_ = SimpleBlock();
  clusterPositions_.clear();
  cues_.clear();
  chapterTimes_.clear();
  began_ = false;
  headerWritten_ = false;
}

}  // namespace kapsel_formatter
