#pragma once
// A small host-side implementation of the SDK objects, for tests and the command-line host.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "host_sdk/compressor.h"
#include "host_sdk/packet.h"

class RefPacket : public IPacket {
 public:
  RefPacket(std::vector<uint8_t> bytes, int64_t timeValue, uint64_t timeUnits,
            IPacket::TPacketType type = kPacketTypeData);
  RefPacket(const RefPacket&) = delete;
  RefPacket& operator=(const RefPacket&) = delete;

  const uint8_t* GetData() const override { return bytes_.data(); }
  uint32_t GetSize() const override { return static_cast<uint32_t>(bytes_.size()); }
  int64_t GetTimeValue() const override { return timeValue_; }
  uint64_t GetTimeUnits() const override { return timeUnits_; }
  TPacketType GetType() const override { return type_; }
  void Release() override;

  // Packets created and not yet released, across the whole process.
  static int64_t LiveCount();

 protected:
  // Heap only; Release is the way out.
  ~RefPacket() override;

 private:
  std::vector<uint8_t> bytes_;
  int64_t timeValue_;
  uint64_t timeUnits_;
  TPacketType type_;
  static std::atomic<int64_t> live_;
};

class RefPacketBundle : public IPacketBundle {
 public:
  RefPacketBundle();
  RefPacketBundle(const RefPacketBundle&) = delete;
  RefPacketBundle& operator=(const RefPacketBundle&) = delete;

  // The bundle takes ownership; null is ignored.
  void Add(IPacket* packet);

  uint32_t GetCount() const override { return static_cast<uint32_t>(packets_.size()); }
  IPacket* GetPacket(uint32_t index) const override;
  IPacket* TakePacket(uint32_t index) override;
  // The reference bundle matches on type only; the descriptor is ignored.
  IPacket* Find(IPacket::TPacketType type, const void* descriptor = nullptr, uint32_t startIndex = 0) const override;
  void Release() override;

  static int64_t LiveCount();

 protected:
  ~RefPacketBundle() override;

 private:
  std::vector<IPacket*> packets_;
  static std::atomic<int64_t> live_;
};

struct RefAudioPacket {
  std::vector<uint8_t> bytes;
  int64_t timeValue = 0;
  uint64_t timeUnits = 1000;
};

// The returned sample owns new bundles; hand it to the formatter, then ReleaseSample it.
KVImage_t MakeVideoSample(const uint8_t* data, size_t size, int64_t time, uint64_t units, int64_t compositionOffset,
                          bool key, const std::vector<uint8_t>* decoderConfig = nullptr);
KVAudio_t MakeAudioSample(const std::vector<RefAudioPacket>& packets,
                          const std::vector<uint8_t>* decoderConfig = nullptr);

// Releases the sample's bundles (and whatever packets the formatter left in them) and nulls them.
void ReleaseSample(KVImage_t& sample);
void ReleaseSample(KVAudio_t& sample);

struct RefVideoParams {
  uint32_t maker = 0;
  uint32_t codec = 0;
  uint32_t width = 0;
  uint32_t height = 0;
  double frameRate = 0.0;
  std::string displayName;
  std::optional<uint32_t> keyFrameInterval;
  std::optional<bool> autoKeyFrames;
  std::optional<bool> keyFrameMargin;
};

struct RefAudioParams {
  uint32_t maker = 0;
  uint32_t codec = 0;
  uint32_t sampleRate = 0;
  uint32_t bitsPerSample = 0;
  std::string channelMode;
  std::string displayName;
};

class RefVideoCompressor : public IVideoCompressor {
 public:
  RefVideoCompressor() = default;
  explicit RefVideoCompressor(RefVideoParams p) : params(std::move(p)) {}

  uint32_t GetMaker() const override { return params.maker; }
  uint32_t GetCodec() const override { return params.codec; }
  uint32_t GetWidth() const override { return params.width; }
  uint32_t GetHeight() const override { return params.height; }
  double GetFrameRate() const override { return params.frameRate; }
  CKVString GetDisplayName() const override { return params.displayName; }
  bool GetKeyFrameInterval(uint32_t& interval) const override;
  bool GetAutoKeyFrames(bool& on) const override;
  bool GetKeyFrameMargin(bool& on) const override;

  RefVideoParams params;
};

class RefAudioCompressor : public IAudioCompressor {
 public:
  RefAudioCompressor() = default;
  explicit RefAudioCompressor(RefAudioParams p) : params(std::move(p)) {}

  uint32_t GetMaker() const override { return params.maker; }
  uint32_t GetCodec() const override { return params.codec; }
  uint32_t GetSampleRate() const override { return params.sampleRate; }
  uint32_t GetBitsPerSample() const override { return params.bitsPerSample; }
  CKVString GetChannelMode() const override { return params.channelMode; }
  CKVString GetDisplayName() const override { return params.displayName; }

  RefAudioParams params;
};

class CAFormatter;
// Tells the formatter which streams are coming and with which compressors; a null compressor means no such stream.
void SetStreams(CAFormatter& formatter, IVideoCompressor* video, IAudioCompressor* audio);
