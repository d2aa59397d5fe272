// The master of one build, from outside: started, steered by three named events, and ended.
#ifndef KESTRUN_DORN_MASTER_H_
#define KESTRUN_DORN_MASTER_H_

#include <string>

#include "platform/win32.h"
#include "runtime/handle.h"
#include "runtime/path.h"
#include "runtime/process.h"
#include "runtime/rc_ptr.h"
#include "runtime/types.h"

namespace kestrun::dorn {

// The master runs in a job of its own and in a process group of its own: Ctrl-C does not reach it, so that the build
// command can end first; it is gone when this object goes, and when this process dies in any way. One thread at a time.
class Master {
 public:
  enum class Start { kReady, kFailed, kInterrupted };

  // Throws SyncException if the system gives no events.
  explicit Master(const std::string& id);
  Master(const Master&) = delete;
  Master& operator=(const Master&) = delete;

  // Starts `program` as master and waits until it is ready, it ends, or `interruption` is signalled. Says on the
  // standard error stream what failed.
  Start Run(const Path& program, HANDLE interruption);

  // Tells the master that the build is over and that it should end, and waits for that. After the limit, or a second
  // after `interruption` is signalled, the master is ended by force. A null interruption is none.
  void Stop(u32 limitMs, HANDLE interruption);

 private:
  struct NamedEvent {
    NamedEvent(const std::string& name, bool isManual);
    std::string name;
    UniqueHandle handle;
  };

  std::string id_;
  NamedEvent ready_;
  NamedEvent stop_;
  NamedEvent finish_;  // resets itself: the master reports it each time that it finds it signalled
  rc_ptr<Process> process_;
  UniqueHandle ended_;
};

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_MASTER_H_
