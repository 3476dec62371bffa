#pragma once
// The host's string type. A thin wrapper so SDK signatures keep their own type.

#include <cstddef>
#include <ostream>
#include <string>
#include <utility>

class CKVString {
 public:
  CKVString() = default;
  CKVString(const char* s) : s_(s ? s : "") {}  // NOLINT: implicit on purpose, like the host's
  CKVString(std::string s) : s_(std::move(s)) {}  // NOLINT

  const char* c_str() const { return s_.c_str(); }
  const std::string& str() const { return s_; }
  std::string ToStdString() const { return s_; }
  bool empty() const { return s_.empty(); }
  size_t length() const { return s_.length(); }

  CKVString& operator+=(const CKVString& other) {
    s_ += other.s_;
    return *this;
  }

  friend bool operator==(const CKVString& a, const CKVString& b) { return a.s_ == b.s_; }
  friend bool operator!=(const CKVString& a, const CKVString& b) { return a.s_ != b.s_; }
  friend bool operator<(const CKVString& a, const CKVString& b) { return a.s_ < b.s_; }
  friend std::ostream& operator<<(std::ostream& os, const CKVString& s) { return os << s.s_; }

 private:
  std::string s_;
};
