#include "host_sdk/metadata.h"

#include <cmath>

CAceMarker::CAceMarker(int type, CKVString name, double seconds)
    : type_(type), name_(std::move(name)), timeValue_(std::llround(seconds * 1e6)), units_(1000000) {}

CAceMarker::CAceMarker(int type, CKVString name, int64_t timeValue, uint64_t unitsPerSecond)
    : type_(type), name_(std::move(name)), timeValue_(timeValue), units_(unitsPerSecond) {}

double CAceMarker::GetEncodedFrameTime() const {
  if (units_ == 0) return 0.0;
  return static_cast<double>(timeValue_) / static_cast<double>(units_);
}
