#pragma once
// Compressors belong to the host; a formatter only reads their parameters.

#include <cstdint>

#include "host_sdk/kv_string.h"

class IVideoCompressor {
 public:
  virtual ~IVideoCompressor() = default;
  virtual uint32_t GetMaker() const = 0;
  virtual uint32_t GetCodec() const = 0;
  virtual uint32_t GetWidth() const = 0;
  virtual uint32_t GetHeight() const = 0;
  virtual double GetFrameRate() const = 0;
  virtual CKVString GetDisplayName() const = 0;
  // Each of these returns false when the compressor has no such parameter.
  virtual bool GetKeyFrameInterval(uint32_t& interval) const = 0;
  virtual bool GetAutoKeyFrames(bool& on) const = 0;
  // The switch that adds a 50% margin to the cluster estimate.
  virtual bool GetKeyFrameMargin(bool& on) const = 0;
};

class IAudioCompressor {
 public:
  virtual ~IAudioCompressor() = default;
  virtual uint32_t GetMaker() const = 0;
  virtual uint32_t GetCodec() const = 0;
  virtual uint32_t GetSampleRate() const = 0;
  virtual uint32_t GetBitsPerSample() const = 0;
  // "Mono", "Stereo", "Joint Stereo", "Dual Channel", "5.1", "6.1" or "7.1".
  virtual CKVString GetChannelMode() const = 0;
  virtual CKVString GetDisplayName() const = 0;
};
