#include "host_sdk/formatter.h"

// Out-parameters of bool getters are left alone when the answer is false.

CAFormatter::~CAFormatter() = default;

CAFormatter* CAFormatter::CreateCopy() const { return nullptr; }

uint32_t CAFormatter::Release() {
  delete this;
  return 0;
}

bool CAFormatter::SupportsEncoding() const { return false; }
bool CAFormatter::SupportsAudioCodec(uint32_t, uint32_t) const { return false; }
bool CAFormatter::SupportsVideoCodec(uint32_t, uint32_t) const { return false; }
bool CAFormatter::ImplementsAudioCodec(uint32_t, uint32_t) const { return false; }
bool CAFormatter::ImplementsVideoCodec(uint32_t, uint32_t) const { return false; }

void CAFormatter::SetOutputFile(const CKVString& path) { outputFile_ = path; }

void CAFormatter::SetMetaData(const Array_c<CAceNameValuePair>* metaData) {
  metaData_.Clear();
  if (metaData) metaData_ = *metaData;
}

void CAFormatter::SetChapterMarkers(const CAceMarkerPtrList* markers) {
  chapterMarkers_.clear();
  if (!markers) return;
  for (uint32_t i = 0; i < markers->GetCount(); ++i) {
    if (const CAceMarker* marker = markers->GetAt(i)) chapterMarkers_.push_back(*marker);
  }
}

bool CAFormatter::GetVideoPrivateData(std::vector<unsigned char>&) const { return false; }
bool CAFormatter::GetFragmentDurations(std::vector<uint64_t>&) const { return false; }

void CAFormatter::SetDurationHint(uint64_t start, uint64_t end, uint64_t timeScale) {
  durationHintStart_ = start;
  durationHintEnd_ = end;
  durationHintTimeScale_ = timeScale;
}

void CAFormatter::SetEncodeAudio(bool on) { audioExpected_ = on; }
void CAFormatter::SetEncodeVideo(bool on) { videoExpected_ = on; }
void CAFormatter::SetAddHintTrack(bool on) { addHintTrack_ = on; }
bool CAFormatter::GetProcessingAudio() const { return false; }
bool CAFormatter::GetProcessingImages() const { return false; }

void CAFormatter::SetVideoCompressors(const Array_c<IVideoCompressor*>& compressors) {
  videoCompressors_ = compressors;
}

void CAFormatter::SetAudioCompressors(const Array_c<IAudioCompressor*>& compressors) {
  audioCompressors_ = compressors;
}

bool CAFormatter::GetNextImageTime(uint64_t&) const { return false; }
bool CAFormatter::GetNextInterestingTime(uint64_t&) const { return false; }
uint32_t CAFormatter::BeginFormatting() { return 0; }
uint32_t CAFormatter::AddAudioSample(KVAudio_t*) { return 0; }
uint32_t CAFormatter::AddVideoSample(KVImage_t*) { return 0; }
uint32_t CAFormatter::EndFormatting(KVImage_t*) { return 0; }
bool CAFormatter::GetDoAnotherPass() const { return false; }

void CAFormatter::GetPassInfo(bool& multiPass, int& pass, int& passCount) const {
  multiPass = false;
  pass = 0;
  passCount = 0;
}

uint32_t CAFormatter::Reset(KVImage_t*) { return 0; }
bool CAFormatter::GetNumberFramesToBuffer(unsigned&) const { return false; }
void CAFormatter::SetupVideoFormatter(void*, void*) {}
EOutputStreamMode CAFormatter::GetOutputStreamMode() const { return outputStreamMode_; }
void CAFormatter::SetOutputStreamMode(EOutputStreamMode mode) { outputStreamMode_ = mode; }
bool CAFormatter::IsUsingGPU() const { return false; }
int CAFormatter::GetGpuIndex() const { return 0; }
bool CAFormatter::GetClosedCaptionFormats(std::vector<IPacket::TPacketType>&) const { return false; }
void CAFormatter::SetInputColorFormat(EColorFormats format) { inputColorFormat_ = format; }
const std::vector<unsigned char>* CAFormatter::GetSequenceParameterSet() const { return nullptr; }
