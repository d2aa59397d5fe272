// Where children get their supervisors: an idle one of an earlier tool, or a new one from the zygote.
//
// Idle supervisors are kept by session kind, and end with this process. All functions may be called from any thread;
// Acquire blocks until the supervisor has made the process for its next tool, and before that until a zygote is started
// if none runs.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_SUPERVISOR_POOL_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_SUPERVISOR_POOL_H_

#include <memory>
#include <mutex>
#include <vector>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/helper/helper_protocol.h"
#include "platform/linux/process/zygote_client.h"

namespace kestrun::platform {

// This process's end of a supervisor. The supervisor ends when `control` is closed.
struct SupervisorLink {
  FileDescriptor control;
  std::shared_ptr<Zygote> zygote;
  SessionKind session = SessionKind::kShared;
};

class SupervisorPool {
 public:
  static SupervisorPool& Get();

  // A supervisor whose next tool's process waits, and what it reported about that process. 0, or an errno.
  int Acquire(SessionKind session, SupervisorLink& supervisor, Report& ready);

  // Keeps an idle supervisor for a later tool. If there are many already, it is closed.
  void Release(SupervisorLink supervisor);

  // Closes the idle supervisors of this kind, which then exit.
  void CloseIdle(SessionKind session);

 private:
  bool FindIdle(SessionKind session, SupervisorLink& supervisor, Report& ready);
  SupervisorLink TakeIdle(SessionKind session);

  std::mutex mutex_;
  std::vector<SupervisorLink> idle_[2];  // guarded by mutex_; by session kind
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_SUPERVISOR_POOL_H_
