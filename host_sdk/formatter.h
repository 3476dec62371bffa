#pragma once
// Base class of every formatter the host loads. The order of the virtual functions below is
// the host's binary interface: never reorder, insert or remove one.

#include <cstdint>
#include <vector>

#include "host_sdk/array.h"
#include "host_sdk/compressor.h"
#include "host_sdk/kv_string.h"
#include "host_sdk/metadata.h"
#include "host_sdk/packet.h"

enum EOutputStreamMode { kOutputStreamFile = 0, kOutputStreamPipe = 1 };
enum EColorFormats { kColorFormatUnknown = 0, kColorFormatYUV420 = 1, kColorFormatRGB32 = 2 };

class CAFormatter {
 public:
  // So callers may write either kOutputStreamPipe or CAFormatter::kOutputStreamPipe.
  using EOutputStreamMode = ::EOutputStreamMode;
  using EColorFormats = ::EColorFormats;
  static constexpr EOutputStreamMode kOutputStreamFile = ::kOutputStreamFile;
  static constexpr EOutputStreamMode kOutputStreamPipe = ::kOutputStreamPipe;
  static constexpr EColorFormats kColorFormatUnknown = ::kColorFormatUnknown;
  static constexpr EColorFormats kColorFormatYUV420 = ::kColorFormatYUV420;
  static constexpr EColorFormats kColorFormatRGB32 = ::kColorFormatRGB32;

  CAFormatter() = default;
  CAFormatter(const CAFormatter&) = default;
  CAFormatter& operator=(const CAFormatter&) = default;

  virtual CAFormatter* CreateCopy() const;
  virtual uint32_t Release();
  virtual bool SupportsEncoding() const;
  virtual bool SupportsAudioCodec(uint32_t maker, uint32_t codec) const;
  virtual bool SupportsVideoCodec(uint32_t maker, uint32_t codec) const;
  virtual bool ImplementsAudioCodec(uint32_t maker, uint32_t codec) const;
  virtual bool ImplementsVideoCodec(uint32_t maker, uint32_t codec) const;
  virtual void SetOutputFile(const CKVString& path);
  virtual void SetMetaData(const Array_c<CAceNameValuePair>* metaData);
  virtual void SetChapterMarkers(const CAceMarkerPtrList* markers);
  virtual bool GetVideoPrivateData(std::vector<unsigned char>& data) const;
  virtual bool GetFragmentDurations(std::vector<uint64_t>& durations) const;
  virtual void SetDurationHint(uint64_t start, uint64_t end, uint64_t timeScale);
  virtual void SetEncodeAudio(bool on);
  virtual void SetEncodeVideo(bool on);
  virtual void SetAddHintTrack(bool on);
  virtual bool GetProcessingAudio() const;
  virtual bool GetProcessingImages() const;
  virtual void SetVideoCompressors(const Array_c<IVideoCompressor*>& compressors);
  virtual void SetAudioCompressors(const Array_c<IAudioCompressor*>& compressors);
  virtual bool GetNextImageTime(uint64_t& time) const;
  virtual bool GetNextInterestingTime(uint64_t& time) const;
  virtual uint32_t BeginFormatting();
  virtual uint32_t AddAudioSample(KVAudio_t* sample);
  virtual uint32_t AddVideoSample(KVImage_t* sample);
  virtual uint32_t EndFormatting(KVImage_t* image);
  virtual bool GetDoAnotherPass() const;
  virtual void GetPassInfo(bool& multiPass, int& pass, int& passCount) const;
  virtual uint32_t Reset(KVImage_t* image);
  virtual bool GetNumberFramesToBuffer(unsigned& count) const;
  virtual void SetupVideoFormatter(void* first, void* second);
  virtual EOutputStreamMode GetOutputStreamMode() const;
  virtual void SetOutputStreamMode(EOutputStreamMode mode);
  virtual bool IsUsingGPU() const;
  virtual int GetGpuIndex() const;
  virtual bool GetClosedCaptionFormats(std::vector<IPacket::TPacketType>& formats) const;
  virtual void SetInputColorFormat(EColorFormats format);
  // Takes two slots here (complete and deleting destructor); it must stay in this position.
  virtual ~CAFormatter();
  virtual const std::vector<unsigned char>* GetSequenceParameterSet() const;

 protected:
  const CKVString& OutputFile() const { return outputFile_; }
  uint64_t DurationHintStart() const { return durationHintStart_; }
  uint64_t DurationHintEnd() const { return durationHintEnd_; }
  uint64_t DurationHintTimeScale() const { return durationHintTimeScale_; }
  bool VideoExpected() const { return videoExpected_; }
  bool AudioExpected() const { return audioExpected_; }
  bool AddHintTrack() const { return addHintTrack_; }
  EColorFormats InputColorFormat() const { return inputColorFormat_; }
  const Array_c<CAceNameValuePair>& MetaData() const { return metaData_; }
  const std::vector<CAceMarker>& ChapterMarkers() const { return chapterMarkers_; }
  const Array_c<IVideoCompressor*>& VideoCompressors() const { return videoCompressors_; }
  const Array_c<IAudioCompressor*>& AudioCompressors() const { return audioCompressors_; }

 private:
  CKVString outputFile_;
  uint64_t durationHintStart_ = 0;
  uint64_t durationHintEnd_ = 0;
  uint64_t durationHintTimeScale_ = 1;
  bool videoExpected_ = false;
  bool audioExpected_ = false;
  bool addHintTrack_ = false;
  EOutputStreamMode outputStreamMode_ = ::kOutputStreamFile;
  EColorFormats inputColorFormat_ = ::kColorFormatUnknown;
  Array_c<CAceNameValuePair> metaData_;
  std::vector<CAceMarker> chapterMarkers_;
  // Borrowed from the host.
  Array_c<IVideoCompressor*> videoCompressors_;
  Array_c<IAudioCompressor*> audioCompressors_;
};
