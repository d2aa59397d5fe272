// The link between a master and the dorns that share it.
#ifndef KESTRUN_MASTER_DORN_WATCH_H_
#define KESTRUN_MASTER_DORN_WATCH_H_

#include <memory>
#include <string>

#include "app/options.h"
#include "platform/win32.h"
#include "protocol/dorn_session.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/ini_file.h"
#include "runtime/files/mapped_file.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// Ends the master when the last dorn has gone (protocol/dorn_session.h).
//
//   ending         written by                              what this object does
//   kRuns          the dorn that starts the master         waits until a dorn ends. If none is left, the last one was
//                                                          killed: writes kEndsByForce and ends the process
//   kEnds          the last dorn, when its build is over   signals the stop event; ends the process if that dorn is
//                                                          killed before the master has stopped
//   kEndsByForce   the last dorn, when it waits no longer  as for kEnds, and ends the process 1.2 s later
//
// Ending the process ends the tools that still run. Where the system does not signal the end of a process, a check once
// a second finds it; where no dorn's process can be opened, there is a check every 100 ms.
//
// Threads: one, "Dorn watch". Construction and destruction on one thread.
class DornWatch {
 public:
  // Null for a master that no dorn started. Throws SystemException if the dorn that did has gone already.
  static std::unique_ptr<DornWatch> Open(const Options& options);

  // `dornProcess` is the dorn that started this master, with these options.
  DornWatch(const Options& options, u32 dornProcess);
  // The master has stopped.
  ~DornWatch();
  DornWatch(const DornWatch&) = delete;
  DornWatch& operator=(const DornWatch&) = delete;

  // Replaces the job limit of the settings by the one that dorn was given, if any, and publishes it to the dorns.
  void SettleJobs(IniFile& settings, u32 defaultJobs);

 private:
  void Watch();
  bool AwaitChange();
  void FindUser();
  void ForgetUser();
  bool IsLeft();
  void EndByForce();

  const UniqueHandle stopEvent_;
  // Kept open for dorns that join later: the dorn that made the events may have gone by then.
  const UniqueHandle readyEvent_;
  const UniqueHandle finishEvent_;
  Mutex join_;
  MappedFile region_;
  rc_ptr<MappedFile::ViewImpl> view_;
  DornSession* session_;  // in view_
  UniqueHandle alive_;    // never signalled: that it exists tells dorns that this master lives
  Condition end_;         // ends the thread
  // Owned by the thread: the process of a dorn that lives, and its id.
  UniqueHandle user_;
  u32 userId_ = 0;
  rc_ptr<Thread> thread_;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_DORN_WATCH_H_
