#include "client/transparent_tool.h"

#include <utility>

#include "app/console.h"
#include "app/stub_base.h"
#include "client/tool_slot.h"
#include "platform/tool_process.h"
#include "runtime/process/process.h"

namespace kestrun {

namespace {

constexpr int kFailure = 1;
// The exit code of other tools that limit a program's time.
constexpr int kOverdueCode = 124;
constexpr u64 kTicksInMicrosecond = 10;

int Report(const std::string& tool, const platform::RunFailure& failure) {
  PrintError("cannot run " + (tool.empty() ? "\"\"" : tool) + ": " + failure.cause);
  return failure.exitCode;
}

u32 ToMs(u32 seconds) {
  return seconds == 0 || seconds >= kNoLimit / 1000 ? kNoLimit : seconds * 1000;
}

}  // namespace

TransparentTool::TransparentTool(const Options& options, std::vector<std::string> words)
    : options_(options), words_(std::move(words)) {}

TransparentTool::Outcome TransparentTool::RunInSlot(const std::string& id, int& exitCode) {
  ToolSlot slot;
  const std::string folder = GetWorkingDirectory();
  switch (slot.Take(id, {options_.project, options_.name, folder, options_.tool, options_.toolArgs})) {
    case ToolSlot::Outcome::kNoServer:
      return Outcome::kNoMaster;
    case ToolSlot::Outcome::kStopping:
      PrintError("the master instance of Kestrun is stopping - aborting...");
      exitCode = kFailure;
      return Outcome::kDone;
    case ToolSlot::Outcome::kGranted:
    case ToolSlot::Outcome::kLost:
      // If the master has died, the build goes on as it would without Kestrun.
      break;
  }
  exitCode = RunAlone();
  slot.NoteEnd(exitCode, cpuUs_, peakMemoryBytes_);
  return Outcome::kDone;
}

int TransparentTool::RunAlone() {
  // A process that has become the tool could not end it after a timeout.
  const bool becomesTool = platform::kCanBecomeProgram && timeoutSeconds_ == 0 && !words_.empty();
  return becomesTool ? Report(options_.tool, platform::BecomeProgram(words_)) : RunAsChild();
}

int TransparentTool::RunAsChild() {
  platform::ProgramCommand command;
  platform::RunFailure failure;
  if (!platform::FindProgram(options_.tool, options_.toolArgs, command, failure)) {
    return Report(options_.tool, failure);
  }
  const rc_ptr<Process> process = new Process("");
  process->SetApplicationPath(command.application);
  if (!process->Start(command.commandLine, Process::OWN_JOB | Process::SHOW_WINDOW, nullptr, 0)) {
    return platform::kExitNotRunnable;
  }
  u32 code = static_cast<u32>(kFailure);
  if (process->Wait(ToMs(timeoutSeconds_), &code)) {
    if (const u64 ticks = process->GetCpuTime()) cpuUs_ = static_cast<std::int64_t>(ticks / kTicksInMicrosecond);
    if (const u64 peak = process->GetPeakMemory()) peakMemoryBytes_ = static_cast<std::int64_t>(peak);
    return static_cast<int>(code);
  }
  process->Terminate();
  PrintError("job ran longer than " + std::to_string(timeoutSeconds_) + " seconds and was ended");
  return kOverdueCode;
}

}  // namespace kestrun
