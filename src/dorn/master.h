// Joins or starts the master that the dorns of a user share, and leaves it.
#ifndef KESTRUN_DORN_MASTER_H_
#define KESTRUN_DORN_MASTER_H_

#include <memory>
#include <string>

#include "dorn/line_relay.h"
#include "platform/win32.h"
#include "protocol/dorn_session.h"
#include "runtime/base/handle.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "runtime/files/mapped_file.h"
#include "runtime/files/path.h"
#include "runtime/process/process.h"
#include "runtime/threads/sync.h"

namespace kestrun::dorn {

// What a dorn asks of its master.
struct MasterWishes {
  std::string id;  // empty: any master, and a new one gets an id that no other build uses
  u32 jobs = 0;    // 0: as the settings say
};

// The master runs in no job of a dorn and on no terminal: Ctrl-C does not reach it, and it lives until its last dorn
// has gone. Joining and leaving are done under the mutex of the session, by one dorn at a time
// (protocol/dorn_session.h):
//
//   join    takes the mutex; announces this dorn as a user; then joins the master of the record, waits for the end of
//           one that is ending and starts another, or starts the first one; waits until it is ready
//   leave   takes the mutex; withdraws as a user; if no user is left, tells the master to end and waits for that
//
// A dorn holds the mutex while it waits, so that at any time at most one master starts or ends. A dorn that is killed
// leaves the mutex abandoned and the record in a state that the next one understands.
//
// One thread at a time. Failures are reported on the standard error stream.
class Master {
 public:
  enum class Start {
    kReady,
    kFailed,
    kInterrupted,
    kStopped  // other dorns have a master, which is stopped: it would answer no client
  };

  // Throws SystemException if the system gives no named objects.
  Master();
  Master(const Master&) = delete;
  Master& operator=(const Master&) = delete;

  // Joins the master that runs or, without one, starts `program` as master, and waits until it is ready, it ends, or
  // `interruption` is signalled. A master that is just ending is waited for first. One that is stopped (SIGSTOP, a
  // debugger) for a second is ended by force if no other dorn has it.
  Start Join(const Path& program, const MasterWishes& wishes, HANDLE interruption);

  // After a Join that gave kReady.
  const std::string& GetId() const { return id_; }
  // Signalled when the master has ended.
  HANDLE GetProcess() const { return process_.Get(); }

  // After a Join that gave kReady or kStopped.
  DWORD GetProcessId() const { return ::GetProcessId(process_.Get()); }

  // The build is over, or Join has failed. The last dorn tells the master to end and waits for that; others return at
  // once. With `isInterrupted`, or after `interruption` is signalled, the master is given a second or two; one that is
  // stopped is given a second in any case. Then it is ended by force, and a line says so.
  void Leave(bool isInterrupted, HANDLE interruption);

 private:
  enum class Found { kNone, kRunning, kEnding };
  // How long TakeLock waits for the mutex of the session: until this dorn holds it, for joining; or only until its
  // holder proves to be stopped, for leaving, which a dorn can do without the mutex.
  enum class Patience { kUntilHeld, kUntilHolderIsStopped };

  DWORD TakeLock(HANDLE interruption, u32 limitMs, Patience patience);
  bool TellOfStoppedHolder() const;
  Start JoinWithLock(const Path& program, const MasterWishes& wishes, HANDLE interruption);
  static std::unique_ptr<MappedFile> OpenRegion();
  void OpenSession();
  void EnterAsUser();
  // The master that the record names with that process id.
  Found Find(u32 processId);
  Start AwaitEarlierEnd(HANDLE interruption);
  bool HasNoOtherUser();
  Start JoinRunning(const MasterWishes& wishes, HANDLE interruption);
  Start StartNew(const Path& program, const MasterWishes& wishes, HANDLE interruption);
  Start AwaitReady(HANDLE interruption);
  bool Launch(const Path& program);
  bool IsLast();
  bool StaysStopped(HANDLE interruption) const;
  void AwaitEnd(bool isInterrupted, HANDLE interruption);
  bool AwaitOwnEnd(HANDLE interruption) const;
  void EndByForce() const;

  Mutex join_;
  std::unique_ptr<MappedFile> region_;
  rc_ptr<MappedFile::ViewImpl> view_;
  DornSession* session_ = nullptr;  // in view_
  UniqueHandle users_;
  std::string id_;
  UniqueHandle ready_;
  UniqueHandle stop_;
  UniqueHandle finish_;      // resets itself: the master reports it each time that it finds it signalled
  UniqueHandle process_;     // the master, to be waited for
  rc_ptr<Process> started_;  // empty where another dorn has started it
  LineRelay errors_;         // of the master that this dorn has started
};

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_MASTER_H_
