// Measures one run: when it began, by the wall clock, and how long it took. For one thread at a time.
//
// GetName, IsStopped and GetStartFileTime are offered to users of the library; the program itself does not ask for
// them.
#ifndef KESTRUN_RUNTIME_THREADS_EVENT_TIMER_H_
#define KESTRUN_RUNTIME_THREADS_EVENT_TIMER_H_

#include "platform/win32.h"
#include "runtime/base/types.h"

namespace kestrun {

class EventTimer {
 public:
  // `name` is kept, not copied.
  explicit EventTimer(const char* name) : name_(name) {}

  void Start();
  void Stop();

  const char* GetName() const { return name_; }
  bool IsStopped() const { return isStopped_; }
  // Milliseconds from Start to Stop; 0 before the first Stop.
  u32 GetElapsed() const { return elapsedMs_; }
  // Local time at Start, and the same in milliseconds since the year 1601.
  const FILETIME& GetStartFileTime() const { return startTime_; }
  u64 GetStartTime() const;

 private:
  const char* name_;
  FILETIME startTime_{};
  LARGE_INTEGER start_{};
  LARGE_INTEGER stop_{};
  LARGE_INTEGER frequency_{};
  u32 elapsedMs_ = 0;
  bool isStopped_ = false;
};

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_THREADS_EVENT_TIMER_H_
