#include "dorn/session.h"

#include "dorn/command_line.h"
#include "dorn/first_settings.h"
#include "dorn/interruption.h"
#include "dorn/master.h"
#include "dorn/program_search.h"
#include "dorn/report.h"
#include "platform/host.h"
#include "platform/win32.h"
#include "runtime/process.h"

namespace kestrun::dorn {

namespace {

// After an interruption both ends together stay below five seconds.
constexpr u32 kBuildGraceMs = 1500;
constexpr u32 kInterruptedStopLimitMs = 1500;
// Longer than the master gives its own threads.
constexpr u32 kStopLimitMs = 35000;

std::string MakeId() {
  return "dorn_" + std::to_string(GetCurrentProcessId()) + "_" + std::to_string(GetTickCount());
}

// Runs the build command on the terminal of this process until it ends. Ctrl-C reaches it from the terminal by
// itself, any other end is passed on; if it does not end on that, it is ended by force. Its background processes end
// with it.
int RunBuild(const Path& program, const std::vector<std::string>& command, const Interruption& interruption) {
  const rc_ptr<Process> build = new Process("");
  build->SetApplicationPath(program);
  if (!build->Start(JoinArguments(command), Process::OWN_JOB | Process::SHOW_WINDOW, nullptr, 0)) {
    return kExitCannotStart;
  }
  const UniqueHandle ended = build->GetWaitHandle();
  const HANDLE handles[] = {ended.Get(), interruption.GetHandle()};
  if (WaitForMultipleObjects(2, handles, FALSE, INFINITE) != WAIT_OBJECT_0) {
    if (!interruption.HasReachedAll()) platform::AskToEnd(build->GetProcessId());
    if (WaitForSingleObject(ended.Get(), kBuildGraceMs) != WAIT_OBJECT_0) {
      build->Terminate();
      return kExitInterrupted;
    }
  }
  u32 code = static_cast<u32>(kExitFailure);
  build->Wait(kNoLimit, &code);
  return static_cast<int>(code);
}

}  // namespace

int RunSession(const Options& options) {
  const Path program = FindBuildCommand(options.command[0]);
  if (program.IsEmpty()) {
    PrintError("cannot find the build command " + options.command[0]);
    return kExitCommandNotFound;
  }
  const Path kestrun = FindKestrun();
  if (kestrun.IsEmpty()) {
    PrintError("cannot find kestrun, neither beside dorn nor in PATH");
    return kExitFailure;
  }
  const std::string id = options.id.empty() ? MakeId() : options.id;
  const Interruption interruption;
  WriteFirstSettings();
  SetEnvironmentVariableA("KESTRUN_ID", id.c_str());

  Master master(id);
  switch (master.Run(kestrun, interruption.GetHandle())) {
    case Master::Start::kFailed:
      return kExitFailure;
    case Master::Start::kInterrupted:
      return kExitInterrupted;
    case Master::Start::kReady:
      break;
  }
  const int code = RunBuild(program, options.command, interruption);
  if (interruption.HasHappened()) {
    master.Stop(kInterruptedStopLimitMs, nullptr);
  } else {
    master.Stop(kStopLimitMs, interruption.GetHandle());
  }
  return code;
}

}  // namespace kestrun::dorn
