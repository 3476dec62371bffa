#pragma once
// Metadata and markers the host hands to a formatter before formatting starts.

#include <cstdint>
#include <utility>
#include <vector>

#include "host_sdk/kv_string.h"

class CAceNameValuePair {
 public:
  CAceNameValuePair(CKVString name, CKVString value) : name_(std::move(name)), value_(std::move(value)) {}
  const CKVString& GetName() const { return name_; }
  const CKVString& GetValue() const { return value_; }

 private:
  CKVString name_;
  CKVString value_;
};

class CAceMarker {
 public:
  enum { kMarkerTypeChapter = 2 };

  CAceMarker() = default;
  // Seconds are kept in microseconds so copies compare exactly.
  CAceMarker(int type, CKVString name, double seconds);
  CAceMarker(int type, CKVString name, int64_t timeValue, uint64_t unitsPerSecond);

  int GetType() const { return type_; }
  const CKVString& GetName() const { return name_; }
  int64_t GetTimeValue() const { return timeValue_; }
  uint64_t GetTimeUnits() const { return units_; }
  // Seconds; 0 when the units are 0.
  double GetEncodedFrameTime() const;

 private:
  int type_ = 0;
  CKVString name_;
  int64_t timeValue_ = 0;
  uint64_t units_ = 1000000;
};

// Borrowed markers: the list never owns what it points at.
class CAceMarkerPtrList {
 public:
  uint32_t GetCount() const { return static_cast<uint32_t>(markers_.size()); }
  // Null when out of range.
  CAceMarker* GetAt(uint32_t index) const { return index < markers_.size() ? markers_[index] : nullptr; }
  void Add(CAceMarker* marker) { markers_.push_back(marker); }
  void Clear() { markers_.clear(); }

 private:
  std::vector<CAceMarker*> markers_;
};
