#pragma once
// Non-atomic intrusive shared pointer with a separate count record.

#include <cstdint>
#include <utility>
#include <vector>

namespace Kapsel {

template <class R>
struct TRefCount {
  R* object;
  uint32_t count;
  explicit TRefCount(R* o) : object(o), count(0) {}
  void increment() { ++count; }
  void decrement() {
    if (--count == 0) {
      delete object;
      delete this;
    }
  }
};

// T is the type handed out; R is the type whose destructor releases the object.
template <class T, class R = T>
class TSharedPtr {
 public:
  TSharedPtr() : rc_(new TRefCount<R>(nullptr)) { rc_->increment(); }
  explicit TSharedPtr(T* object) : rc_(new TRefCount<R>(object)) { rc_->increment(); }
  TSharedPtr(const TSharedPtr& other) : rc_(other.rc_) { rc_->increment(); }
  TSharedPtr& operator=(const TSharedPtr& other) {
    if (rc_ != other.rc_) {
      other.rc_->increment();
      rc_->decrement();
      rc_ = other.rc_;
    }
    return *this;
  }
  ~TSharedPtr() { rc_->decrement(); }

  T* get() const { return static_cast<T*>(rc_->object); }
  T* operator->() const { return get(); }
  T& operator*() const { return *get(); }
  explicit operator bool() const { return rc_->object != nullptr; }
  bool isNull() const { return rc_->object == nullptr; }
  void reset() { *this = TSharedPtr(); }
  uint32_t useCount() const { return rc_->count; }

 private:
  TRefCount<R>* rc_;
};

}  // namespace Kapsel
