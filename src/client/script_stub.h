// Runs a job script: every job line becomes a build request, and the stub has one exit code for all of them.
#ifndef KESTRUN_CLIENT_SCRIPT_STUB_H_
#define KESTRUN_CLIENT_SCRIPT_STUB_H_

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "app/stub_base.h"
#include "client/master_connection.h"
#include "client/script_progress.h"
#include "messaging/message.h"
#include "runtime/base/critical_section.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// All requests are made before the first is sent. Then "SendJobsThread" announces the project and sends the jobs, while
// the main thread takes results as they come. The first failure ends the run, unless the master marks it keep-going.
// Without a master nothing is run.
class ScriptStub : public StubBase {
 public:
  ScriptStub(IniFile& settings, const Options& options);
  ~ScriptStub() override;

  int Run() override;
  void Stop(const std::string& reason) override;

 private:
  bool WaitForAccess();
  // Reads the script and fills jobs_. False after an error line.
  bool PrepareJobs();
  int SendAndReceive();
  void SendJobs();
  int ReceiveResults();
  // As MasterConnection::Receive, but waits a moment while many results are missing, to take several at once.
  rc_ptr<Message> ReceiveNext(int timeoutMs);
  // True ends the receive loop.
  bool HandleScriptResult(const rc_ptr<Message>& message);
  // Tells the sending thread to stop and waits for its end; if it does not end in time, the process is ended.
  void StopSending(int exitCodeOnFailure);
  [[noreturn]] void FatalError(const std::string& text);

  void TellProgress(const Message& message, i32 code);

  MasterConnection connection_;
  std::unique_ptr<ScriptProgress> progress_;  // null without a terminal and without TransparentTools
  std::string project_;                // set when Run begins, with this process's id behind it; only read afterwards
  int resultCode_ = 0;                 // main thread only
  std::size_t missingResults_ = 0;     // main thread only
  bool mayGather_ = false;             // main thread only: the latest result was without output
  std::vector<rc_ptr<Message>> jobs_;  // complete before the sending thread starts, only read afterwards
  rc_ptr<Thread> sendThread_;          // guarded by threadLock_
  CriticalSection threadLock_;
  std::atomic<bool> stopRequested_{false};
  std::atomic<bool> sendFinished_{false};
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_SCRIPT_STUB_H_
