// The process: its services in their order, the console-control handler, and the teardown.
#include "app/console.h"
#include "app/stub_base.h"
#include "frontend/forms.h"
#include "frontend/transparent_form.h"
#include "platform/host.h"
#include "platform/tool_process.h"
#include "platform/win32.h"
#include "runtime/base/exception.h"
#include "runtime/files/common_folder.h"
#include "runtime/files/ini_file.h"
#include "runtime/files/log.h"
#include "runtime/process/crash_handler.h"

namespace kestrun {

namespace {

constexpr u32 kLogPathSize = 260;
constexpr u32 kDebugRecords = 0x10;  // of LocalSettings/DiagnosticFlags

// Runs on a thread of the system, at any time. It holds the lock until the process ends, so that main can't destroy the
// stub while Stop uses it.
BOOL WINAPI CtrlHandler(DWORD ctrlType) {
  const Lock lock(StubBase::CurrentLock());
  if (StubBase* stub = StubBase::GetCurrent()) stub->Stop(ctrlType == CTRL_BREAK_EVENT ? "Ctrl-Break" : "Ctrl-C");
  ExitProcess(1);
}

// The services of the whole process: log, sockets, console-control handler, crash handler.
class ProcessServices {
 public:
  ProcessServices() {
    const std::string logPath = ReadBoundedVariable("KESTRUN_LOG", kLogPathSize);
    WSADATA sockets;
    WSAStartup(MAKEWORD(2, 2), &sockets);
    if (logPath.empty()) {
      Log::Init("zelvo", false);
    } else {
      Log::InitFile(logPath);
    }
    SetConsoleCtrlHandler(CtrlHandler, TRUE);
    InstallCrashHandler((GetCommonPath() / "Log\\").c_str(), "zelvo-", true);
  }
  ~ProcessServices() {
    WSACleanup();
    Log::Shutdown();
  }
  ProcessServices(const ProcessServices&) = delete;
  ProcessServices& operator=(const ProcessServices&) = delete;
};

void LoadSettings(IniFile& settings) {
  const Path file = GetCommonPath() / "Zelvo.ini";
  const std::string refusal = settings.Load(file) ? "" : platform::WhyNoFile(file.ToString());
  if (!refusal.empty()) PrintWarning("the settings are not read, " + GetFullPath(file).ToString() + ": " + refusal);
  // KESTRUN_LOG only names the file; nothing is written until the settings turn the log on.
  Log* log = Log::Get();
  if (log == nullptr) return;
  if (settings.GetBool("LocalSettings/LoggingEnabled", false)) log->SetEnabled(true);
  if (!log->GetRefusal().empty()) PrintWarning("the log is not written, " + log->GetRefusal());
  if (settings.GetInt("LocalSettings/DiagnosticFlags", 0) & kDebugRecords) log->SetDebug(true);
}

int RunProcess(int argc, char** argv) {
  const std::string commandLine = GetCommandLineA();
  int exitCode = 0;
  // Before any service starts: a process that becomes a tool must have no further threads, files or handlers.
  const TransparentRun transparent = RunTransparently(commandLine, argc, argv, exitCode);
  if (transparent == TransparentRun::kDone) return exitCode;
  const ProcessServices services;
  IniFile settings;
  LoadSettings(settings);
  return RunFrontEnd(argc, argv, commandLine, settings, transparent);
}

}  // namespace

}  // namespace kestrun

int main(int argc, char** argv) {
  // First: otherwise a file that is opened later could become standard output.
  kestrun::platform::OpenClosedStandardStreams();
  kestrun::platform::SetStandardStreamsBinary();
  try {
    return kestrun::RunProcess(argc, argv);
  } catch (const kestrun::SystemException& e) {
    kestrun::PrintError(std::string("exception thrown: error=") + std::to_string(e.GetCode()) + ", msg=" + e.what());
    return 1;
  }
}
