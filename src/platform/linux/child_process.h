// A tool that this process started, and the way to start one.
#ifndef KESTRUN_PLATFORM_LINUX_CHILD_PROCESS_H_
#define KESTRUN_PLATFORM_LINUX_CHILD_PROCESS_H_

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "platform/linux/file_object.h"
#include "platform/linux/helper_protocol.h"
#include "platform/linux/process_object.h"
#include "platform/linux/reaper.h"
#include "platform/linux/zygote_client.h"

namespace kestrun::platform {

// Tells those who read a child's pipes that the child has ended.
class ExitNotice {
 public:
  void Set();
  bool IsSet() const { return set_.load(std::memory_order_acquire); }
  // Can be read from once the notice is set; -1 if the system has none left.
  int Descriptor();

 private:
  std::atomic<bool> set_{false};
  std::mutex mutex_;
  FileDescriptor event_;  // guarded by mutex_; made when somebody asks for it
};

struct ChildRequest {
  std::string path;
  std::vector<std::string> arguments;
  std::vector<std::string> variables;  // "NAME=value"
  FileDescriptor workingDirectory;
  std::shared_ptr<FileObject> streams[3];  // null is /dev/null
  SessionKind session = SessionKind::kShared;
  bool ownGroup = false;
  bool mayBeInterrupted = false;  // the caller asked for the group, and so to be able to signal it
  int nice = 0;
};

// An idle supervisor.
struct IdleSupervisor {
  FileDescriptor control;
  std::shared_ptr<Zygote> zygote;
};

// Held back until LetRun: its process exists, but doesn't know yet what it is to run. A child that was never let run
// ends with this process; one that was lives on, unless it was told to end on close.
//
// Its supervisor's reports are served by the reaper, which keeps the child meanwhile, or by a thread that has taken it
// over: until it has ended, and until its job is closed if it is in one and has left something behind.
class ChildProcess : public ProcessObject, public ReaperClient, public std::enable_shared_from_this<ChildProcess> {
 public:
  // Null with the Win32 error in ERROR.
  static std::shared_ptr<ChildProcess> Start(ChildRequest request, DWORD& error);
  // The child with this id that has not ended; null if there is none.
  static std::shared_ptr<ChildProcess> Find(pid_t pid);

  // For Start alone.
  ChildProcess(ChildRequest request, const Report& ready, IdleSupervisor supervisor);
  ~ChildProcess() override;

  // False if it was done before.
  bool LetRun();
  // Puts the child in a job. False once it was resumed or if it is in one.
  bool EnterJob(bool killOnClose);
  bool IsInJob() const;
  void SetKillOnClose(bool killOnClose);
  // The job's end: ends the child and everything below it, if it was told to.
  void CloseJob();
  // Ends the child and everything below it, with this exit code if it has not ended yet.
  bool KillAll(DWORD exitCode);
  // Sends a signal to the child's group. False if it has ended, or was not started for that.
  bool SignalGroup(int signal);

  // What the child and everything that was ever below it have used.
  ProcessTimes TreeTimes(DWORD& active) const;
  const std::shared_ptr<ExitNotice>& exitNotice() const { return exitNotice_; }

  // Takes the child over from the reaper. Gives the descriptor that tells of reports, each of which the caller then has
  // to serve by ServeReport; -1 if the reaper keeps the child.
  int TakeOver();
  // True while there is more to come. The reaper serves what is left once the caller gives the child back.
  bool ServeReport();
  void GiveBack();

  DWORD ExitCode() const override;
  bool Terminate(DWORD exitCode) override;
  bool Times(ProcessTimes& times) const override;
  bool OnReadable() override;
  void OnLetGo() override;

 private:
  bool SendCommand(CommandKind kind, DWORD value);
  bool EndUnstarted(DWORD exitCode);
  void SendStart();
  bool SetExitCode(DWORD exitCode);
  void TellEnd();
  void End(DWORD exitCode);

  const pid_t supervisor_;
  const ProcessTimes before_;  // of the supervisor's tools before this one
  const SessionKind session_;
  const bool mayBeInterrupted_;
  const std::shared_ptr<ExitNotice> exitNotice_;
  const std::shared_ptr<Zygote> zygote_;
  const int controlDescriptor_;
  std::atomic<DWORD> exitCode_;

  mutable std::mutex mutex_;
  FileDescriptor control_;  // guarded by mutex_; but who serves the reports alone closes it and reads from it
  ChildRequest request_;    // guarded by mutex_; the outputs until the end, all else until it runs
  bool resumed_ = false;    // from here on: guarded by mutex_
  bool inJob_ = false;
  bool isIdle_ = false;  // the supervisor is
  bool killOnClose_ = false;
  ProcessTimes ownTimes_;   // once ended
  ProcessTimes treeTimes_;  // once nothing is left
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_CHILD_PROCESS_H_
