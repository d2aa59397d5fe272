// A recursive lock between the threads of one process, and guards that hold it for a scope.
//
// Owned by the object whose members it guards. An uncontended lock makes no system call; there is no limit to the wait,
// so it is only held for short work that does not wait itself.
#ifndef KESTRUN_RUNTIME_BASE_CRITICAL_SECTION_H_
#define KESTRUN_RUNTIME_BASE_CRITICAL_SECTION_H_

#include "platform/win32.h"

namespace kestrun {

class CriticalSection {
 public:
  CriticalSection() { InitializeCriticalSection(&section_); }
  ~CriticalSection() { DeleteCriticalSection(&section_); }
  CriticalSection(const CriticalSection&) = delete;
  CriticalSection& operator=(const CriticalSection&) = delete;

  void Enter() { EnterCriticalSection(&section_); }
  // False if another thread holds it.
  bool TryEnter() { return TryEnterCriticalSection(&section_) != FALSE; }
  void Leave() { LeaveCriticalSection(&section_); }

 private:
  CRITICAL_SECTION section_;
};

// Holds a section for a scope.
class Lock {
 public:
  explicit Lock(CriticalSection& section) : section_(&section) { section_->Enter(); }
  ~Lock() { section_->Leave(); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

 private:
  CriticalSection* section_;
};

// Holds a section for a scope if no other thread holds it at the start.
class TryLock {
 public:
  explicit TryLock(CriticalSection& section) : section_(section.TryEnter() ? &section : nullptr) {}
  ~TryLock() {
    if (section_ != nullptr) section_->Leave();
  }
  TryLock(const TryLock&) = delete;
  TryLock& operator=(const TryLock&) = delete;

  explicit operator bool() const { return section_ != nullptr; }

 private:
  CriticalSection* const section_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_BASE_CRITICAL_SECTION_H_
