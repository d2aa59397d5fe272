// A tool that this process started, and the way to start one.
//
// A child is owned by its handles, by its job and by the reaper. The reaper serves the reports of the child's
// supervisor until the child has ended, and for a child in a job until the processes that it has left behind have ended
// as well. Another thread may take over from the reaper (TakeOver). All other functions may be called from any thread.
//
//   phase           LetRun             Terminate, KillAll, CloseJob   a report that comes             the socket ends
//   kHeldBack       kRunning, true     kEnded                         -                               kLost
//   kLost           kEnded, true       kEnded                         -                               -
//   kRunning        false              a command to the supervisor    kEnded; kIdle if none is left   kEnded
//   kEnded          false              a command to the supervisor    kIdle if none is left           -
//   kIdle           false              a command to the supervisor    -                               -
//
// A child in kHeldBack or kLost can enter a job. The exit code is set and the child is signalled once: on leaving
// kHeldBack for anything but kRunning, and on leaving kRunning. When no more reports are served the descriptor is
// closed or, in kIdle, given to the pool; commands then do nothing.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_CHILD_PROCESS_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_CHILD_PROCESS_H_

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <mutex>

#include "platform/linux/helper/helper_protocol.h"
#include "platform/linux/process/child_request.h"
#include "platform/linux/process/exit_notice.h"
#include "platform/linux/process/process_object.h"
#include "platform/linux/process/reaper.h"
#include "platform/linux/process/supervisor_pool.h"

namespace kestrun::platform {

// A child that was never let run ends with this process; one that runs lives on, unless it was told to end on close.
class ChildProcess : public ProcessObject, public ReaperClient, public std::enable_shared_from_this<ChildProcess> {
 public:
  // A child that is held back: its process exists, but is not told yet what it is to run. Null with the Win32 error in
  // `error`.
  static std::shared_ptr<ChildProcess> Start(ChildRequest request, DWORD& error);
  // The child with this id that still has an owner; null if there is none.
  static std::shared_ptr<ChildProcess> Find(pid_t pid);

  // For Start alone.
  ChildProcess(ChildRequest request, const Report& ready, SupervisorLink supervisor);
  ~ChildProcess() override;

  // False if it was done before.
  bool LetRun();
  // Puts the child in a job. False if it was let run or is in a job.
  bool EnterJob(bool killsOnClose);
  bool IsInJob() const;
  void SetKillOnClose(bool killsOnClose);
  // The job object was closed: ends the child and everything below it, if SetKillOnClose or EnterJob asked for that.
  void CloseJob();
  // Ends the child and everything below it, with this exit code if it has not ended yet.
  bool KillAll(DWORD exitCode);
  // Sends a signal to the child's process group. False if the child has ended, or was not started with
  // CREATE_NEW_PROCESS_GROUP.
  bool SignalGroup(int signal);

  // The processor time used by the child and everything that was ever below it; `active` is the number of those
  // processes that run now.
  ProcessTimes TreeTimes(DWORD& active) const;
  // The most memory in bytes that it, or the largest of the children that it waited for, had at once; 0 while it runs.
  std::uint64_t PeakBytes() const {
    const std::lock_guard lock(mutex_);
    return peakBytes_;
  }
  const std::shared_ptr<ExitNotice>& exitNotice() const { return exitNotice_; }

  // Takes the child over from the reaper: the caller now polls the descriptor that this gives, and calls ServeReport
  // whenever it is readable. -1 if the reaper keeps the child, because it is serving it at this moment or has let it
  // go.
  int TakeOver();
  // False when no more reports come.
  bool ServeReport();
  // Hands the child back to the reaper. To be called once for each TakeOver that succeeded, unless ServeReport gave
  // false.
  void GiveBack();

  DWORD ExitCode() const override;
  bool Terminate(DWORD exitCode) override;
  bool Times(ProcessTimes& times) const override;
  bool OnReadable() override;
  void OnLetGo() override;

 private:
  enum class Phase {
    kHeldBack,  // not let run
    kLost,      // not let run, and its supervisor was killed
    kRunning,
    kEnded,  // what it left behind may run on
    kIdle,   // ended, and its supervisor is idle
  };

  bool WasLetRun() const { return phase_ != Phase::kHeldBack && phase_ != Phase::kLost; }
  bool SendCommand(CommandKind kind, DWORD value);
  bool EndUnstarted(DWORD exitCode);
  void EnterPhaseOf(const Report& report);
  bool SetExitCode(DWORD exitCode);
  void TellEnd();

  const pid_t supervisorPid_;
  const ProcessTimes before_;  // of the supervisor's tools before this one
  const bool mayBeInterrupted_;
  const std::shared_ptr<ExitNotice> exitNotice_;
  const int controlDescriptor_;  // that of supervisor_, which only the thread that serves the reports closes and reads
  std::atomic<DWORD> exitCode_;

  // Guarded by mutex_:
  mutable std::mutex mutex_;
  SupervisorLink supervisor_;  // without its socket once it is served no more
  ChildRequest request_;       // until it runs; the outputs until it has ended
  Phase phase_ = Phase::kHeldBack;
  bool isInJob_ = false;
  bool killsOnClose_ = false;
  ProcessTimes ownTimes_;  // once ended
  std::uint64_t peakBytes_ = 0;
  ProcessTimes treeTimes_;  // once nothing is left
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_CHILD_PROCESS_H_
