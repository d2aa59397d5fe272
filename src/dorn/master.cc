#include "dorn/master.h"

#include "dorn/command_line.h"
#include "dorn/report.h"
#include "runtime/sync.h"

namespace kestrun::dorn {

namespace {

// A master is ready within seconds; one that is not hangs.
constexpr u32 kReadyLimitMs = 60000;
constexpr u32 kInterruptedLimitMs = 1000;

}  // namespace

Master::NamedEvent::NamedEvent(const std::string& eventName, bool isManual)
    : name(eventName), handle(CreateEventA(nullptr, isManual, FALSE, eventName.c_str())) {
  if (!handle) throw SyncException(static_cast<i32>(GetLastError()), "CreateEvent() failed for " + name);
}

Master::Master(const std::string& id)
    : id_(id), ready_("dorn_ready_" + id, true), stop_("dorn_stop_" + id, true), finish_("dorn_finish_" + id, false) {}

Master::Start Master::Run(const Path& program, HANDLE interruption) {
  process_ = new Process("");
  process_->SetApplicationPath(program);
  const std::string commandLine = JoinArguments(
      {program.ToString(), "-master", "-id", id_, "-er", ready_.name, "-es", stop_.name, "-ef", finish_.name});
  if (!process_->Start(commandLine, Process::OWN_JOB | Process::PIPE_STDIN, nullptr, 0)) {
    PrintError("the master cannot be started");
    return Start::kFailed;
  }
  ended_ = process_->GetWaitHandle();
  const HANDLE handles[] = {ready_.handle.Get(), ended_.Get(), interruption};
  switch (WaitForMultipleObjects(3, handles, FALSE, kReadyLimitMs)) {
    case WAIT_OBJECT_0:
      return Start::kReady;
    case WAIT_OBJECT_0 + 1: {
      u32 code = 0;
      process_->Wait(kNoLimit, &code);
      PrintError("the master ended at its start with exit code " + std::to_string(code) +
                 "; the build command was not run");
      return Start::kFailed;
    }
    case WAIT_OBJECT_0 + 2:
      process_->Terminate();
      return Start::kInterrupted;
    default:
      process_->Terminate();
      PrintError("the master did not become ready; the build command was not run");
      return Start::kFailed;
  }
}

void Master::Stop(u32 limitMs, HANDLE interruption) {
  SetEvent(finish_.handle.Get());
  SetEvent(stop_.handle.Get());
  const HANDLE handles[] = {ended_.Get(), interruption};
  DWORD outcome = WaitForMultipleObjects(interruption != nullptr ? 2 : 1, handles, FALSE, limitMs);
  if (outcome == WAIT_OBJECT_0 + 1) outcome = WaitForSingleObject(ended_.Get(), kInterruptedLimitMs);
  if (outcome == WAIT_OBJECT_0) {
    process_->Close();
  } else {
    process_->Terminate();
  }
}

}  // namespace kestrun::dorn
