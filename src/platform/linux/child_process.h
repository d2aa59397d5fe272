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

namespace kestrun::platform {

// Tells those who read a child's pipes that the child has ended. The descriptor can be read from then on.
class ExitNotice {
 public:
  ExitNotice();
  bool IsValid() const { return static_cast<bool>(event_); }
  int Descriptor() const { return event_.get(); }
  void Set();
  bool IsSet() const { return set_.load(std::memory_order_acquire); }

 private:
  FileDescriptor event_;
  std::atomic<bool> set_{false};
};

struct ChildRequest {
  std::string path;
  std::vector<std::string> arguments;
  std::vector<std::string> variables;  // "NAME=value"
  FileDescriptor workingDirectory;
  int streams[3] = {-1, -1, -1};  // borrowed; -1 is /dev/null
  SessionKind session = SessionKind::kShared;
  bool ownGroup = false;
  bool mayBeInterrupted = false;  // the caller asked for the group, and so to be able to signal it
  int nice = 0;
};

// Held back until LetRun. A child that was never let run ends with this process; one that was lives on, unless it was
// told to end on close.
//
// The reaper keeps each child until it has ended, and until its job is closed if it is in one.
class ChildProcess : public ProcessObject, public ReaperClient {
 public:
  // Null with the Win32 error in ERROR.
  static std::shared_ptr<ChildProcess> Start(const ChildRequest& request, DWORD& error);
  // The child with this id that has not ended; null if there is none.
  static std::shared_ptr<ChildProcess> Find(pid_t pid);

  // For Start alone.
  ChildProcess(const ChildRequest& request, const Report& started, FileDescriptor control);
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
  std::shared_ptr<ExitNotice> exitNotice() const { return exitNotice_; }

  DWORD ExitCode() const override;
  bool Terminate(DWORD exitCode) override;
  bool Times(ProcessTimes& times) const override;
  bool OnReadable() override;
  void OnLetGo() override;

 private:
  bool SendCommands(const Command* commands, std::size_t count);
  bool Send(CommandKind kind, DWORD value);
  bool KeepTimes(const Report& report, ProcessTimes& times);
  void End(DWORD exitCode);

  const pid_t supervisor_;
  const SessionKind session_;
  const ProcessTimes before_;  // of the supervisor's tools before this one
  const bool mayBeInterrupted_;
  const std::shared_ptr<ExitNotice> exitNotice_;
  std::atomic<DWORD> exitCode_;

  mutable std::mutex mutex_;
  FileDescriptor control_;  // guarded by mutex_; but the reaper alone closes it and reads from it
  bool resumed_ = false;    // from here on: guarded by mutex_
  bool inJob_ = false;
  bool isIdle_ = false;  // the supervisor is
  bool killOnClose_ = false;
  ProcessTimes ownTimes_;   // once ended
  ProcessTimes treeTimes_;  // once nothing is left
};

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_CHILD_PROCESS_H_
