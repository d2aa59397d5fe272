// A master's tie to the dorns that share it.
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

// Ends the master when the last dorn has gone (protocol/dorn_session.h). One that leaves says so and stops the master;
// if it can't wait for the tools that still run, the process is ended by force after a second, and they with it. Where
// the last dorn was killed the process ends at once: nothing waits for it any more.
//
// It sleeps until one of the dorns ends, and wakes once a second for the case that the system does not tell of that.
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

  // Puts the limit that dorn was told in the place of the settings' own, and tells the dorns what it is.
  void SettleJobs(IniFile& settings, u32 defaultJobs);

 private:
  void Watch();
  bool AwaitChange();
  void FindUser();
  void ForgetUser();
  bool IsLeft();
  void EndByForce();

  const UniqueHandle stopEvent_;
  // Held so that a dorn that joins finds them, also when the one that made them has gone.
  const UniqueHandle readyEvent_;
  const UniqueHandle finishEvent_;
  Mutex join_;
  MappedFile region_;
  rc_ptr<MappedFile::ViewImpl> view_;
  DornSession* session_;  // in view_
  UniqueHandle alive_;    // held, and nothing else
  Condition end_;         // ends the thread
  UniqueHandle user_;     // a dorn that lives; of the thread, as its id
  u32 userId_ = 0;
  rc_ptr<Thread> thread_;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_DORN_WATCH_H_
