#include "dorn/session.h"

#include "dorn/command_line.h"
#include "dorn/exit_codes.h"
#include "dorn/interruption.h"
#include "dorn/master.h"
#include "dorn/observed_build.h"
#include "dorn/output_file.h"
#include "dorn/program_search.h"
#include "dorn/report.h"
#include "dorn/settings.h"
#include "platform/host.h"
#include "platform/terminal.h"
#include "platform/win32.h"
#include "protocol/names.h"
#include "runtime/base/environment.h"
#include "runtime/files/common_folder.h"
#include "runtime/files/delete_tree.h"
#include "runtime/files/ini_file.h"
#include "runtime/process/process.h"

namespace kestrun::dorn {

namespace {

// How long to wait for the helper processes, which end within a millisecond of their last task.
constexpr DWORD kTimesLimitMs = 50;

// After an interruption the build gets the first time to end by itself, and the second after it was asked to. Together
// with what the master then takes they stay below two seconds.
constexpr u32 kOwnEndMs = 300;
constexpr u32 kAskedEndMs = 700;

// How often dorn checks whether the master is stopped; no event tells of that.
constexpr DWORD kMasterLookMs = 2000;

u32 CodeOf(DWORD controlEvent) {
  switch (controlEvent) {
    case CTRL_C_EVENT:
      return kExitInterrupted;
    case CTRL_BREAK_EVENT:
      return kExitTerminated;
    default:
      return kExitHungUp;
  }
}

// Ctrl-C reaches the build command from the terminal by itself. A signal to this process alone looks the same, so a
// build that goes on is asked, too.
bool EndsAfterInterruption(Process& build, HANDLE ended, const Interruption& interruption) {
  if (interruption.HasReachedAll() && WaitForSingleObject(ended, kOwnEndMs) == WAIT_OBJECT_0) return true;
  platform::AskToEnd(build.GetProcessId());
  return WaitForSingleObject(ended, kAskedEndMs) == WAIT_OBJECT_0;
}

bool RunsToolsWithoutMaster() {
  IniFile settings;
  settings.Load(GetSettingsPath());
  return settings.GetBool("Extensions/TransparentTools", false);
}

// Tools that start from now on find no master, and run without a limit if the settings allow that.
void TellOfLostMaster() {
  if (!RunsToolsWithoutMaster()) return;
  PrintWarning("the master has ended before the build; from here on tools run without a limit");
}

// Tools that run already are not affected.
bool TellOfStoppedMaster(DWORD master) {
  if (!platform::IsStopped(master)) return false;
  PrintWarning("the master, process " + std::to_string(master) +
               ", is stopped and does not answer; tools that start wait until it goes on or ends");
  return true;
}

// Waits until the build has ended, or dorn is interrupted: true for the latter. `master` is null if an outer dorn
// watches the master.
bool AwaitEnd(HANDLE build, HANDLE interruption, HANDLE master) {
  bool isTold = false;
  for (;;) {
    const HANDLE handles[] = {build, interruption, master};
    const bool hasMaster = master != nullptr;
    const DWORD outcome =
        WaitForMultipleObjects(hasMaster ? 3 : 2, handles, FALSE, hasMaster ? kMasterLookMs : INFINITE);
    if (outcome == WAIT_OBJECT_0 || outcome == WAIT_OBJECT_0 + 1) return outcome != WAIT_OBJECT_0;
    if (outcome == WAIT_OBJECT_0 + 2) {
      TellOfLostMaster();
      master = nullptr;
    } else {
      isTold = isTold || TellOfStoppedMaster(GetProcessId(master));
    }
  }
}

// Runs the build command on the terminal of this process until it ends; one that does not end after an interruption is
// ended by force. Its background processes end with it.
int RunBuild(const Path& program, const std::vector<std::string>& command, const Interruption& interruption,
             HANDLE master) {
  const rc_ptr<Process> build = new Process("");
  build->SetApplicationPath(program);
  const platform::SavedTerminal terminal;
  const u32 flags = Process::OWN_JOB | Process::SHOW_WINDOW | Process::INHERIT_DESCRIPTORS;
  // A command line has no way to write a quote in a program's name; the path above says which file it is.
  std::vector<std::string> words = command;
  std::erase(words[0], '"');
  if (!build->Start(JoinArguments(words), flags, nullptr, 0)) return kExitCannotStart;
  const UniqueHandle ended = build->GetWaitHandle();
  const bool isInterrupted = AwaitEnd(ended.Get(), interruption.GetHandle(), master);
  u32 code = static_cast<u32>(kExitFailure);
  // The caller is told of the interruption and not of what dorn did about it.
  if (isInterrupted && !EndsAfterInterruption(*build, ended.Get(), interruption)) {
    build->Terminate();
    code = CodeOf(interruption.GetType());
  } else {
    // This only reads the exit code: the build has ended.
    build->Wait(kNoLimit, &code);
    if (isInterrupted && code == kExitTerminated) code = CodeOf(interruption.GetType());
  }
  // A build that was interrupted may have left the terminal without echo.
  if (isInterrupted) terminal.Restore();
  return static_cast<int>(code);
}

// Checked before the build, which may take hours.
bool CanWriteOutputFiles(const Options& options) {
  for (const std::string& file : {options.recordFile, options.traceFile, options.reportFile}) {
    std::string error;
    if (file.empty() || CanWriteOutputFile(Path(file), error)) continue;
    PrintError(error);
    return false;
  }
  return true;
}

// True if dorn runs within a build that has a master already, another dorn's or one that was started by hand. The
// command then runs under that master.
bool HasOuterMaster(const Options& options, std::string& id) {
  if (options.isAlone || !options.id.empty() || !GetEnvironmentValue("KESTRUN_ID", id) || id.empty()) return false;
  return static_cast<bool>(UniqueHandle(OpenSemaphoreA(SYNCHRONIZE, FALSE, GetAccessName(id).c_str())));
}

int RunUnderOuterMaster(const Options& options, const std::string& id, const Path& program,
                        const Interruption& interruption) {
  ObservedBuild observed(options, id, false);
  const int code = RunBuild(program, options.command, interruption, nullptr);
  observed.Report(code);
  return code;
}

// Runs the build while the shared master is stopped and other dorns use it. This dorn must not end that master, and a
// second one beside it would double the limit on tools.
int RunBesideMaster(const Options& options, const Path& program, const Interruption& interruption, DWORD master) {
  const std::string cause = "the master of other builds, process " + std::to_string(master) +
                            ", is stopped and does not answer; let it go on, or end it. ";
  if (!RunsToolsWithoutMaster()) {
    PrintError(cause + "The build command was not run");
    return kExitFailure;
  }
  PrintWarning(cause + "The tools of this build run without a limit, and nothing is known of them");
  // An id in the environment could name a master, and these tools are to run without one.
  SetEnvironmentVariableA("KESTRUN_ID", nullptr);
  return RunBuild(program, options.command, interruption, nullptr);
}

int RunUnderMaster(const Options& options, const Path& kestrun, const Path& program, const Interruption& interruption) {
  Master master;
  // A Join that fails may have announced this dorn as a user already, so Leave follows in every case.
  switch (master.Join(kestrun, {options.id, options.jobs}, interruption.GetHandle())) {
    case Master::Start::kFailed:
      master.Leave(false, interruption.GetHandle());
      return kExitFailure;
    case Master::Start::kInterrupted:
      master.Leave(true, nullptr);
      return static_cast<int>(CodeOf(interruption.GetType()));
    case Master::Start::kStopped:
      master.Leave(false, interruption.GetHandle());
      return RunBesideMaster(options, program, interruption, master.GetProcessId());
    case Master::Start::kReady:
      break;
  }
  SetEnvironmentVariableA("KESTRUN_ID", master.GetId().c_str());
  ObservedBuild observed(options, master.GetId(), true);
  const int code = RunBuild(program, options.command, interruption, master.GetProcess());
  observed.Report(code);
  // Only now, because the report asks the master for the end of the last jobs.
  master.Leave(interruption.HasHappened(), interruption.GetHandle());
  return code;
}

// With --alone: separates the named objects of this build from those of others, so that it gets its own master.
class OwnObjects {
 public:
  explicit OwnObjects(bool isWanted) : isSeparate_(isWanted && platform::SeparateNamedObjects()) {
    if (isWanted && !isSeparate_) PrintWarning("this system has one master at a time; --alone changes nothing");
  }
  ~OwnObjects() {
    if (isSeparate_) DeleteTree(Path(platform::NamedObjectFolder()));
  }
  OwnObjects(const OwnObjects&) = delete;
  OwnObjects& operator=(const OwnObjects&) = delete;

 private:
  const bool isSeparate_;
};

// When it is destroyed, adds the build's processor time to this process's own, which `time dorn make` shows.
struct CountedTimes {
  CountedTimes() = default;
  CountedTimes(const CountedTimes&) = delete;
  CountedTimes& operator=(const CountedTimes&) = delete;
  ~CountedTimes() { platform::TakeOverChildTimes(kTimesLimitMs); }
};

}  // namespace

int RunSession(const Options& options) {
  const Path program = FindBuildCommand(options.command[0]);
  if (program.IsEmpty()) {
    PrintError("cannot find the build command " + options.command[0]);
    return kExitCommandNotFound;
  }
  if (!CanWriteOutputFiles(options)) return kExitFailure;
  const Path kestrun = FindKestrun();
  if (kestrun.IsEmpty()) {
    PrintError("cannot find kestrun, neither beside dorn nor in PATH");
    return kExitFailure;
  }
  // The folder of named objects is fixed once this process has made an object, so this and --alone come before the
  // first.
  platform::RemoveAbandonedObjects();
  const OwnObjects objects(options.isAlone);
  // The folder is also empty where the system has none; a refusal was reported by the check itself.
  if (platform::NamedObjectFolder().empty() && platform::AreNamedObjectsRefused()) return kExitFailure;
  const Interruption interruption;
  const CountedTimes times;
  std::string outerId;
  // Below an outer master no settings are checked: that master has read its own already.
  if (HasOuterMaster(options, outerId)) return RunUnderOuterMaster(options, outerId, program, interruption);
  WriteFirstSettings();
  SettingsFile settings;
  if (settings.Load(GetSettingsPath())) {
    if (!CheckSettings(settings)) return kExitFailure;
    TellOfMissingSettings(settings);
  }
  return RunUnderMaster(options, kestrun, program, interruption);
}

}  // namespace kestrun::dorn
