// Shared ownership through a count inside the object.
//
// The count starts at 0: an object has no owner until the first rc_ptr takes it. An object on the stack or a member of
// another is never given to an rc_ptr. The count is atomic, so owners may release the object on different threads; but
// one rc_ptr variable belongs to one thread at a time.
#ifndef KESTRUN_RUNTIME_BASE_RC_PTR_H_
#define KESTRUN_RUNTIME_BASE_RC_PTR_H_

#include <atomic>
#include <cstddef>

#include "runtime/base/types.h"

namespace kestrun {

class rc_base {
 public:
  rc_base() = default;
  rc_base(const rc_base&) = delete;
  rc_base& operator=(const rc_base&) = delete;
  virtual ~rc_base() = default;

  // Relaxed: the caller has a reference already, or no other thread knows the object yet.
  void AddRef() const { count_.fetch_add(1, std::memory_order_relaxed); }

  // The owner that brings the count to 0 destroys the object. Release, so that what this owner did to the object comes
  // before that; acquire, so that the one that destroys it sees what all others did.
  void Release() const {
    if (count_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  // Relaxed: a snapshot, for tests and diagnostics.
  u32 GetRefCount() const { return count_.load(std::memory_order_relaxed); }
  // False for the only owner. Acquire, so that it then sees what former owners did to the object.
  bool IsShared() const { return count_.load(std::memory_order_acquire) > 1; }

 private:
  mutable std::atomic<u32> count_{0};
};

template <class T>
class rc_ptr {
 public:
  rc_ptr() = default;
  rc_ptr(std::nullptr_t) {}
  rc_ptr(T* object) : object_(object) {
    if (object_ != nullptr) object_->AddRef();
  }
  rc_ptr(const rc_ptr& other) : rc_ptr(other.object_) {}
  rc_ptr(rc_ptr&& other) noexcept : object_(other.object_) { other.object_ = nullptr; }
  template <class U>
  rc_ptr(const rc_ptr<U>& other) : rc_ptr(static_cast<T*>(other.Get())) {}
  ~rc_ptr() { Reset(); }

  // Takes the new reference before it drops the old one, so that assigning a pointer to itself is safe.
  rc_ptr& operator=(const rc_ptr& other) {
    rc_ptr taken(other);
    Swap(taken);
    return *this;
  }
  rc_ptr& operator=(rc_ptr&& other) noexcept {
    rc_ptr taken(static_cast<rc_ptr&&>(other));
    Swap(taken);
    return *this;
  }

  void Reset() {
    T* object = object_;
    object_ = nullptr;
    if (object != nullptr) object->Release();
  }
  void Swap(rc_ptr& other) noexcept {
    T* object = object_;
    object_ = other.object_;
    other.object_ = object;
  }

  T* Get() const { return object_; }
  T& operator*() const { return *object_; }
  T* operator->() const { return object_; }
  explicit operator bool() const { return object_ != nullptr; }

  friend bool operator==(const rc_ptr& left, const rc_ptr& right) { return left.object_ == right.object_; }
  friend bool operator<(const rc_ptr& left, const rc_ptr& right) { return left.object_ < right.object_; }

 private:
  T* object_ = nullptr;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_RC_PTR_H_
