#include "formatter/matroska_formatter.h"

#include <cmath>
#include <cstdio>
#include <iostream>

using namespace Kapsel;

namespace kapsel_formatter {

namespace {

constexpr uint32_t kMakerKvi = FourCC("KVI ");
constexpr uint32_t kMakerOn2 = FourCC("ON2!");
constexpr const char* kWritingApp = "Kelvaro Brevant";
constexpr uint64_t kNsPerMs = 1000000;

const char* videoCodecId(uint32_t codec) {
  switch (codec) {
    case FourCC("H264"): return "V_MPEG4/ISO/AVC";
    case FourCC("MP4V"): return "V_MPEG4/ISO/ASP";
    case FourCC("VP62"): return "V_ON2VP6";
    case FourCC("VP8 "): return "V_VP8";
    case FourCC("VP90"): return "V_VP9";
    case FourCC("AV01"): return "V_AV1";
    case FourCC("HEVC"): return "V_MPEGH/ISO/HEVC";
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
    case FourCC("Opus"): return "A_OPUS";
    case FourCC("FLAC"): return "A_FLAC";
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
  return overwriteOpenSize(element, storage);
}

bool saveCuePoints(const TDataTable<TCue, 65536>& cues, FileStorage& storage, uint64_t* position,
                   uint64_t* remaining) {
  std::vector<TCuePoint> points;
  for (uint32_t i = 0; i < cues.count(); ++i)
    points.push_back(TCuePoint{cues[i].time, cues[i].clusterPosition, cues[i].track, cues[i].block});
  return saveCuePointRecords(points, storage, position, remaining);
}

bool saveSeekPoints(const TDataTable<unsigned long long, 65536>& positions, FileStorage& storage, uint64_t* position,
                    uint64_t* remaining) {
  std::vector<uint64_t> points;
  for (uint32_t i = 0; i < positions.count(); ++i) points.push_back(positions[i]);
  return saveClusterSeekRecords(points, storage, position, remaining);
}

void overwriteSeekEntry(SeekHead::SeekElt* seekEntry, uint64_t segmentPayloadPosition, const IElement& element) {
  overwriteSeekPosition(seekEntry, segmentPayloadPosition, element);
}

// ---------------------------------------------------------------- the formatter object

CKVMatroskaFormatter::CKVMatroskaFormatter(uint32_t formatCode)
    : doc_(formatCode == FourCC("WEBM") ? kFileFormatWebm : kFileFormatMatroska), storage_() {}

CKVMatroskaFormatter::~CKVMatroskaFormatter() { EndFormatting(nullptr); }

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
  clusterCount_ = o.clusterCount_;
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

// Codes added after the first four video and five audio codes: from any maker, WebM's own ones in both formats.
static bool takesCodecPrivate(uint32_t codec) {
  return codec == FourCC("H264") || codec == FourCC("MP4V") || codec == FourCC("HEVC") || codec == FourCC("AV01") ||
         codec == FourCC("AAC ") || codec == FourCC("Opus") || codec == FourCC("FLAC");
}

bool CKVMatroskaFormatter::SupportsAudioCodec(uint32_t maker, uint32_t codec) const {
  if (codec == FourCC("Opus")) return true;
  if (codec == FourCC("FLAC")) return doc_.fileFormat() != kFileFormatWebm;
  if (maker == kMakerKvi && codec == FourCC("VRBS")) return true;
  if (doc_.fileFormat() == kFileFormatWebm) return false;
  if (maker == kMakerKvi && codec == FourCC("AAC ")) return true;
  if (codec == FourCC("MP3 ")) return true;
  return maker == kMakerKvi && codec == FourCC("LPCM");
}

bool CKVMatroskaFormatter::SupportsVideoCodec(uint32_t maker, uint32_t codec) const {
  if (codec == FourCC("VP90") || codec == FourCC("AV01")) return true;
  if (codec == FourCC("HEVC")) return doc_.fileFormat() != kFileFormatWebm;
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

// Declares the file to the writer: segment information, tracks, chapters and tags as the host described them.
void CKVMatroskaFormatter::buildHeader() {
  TWriterOptions options;
  options.format = doc_.fileFormat();
  options.writingApp = kWritingApp;
  options.expectedClusters = expectedClusters_;
  options.interleave = false;
  options.lenient = true;
  options.emptyWithoutFrames = true;
  options.indexRule = TIndexRule::kKeyFramesOnly;

  std::vector<std::pair<std::string, double>> marks;
  for (const CAceMarker& m : ChapterMarkers())
    if (m.GetType() == CAceMarker::kMarkerTypeChapter) marks.emplace_back(m.GetName().str(), m.GetEncodedFrameTime());
  if (!marks.empty() && marks.front().second > 0.0) marks.insert(marks.begin(), {"Intro", 0.0});
  chapterCount_ = marks.size();
  chapterTimes_.clear();
  options.reserveBytes = (chapterCount_ + expectedClusters_) * 21 + 292;
  writer_.reset(new StreamWriter);
  if (writer_->open(storage_, options) != TWriteResult::kOk) return;

  SegInfo& info = writer_->info();
  const double scale = DurationHintTimeScale() ? static_cast<double>(DurationHintTimeScale()) : 1.0;
  const double span = DurationHintEnd() > DurationHintStart()
                          ? static_cast<double>(DurationHintEnd() - DurationHintStart())
                          : 0.0;
  info.duration_->set(span * 1000.0 / scale);
  // Readers show the container's title from here, not from the tags.
  for (uint32_t i = 0; i < MetaData().GetCount(); ++i)
    if (MetaData()[i].GetName().str() == "Title") info.title_->set(MetaData()[i].GetValue().str());

  if (videoExpected()) {
    TTrackSpec desc;
    desc.kind = TTrackKind::kVideo;
    desc.number = 1;
    desc.codecId = videoCodecId_;
    if (writer_->addTrack(desc) == TWriteResult::kOk) {
      Track& t = *writer_->trackElement(1);
      t.defaultDuration_->set(static_cast<uint64_t>(1.0 / frameRate_ * 1e9));
      t.trackTimecodeScale_->set(1.0);
      t.codecName_->set(videoCompressor_->GetDisplayName().str());
      t.video_->pixelWidth_->set(width_);
      t.video_->pixelHeight_->set(height_);
      if (takesCodecPrivate(videoCodec_) && !videoPrivate_.empty())
        t.codecPrivate_->set(videoPrivate_, frameStorage_);
    }
  }
  if (audioExpected()) {
    TTrackSpec desc;
    desc.kind = TTrackKind::kAudio;
    desc.number = 2;
    desc.codecId = audioCodecId_;
    if (writer_->addTrack(desc) == TWriteResult::kOk) {
      Track& t = *writer_->trackElement(2);
      t.trackTimecodeScale_->set(1.0);
      t.flagLacing_->set(isWebM_ ? 0 : 1);
      t.codecName_->set(audioCompressor_->GetDisplayName().str());
      t.audio_->samplingFrequency_->set(static_cast<double>(sampleRate_));
      t.audio_->channels_->set(channels_);
      t.audio_->bitDepth_->set(bitsPerSample_);
      if (audioCodec_ == FourCC("VRBS")) buildVorbisPrivate();
      CodecBytes flac;
      if (audioCodec_ == FourCC("FLAC") && flacCodecPrivate(audioPrivate_.data(), audioPrivate_.size(), flac))
        audioPrivate_ = flac;
      if ((takesCodecPrivate(audioCodec_) || audioCodec_ == FourCC("VRBS")) && !audioPrivate_.empty())
        t.codecPrivate_->set(audioPrivate_, frameStorage_);
      uint64_t delay = 0;
      if (audioCodec_ == FourCC("Opus")) {
        if (opusCodecDelay(audioPrivate_.data(), audioPrivate_.size(), delay) && delay) t.codecDelay_->set(delay);
        t.seekPreRoll_->set(kOpusSeekPreRollNs);
      }
    }
  }

  for (const auto& m : marks) {
    const double t = m.second > 0.0 && std::isfinite(m.second) ? m.second : 0.0;
    TChapterSpec chapter;
    chapter.start = static_cast<int64_t>(static_cast<uint64_t>(t * 1e9));
    chapter.title = m.first;
    writer_->addChapter(chapter);
    chapterTimes_.push_back(static_cast<uint64_t>(t * 1000.0));
  }
  if (!isWebM_)
    for (uint32_t i = 0; i < MetaData().GetCount(); ++i)
      writer_->addTag({CKVTagMap::instance()[MetaData()[i].GetName().str()], MetaData()[i].GetValue().str(), 0});
}

// ---------------------------------------------------------------- intake

uint32_t CKVMatroskaFormatter::AddVideoSample(KVImage_t* sample) {
  if (!sample) return 0;
  const bool take = began_ && videoExpected();
  if (take && takesCodecPrivate(videoCodec_) && videoPrivate_.empty() &&
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
  if (take && takesCodecPrivate(audioCodec_) && audioPrivate_.empty() && sample->descriptors) {
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
    headerWritten_ = true;
    buildHeader();
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
  TWriterFrame out;
  out.track = frame->track;
  IPacket* packet = frame->data;
  frame->data = nullptr;
  if (packet && packet->GetData() && packet->GetSize() > 0) {
    out.data = packet->GetData();
    out.size = packet->GetSize();
  }
  out.time = static_cast<int64_t>(frame->time * kNsPerMs);
  out.decodeTime = static_cast<int64_t>(frame->decodeTime * kNsPerMs);
  out.duration = static_cast<int64_t>(frame->duration * kNsPerMs);
  out.key = frame->key;
  delete frame;
  // The block points at the packet's bytes; the packet is released once the block is written.
  const TWriteResult result = writer_ ? writer_->write(out, [packet] {
    if (packet) packet->Release();
  })
                                      : TWriteResult::kNotOpen;
  if (!writer_ && packet) packet->Release();
  return result == TWriteResult::kOk;
}

// ---------------------------------------------------------------- layout and finishing

void CKVMatroskaFormatter::finishWriting() {
  if (!headerWritten_) return;
  while (!audioQueue_.empty() || !videoQueue_.empty())
    if (!muxOneFrame()) break;
  if (writer_) clusterCount_ = static_cast<uint32_t>(writer_->finish().clusters);
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
  writer_.reset();
  doc_ = WebmDoc(doc_.fileFormat());
  storage_.file() = File();
  frameStorage_ = MemoryStorage();
  videoPrivate_.clear();
  audioPrivate_.clear();
  chapterTimes_.clear();
  began_ = false;
  headerWritten_ = false;
}

}  // namespace kapsel_formatter
