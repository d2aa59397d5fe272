// The objects of process handles: this process, a child that the layer started, or any other process.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_PROCESS_OBJECT_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_PROCESS_OBJECT_H_

#include <sys/types.h>

#include <cstdint>

#include "platform/linux/objects/waitable.h"

namespace kestrun::platform {

struct ProcessTimes {
  std::uint64_t userUs = 0;
  std::uint64_t kernelUs = 0;
};

// Signalled once the process has ended. All operations may come from any thread.
class ProcessObject : public Completion {
 public:
  static constexpr ObjectKind kKind = ObjectKind::kProcess;

  explicit ProcessObject(pid_t pid) : Completion(kKind), pid_(pid) {}

  pid_t pid() const { return pid_; }

  // STILL_ACTIVE while it runs.
  virtual DWORD ExitCode() const = 0;
  // False with the last error set.
  virtual bool Terminate(DWORD exitCode) = 0;
  // The processor time that the process used itself, without its children where the kernel tells them apart. False if
  // the process is gone and its times were not kept.
  virtual bool Times(ProcessTimes& times) const;

 private:
  const pid_t pid_;
};

// From /proc; false if there is no such process.
bool ReadProcessTimes(pid_t pid, ProcessTimes& times);
// 0 for a process that is gone.
FILETIME ProcessStartTime(pid_t pid);
// A span of time.
FILETIME FileTimeFromMicroseconds(std::uint64_t microseconds);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_PROCESS_OBJECT_H_
