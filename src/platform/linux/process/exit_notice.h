// Tells the readers of a child's pipes that the child has ended.
//
// Shared by the child and by the pipes that it was given. All functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_EXIT_NOTICE_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_EXIT_NOTICE_H_

#include <atomic>
#include <mutex>

#include "platform/linux/base/file_descriptor.h"

namespace kestrun::platform {

class ExitNotice {
 public:
  void Set();
  // Acquire: what was done before Set is visible to a thread that sees it set.
  bool IsSet() const { return isSet_.load(std::memory_order_acquire); }
  // Becomes readable when the notice is set, and is made by the first call. -1 if the system has no descriptor left:
  // then poll IsSet every kExitPollMs.
  int Descriptor();

 private:
  std::atomic<bool> isSet_{false};
  std::mutex mutex_;
  FileDescriptor event_;  // guarded by mutex_
};

inline constexpr int kExitPollMs = 20;

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_EXIT_NOTICE_H_
