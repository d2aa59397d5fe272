// One thread of the system, and the object that stands for the current one.
//
// A Thread is always held by rc_ptr: a running thread holds a reference to its own object, so the creator may drop its
// own at once, and the object outlives the system's thread as long as there are references to it. No thread is ever
// cancelled; bodies check stop flags of their own. An exception that leaves a body ends the process.
#ifndef KESTRUN_RUNTIME_THREADS_THREAD_H_
#define KESTRUN_RUNTIME_THREADS_THREAD_H_

#include <string>
#include <vector>

#include "platform/win32.h"
#include "runtime/base/delegate.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun {

class Thread : public rc_base {
 public:
  // The priority argument of Start.
  static constexpr int kNormalPriority = 0;
  static constexpr int kBelowNormalPriority = 1;

  // The name is for diagnostics alone and is cut at 63 bytes.
  explicit Thread(const std::string& name);
  // Neither waits for the thread nor ends it.
  ~Thread() override;

  // Runs `body` on a new thread. Priority 1 is below normal, any other value normal. False if the thread was started
  // before or the system refuses.
  bool Start(Functor0<void>::Type body, int priority = kNormalPriority);

  // True when the thread has ended, with its exit code in `*exitCode` unless that is null. A thread does not wait for
  // itself: the answer is true at once, and `*exitCode` stays. False for a thread that was not started.
  bool Wait(u32 timeoutMs, u32* exitCode = nullptr);

  // Waits until all have ended: false if the time was too short, true also if the system refuses the wait. Any number
  // of threads; those that were never started do not count.
  static bool WaitAll(const std::vector<rc_ptr<Thread>>& threads, u32 timeoutMs);

  // A priority value of the system, THREAD_PRIORITY_ABOVE_NORMAL for one.
  void SetPriority(int priority);

  const char* GetName() const { return name_; }
  HANDLE GetHandle() const { return handle_; }
  u32 GetId() const { return id_; }

  // The calling thread. One that Thread did not start, like the main thread, gets an object of its own at the first
  // call, which it keeps.
  static rc_ptr<Thread> GetCurrent();

 private:
  static constexpr u32 kNameSize = 64;
  struct Adopted {};

  explicit Thread(Adopted);
  static DWORD TlsSlot();
  static DWORD WINAPI Enter(LPVOID argument);
  bool IsAdopted() const;

  rc_ptr<Functor0<unsigned long>::_DelegateBase> body_;
  char name_[kNameSize];
  HANDLE handle_ = nullptr;
  u32 id_ = 0;
};

// Gives the calling thread another priority for a scope.
class ScopedThreadPriority {
 public:
  explicit ScopedThreadPriority(int priority);
  ~ScopedThreadPriority();
  ScopedThreadPriority(const ScopedThreadPriority&) = delete;
  ScopedThreadPriority& operator=(const ScopedThreadPriority&) = delete;

 private:
  HANDLE thread_;
  int remembered_;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_THREAD_H_
