#include "kapsel/tracks.h"

namespace Kapsel {

const char* const kLibraryIdentification = "Kapsel Matroska library rev.207";

SegInfo::SegInfo() {
  timecodeScale_->init(1000000);
  timecodeScale_.alwaysSave();
  duration_.alwaysSave();
  // Both default and value, so that a segment that never set it still names the library.
  muxingApp_->init(kLibraryIdentification);
  muxingApp_.alwaysSave();
}

Colour::Colour() {
  matrixCoefficients_->init(2);
  transferCharacteristics_->init(2);
  primaries_->init(2);
}

Video::Video() { fieldOrder_->init(2); }

Audio::Audio() {
  samplingFrequency_->init(8000.0);
  channels_->init(1);
}

ContentCompr::ContentCompr() { algo_.alwaysSave(); }

bool ContentCompr::isDefault() const {
  if (encodingType_ == nullptr || encodingType_->get() == 0) return false;
  return algo_->isDefault() && !settings_.mustSave();
}

ContentEnc::ContentEnc() {
  scope_->init(1);
  compression_->encodingType_ = &*type_;
}

ContentEnc::ContentEnc(const ContentEnc& other) : EbmlMaster(other) {
  *this = other;
}

ContentEnc& ContentEnc::operator=(const ContentEnc& other) {
  EbmlMaster::operator=(other);
  order_ = other.order_;
  scope_ = other.scope_;
  type_ = other.type_;
  compression_ = other.compression_;
  encryption_ = other.encryption_;
  compression_->encodingType_ = &*type_;
  return *this;
}

Track::Track() {
  flagEnabled_->init(1);
  flagDefault_->init(1);
  flagLacing_->init(1);
  trackTimecodeScale_->init(1.0);
  language_->init("eng");
  codecDecodeAll_->init(1);
}

}  // namespace Kapsel
