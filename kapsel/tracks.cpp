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

Audio::Audio() {
  samplingFrequency_->init(8000.0);
  channels_->init(1);
}

ContentCompr::ContentCompr() { algo_.alwaysSave(); }

ContentEnc::ContentEnc() { scope_->init(1); }

Track::Track() {
  flagEnabled_->init(1);
  flagDefault_->init(1);
  flagLacing_->init(1);
  trackTimecodeScale_->init(1.0);
  language_->init("eng");
  codecDecodeAll_->init(1);
}

}  // namespace Kapsel
