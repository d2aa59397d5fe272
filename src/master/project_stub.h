// The master: the one long-lived process of a build.
#ifndef KESTRUN_MASTER_PROJECT_STUB_H_
#define KESTRUN_MASTER_PROJECT_STUB_H_

#include <atomic>
#include <memory>
#include <string>

#include "app/stub_base.h"
#include "master/build_job_scheduler.h"
#include "master/build_request_handler.h"
#include "master/failure_list.h"
#include "master/job_journal.h"
#include "master/job_observers.h"
#include "master/job_slots.h"
#include "master/job_watch.h"
#include "master/place_keeper.h"
#include "master/slot_server.h"
#include "messaging/message_dispatcher.h"
#include "runtime/base/critical_section.h"
#include "runtime/base/handle.h"
#include "runtime/threads/sync.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// Owns the dispatcher through which stubs reach it, the handler that turns requests into jobs, the scheduler that runs
// them, and the kernel objects by which stubs and the integration find and steer it. It runs until it is told to stop:
// by the stop event, a MSG_STOP, a console event, or an error of the dispatcher or its reactor.
//
// All messages are handled one after the other, under the handling lock, on the thread of the dispatcher's client. Only
// the result of a job may be handled on the local build thread that has it, if the lock is free. Run blocks on the main
// thread; Stop may come from any thread.
//
// Order of locks: the handling lock is outermost. Under it come those of the queue of running tools, the slots, the
// slot server, and the observers; the journal's is innermost.
class ProjectStub : public StubBase {
 public:
  // MaxConcurrentJobs without a setting.
  static constexpr u32 kDefaultMaxConcurrentJobs = 30;

  // Starts the local build threads and the request thread; the listener opens in Run. Throws SyncException if the
  // semaphore or the events condition can't be made.
  ProjectStub(IniFile& settings, const Options& options);
  ~ProjectStub() override;

  // 1 if another master runs already, or if the threads of this one could not be started; otherwise 0 after a stop that
  // was asked for, 1 after one for an error.
  int Run() override;
  void Stop(const std::string& reason) override;

 private:
  void HandleMessage(rc_ptr<Message> message);
  // On a local build thread. False if another message is being handled.
  bool TryResultHere(const rc_ptr<Message>& message);
  void OnJobResult(const rc_ptr<Message>& message);
  void OnTick();
  void OnJobsFinished();
  void OnStop(const rc_ptr<Message>& message);
  void OnDrainRequests();
  void OnBuildRequest(const rc_ptr<Message>& request);
  // On the request thread, with eager scheduling: asks for a drain, so that the job does not wait for the tick.
  void OnJobReady();
  void OnProjectDetails(const rc_ptr<Message>& message);
  void OnStarted();
  void OnChannelEvent(const rc_ptr<Message>& message);

  // Stores the exit code and shuts the master down. Blocks until running tools have ended, 30 s at most.
  void StopBuild(int code, const std::string& reason);
  void Shutdown();
  void WaitForEvents();
  bool StartWaitThread();
  // Empty unless the settings ask for eager scheduling.
  Functor0<void>::Type MakeJobListener();
  void OpenPlaces(IniFile& settings);
  // False, after an error line, where no client could ever reach this master.
  bool CheckListener();
  bool OpenSlotServer();
  void OnDispatcherError(std::string text);
  void OnReactorError(std::string text);
  void LogFinished(u32 elapsedMs);

  // The events of the integration; null where none was given, or where it does not exist.
  const UniqueHandle stopEvent_;
  const UniqueHandle readyEvent_;
  const UniqueHandle finishEvent_;
  std::atomic<i32> exitCode_{0};
  std::atomic<bool> isStarted_{false};
  const bool isEager_;
  CriticalSection handlingLock_;          // held while a message is handled
  std::atomic<DWORD> handlingThread_{0};  // that of the latest message
  bool hasThreads_ = true;                // constant after construction
  bool isEnding_ = false;                 // guarded by handlingLock_: the destructor has come, messages are dropped
  MessageDispatcher dispatcher_;
  std::unique_ptr<JobSlots> slots_;  // null without Extensions/TransparentTools
  JobJournal journal_;
  FailureList failures_;  // under handlingLock_; read by Run once all threads have ended
  BuildJobScheduler scheduler_;
  // Exactly one of the two is set: the plain semaphore, or the keeper.
  std::unique_ptr<Semaphore> clientAccess_;
  std::unique_ptr<PlaceKeeper> placeKeeper_;
  BuildRequestHandler requestHandler_;
  std::unique_ptr<JobObservers> observers_;  // constant after construction
  // While Run runs with TransparentTools, one of them: clients ask for job slots there.
  std::unique_ptr<SlotServer> slotServer_;
  std::unique_ptr<PlaceKeeper> slotTable_;
  std::unique_ptr<JobWatch> jobWatch_;          // while Run runs with TransparentTools
  rc_ptr<Thread> waitThread_;                   // empty without a stop event
  std::unique_ptr<Condition> eventsCondition_;  // null without a stop event
  std::unique_ptr<Condition> waitThreadEnd_;    // lets the destructor end the wait thread
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_PROJECT_STUB_H_
