#pragma once
// The formatter the host drives: writes compressed samples into one Matroska or WebM file.

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "formatter/data_table.h"
#include "formatter/kapsel_formatter_results.h"
#include "host_sdk/host_sdk.h"
#include "kapsel/kapsel.h"
#include "kapsel/writer.h"

namespace kapsel_formatter {

// Host metadata names to Matroska tag names.
class CKVTagMap {
 public:
  CKVTagMap();
  void add(const std::string& name, const std::string& tagName) { map_[name] = tagName; }
  std::string operator[](const std::string& name) const;
  static const CKVTagMap& instance();

 private:
  std::map<std::string, std::string> map_;
};

struct TFrame {
  IPacket* data = nullptr;
  uint64_t decodeTime = 0;
  uint64_t time = 0;
  uint64_t duration = 0;
  uint32_t track = 0;
  bool key = false;
  TFrame* next = nullptr;
  TFrame* prev = nullptr;
};

class TFrameQueue {
 public:
  ~TFrameQueue() { clear(); }
  void push_back(TFrame* f);
  TFrame* pop_front();
  TFrame* front() const { return head_; }
  TFrame* back() const { return tail_; }
  uint32_t count() const { return count_; }
  bool empty() const { return count_ == 0; }
  // Frees every frame and releases its packet.
  void clear();

 private:
  TFrame* head_ = nullptr;
  TFrame* tail_ = nullptr;
  uint32_t count_ = 0;
};

struct TCue {
  uint64_t time;
  uint64_t clusterPosition;
  uint16_t track;
  uint16_t block;
};

bool overwriteUnknownPayloadSize(const Kapsel::IElement& element, Kapsel::IStorage& storage);
bool saveCuePoints(const TDataTable<TCue, 65536>& cues, Kapsel::FileStorage& storage, uint64_t* position = nullptr,
                   uint64_t* remaining = nullptr);
bool saveSeekPoints(const TDataTable<unsigned long long, 65536>& positions, Kapsel::FileStorage& storage,
                    uint64_t* position = nullptr, uint64_t* remaining = nullptr);
void overwriteSeekEntry(Kapsel::SeekHead::SeekElt* seekEntry, uint64_t segmentPayloadPosition,
                        const Kapsel::IElement& element);
uint64_t toMilliseconds(int64_t value, uint64_t unitsPerSecond);

class CKVMatroskaFormatter : public CAFormatter {
 public:
  explicit CKVMatroskaFormatter(uint32_t formatCode);
  ~CKVMatroskaFormatter() override;
  CKVMatroskaFormatter& operator=(const CKVMatroskaFormatter& other);

  CAFormatter* CreateCopy() const override;
  uint32_t Release() override;
  bool SupportsEncoding() const override { return false; }
  bool SupportsAudioCodec(uint32_t maker, uint32_t codec) const override;
  bool SupportsVideoCodec(uint32_t maker, uint32_t codec) const override;
  void SetVideoCompressors(const Array_c<IVideoCompressor*>& compressors) override;
  void SetAudioCompressors(const Array_c<IAudioCompressor*>& compressors) override;
  uint32_t BeginFormatting() override;
  uint32_t AddAudioSample(KVAudio_t* sample) override;
  uint32_t AddVideoSample(KVImage_t* sample) override;
  uint32_t EndFormatting(KVImage_t* image) override;

  // Visible for tests: what the object has done so far.
  uint32_t clusterCount() const { return clusterCount_; }
  uint64_t expectedClusters() const { return expectedClusters_; }

 private:
  bool mux(bool flush);
  bool muxOneFrame();
  void finishWriting();
  void buildHeader();
  void buildVorbisPrivate();
  void resetForNextFile();
  bool writing() const { return headerWritten_; }
  bool videoExpected() const { return videoExpected_; }
  bool audioExpected() const { return audioExpected_; }

  // Host-facing setup, as the host gave it.
  Kapsel::WebmDoc doc_;
  Kapsel::FileStorage storage_;
  TFrameQueue audioQueue_;
  TFrameQueue videoQueue_;
  IVideoCompressor* videoCompressor_ = nullptr;
  IAudioCompressor* audioCompressor_ = nullptr;
  bool isWebM_ = false;
  uint32_t videoMaker_ = 0, videoCodec_ = 0;
  std::string videoCodecId_;
  uint32_t width_ = 0, height_ = 0;
  double frameRate_ = 24.0;
  uint32_t audioMaker_ = 0, audioCodec_ = 0;
  std::string audioCodecId_;
  uint32_t sampleRate_ = 0;
  uint32_t bitsPerSample_ = 16;
  uint32_t channels_ = 0;
  uint64_t expectedClusters_ = 0;
  std::vector<unsigned char> videoPrivate_, audioPrivate_;
  uint64_t frameDurationMs_ = 42;
  std::list<uint64_t> chapterTimes_;

  // The file itself: clusters, blocks, cues and the layout are the library's streaming writer's.
  std::unique_ptr<Kapsel::StreamWriter> writer_;
  uint32_t clusterCount_ = 0;

  // Per-file flags.
  bool began_ = false;
  bool headerWritten_ = false;
  bool videoExpected_ = false;
  bool audioExpected_ = false;
  Kapsel::MemoryStorage frameStorage_;
  size_t chapterCount_ = 0;
};

}  // namespace kapsel_formatter
