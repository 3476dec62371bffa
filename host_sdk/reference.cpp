#include "host_sdk/reference.h"

#include "host_sdk/formatter.h"

#include <utility>

std::atomic<int64_t> RefPacket::live_{0};
std::atomic<int64_t> RefPacketBundle::live_{0};

RefPacket::RefPacket(std::vector<uint8_t> bytes, int64_t timeValue, uint64_t timeUnits, IPacket::TPacketType type)
    : bytes_(std::move(bytes)), timeValue_(timeValue), timeUnits_(timeUnits), type_(type) {
  ++live_;
}

RefPacket::~RefPacket() { --live_; }

void RefPacket::Release() { delete this; }

int64_t RefPacket::LiveCount() { return live_.load(); }

RefPacketBundle::RefPacketBundle() { ++live_; }

RefPacketBundle::~RefPacketBundle() {
  for (IPacket* packet : packets_) packet->Release();
  --live_;
}

void RefPacketBundle::Add(IPacket* packet) {
  if (packet) packets_.push_back(packet);
}

IPacket* RefPacketBundle::GetPacket(uint32_t index) const {
  return index < packets_.size() ? packets_[index] : nullptr;
}

IPacket* RefPacketBundle::TakePacket(uint32_t index) {
  if (index >= packets_.size()) return nullptr;
  IPacket* packet = packets_[index];
  packets_.erase(packets_.begin() + index);
  return packet;
}

IPacket* RefPacketBundle::Find(IPacket::TPacketType type, const void*, uint32_t startIndex) const {
  for (size_t i = startIndex; i < packets_.size(); ++i) {
    if (packets_[i]->GetType() == type) return packets_[i];
  }
  return nullptr;
}

void RefPacketBundle::Release() { delete this; }

int64_t RefPacketBundle::LiveCount() { return live_.load(); }

namespace {

RefPacketBundle* DescriptorBundle(const std::vector<uint8_t>* decoderConfig, int64_t time, uint64_t units) {
  if (!decoderConfig) return nullptr;
  auto* bundle = new RefPacketBundle;
  bundle->Add(new RefPacket(*decoderConfig, time, units, IPacket::kPacketTypeDescriptor));
  return bundle;
}

}  // namespace

KVImage_t MakeVideoSample(const uint8_t* data, size_t size, int64_t time, uint64_t units, int64_t compositionOffset,
                          bool key, const std::vector<uint8_t>* decoderConfig) {
  KVImage_t sample;
  sample.time = time;
  sample.timeUnits = units;
  sample.compositionOffset = compositionOffset;
  sample.notKeyFrame = !key;
  auto* bundle = new RefPacketBundle;
  std::vector<uint8_t> bytes;
  if (data && size) bytes.assign(data, data + size);
  bundle->Add(new RefPacket(std::move(bytes), time, units));
  sample.data = bundle;
  sample.descriptors = DescriptorBundle(decoderConfig, time, units);
  return sample;
}

KVAudio_t MakeAudioSample(const std::vector<RefAudioPacket>& packets, const std::vector<uint8_t>* decoderConfig) {
  KVAudio_t sample;
  auto* bundle = new RefPacketBundle;
  for (const RefAudioPacket& p : packets) bundle->Add(new RefPacket(p.bytes, p.timeValue, p.timeUnits));
  sample.packets = bundle;
  const int64_t time = packets.empty() ? 0 : packets.front().timeValue;
  const uint64_t units = packets.empty() ? 1000 : packets.front().timeUnits;
  sample.descriptors = DescriptorBundle(decoderConfig, time, units);
  return sample;
}

void ReleaseSample(KVImage_t& sample) {
  if (sample.data) sample.data->Release();
  if (sample.descriptors) sample.descriptors->Release();
  sample.data = nullptr;
  sample.descriptors = nullptr;
}

void ReleaseSample(KVAudio_t& sample) {
  if (sample.packets) sample.packets->Release();
  if (sample.descriptors) sample.descriptors->Release();
  sample.packets = nullptr;
  sample.descriptors = nullptr;
}

bool RefVideoCompressor::GetKeyFrameInterval(uint32_t& interval) const {
  if (!params.keyFrameInterval) return false;
  interval = *params.keyFrameInterval;
  return true;
}

bool RefVideoCompressor::GetAutoKeyFrames(bool& on) const {
  if (!params.autoKeyFrames) return false;
  on = *params.autoKeyFrames;
  return true;
}

bool RefVideoCompressor::GetKeyFrameMargin(bool& on) const {
  if (!params.keyFrameMargin) return false;
  on = *params.keyFrameMargin;
  return true;
}

void SetStreams(CAFormatter& formatter, IVideoCompressor* video, IAudioCompressor* audio) {
  formatter.SetEncodeVideo(video != nullptr);
  formatter.SetEncodeAudio(audio != nullptr);
  Array_c<IVideoCompressor*> videos;
  if (video) videos.Add(video);
  formatter.SetVideoCompressors(videos);
  Array_c<IAudioCompressor*> audios;
  if (audio) audios.Add(audio);
  formatter.SetAudioCompressors(audios);
}
