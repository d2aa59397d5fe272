// The process: its services in their order, the console-control handler, and the teardown.
#include "frontend/forms.h"
#include "platform/host.h"
#include "platform/win32.h"
#include "runtime/crash_handler.h"
#include "runtime/exception.h"
#include "runtime/ini_file.h"
#include "runtime/log.h"
#include "runtime/system_utilities.h"
#include "stubs/console.h"
#include "stubs/stub_base.h"

namespace kestrun {

namespace {

constexpr u32 kLogPathSize = 260;
constexpr u32 kDebugRecords = 0x10;  // of LocalSettings/DiagnosticFlags

// On a thread of the system, at any time. The lock is never given back: the stub stays whole and main does not get past
// it until the process has ended.
BOOL WINAPI CtrlHandler(DWORD ctrlType) {
  const Lock lock(StubBase::CurrentLock());
  if (StubBase* stub = StubBase::GetCurrent()) stub->Stop(ctrlType == CTRL_BREAK_EVENT ? "Ctrl-Break" : "Ctrl-C");
  ExitProcess(1);
}

// What exists from before the first option is looked at until after the last record of the log.
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
  settings.Load(GetCommonPath() / "Zelvo.ini");
  Log* log = Log::Get();
  if (log == nullptr) return;
  if (settings.GetBool("LocalSettings/LoggingEnabled", false)) log->SetEnabled(true);
  if (settings.GetInt("LocalSettings/DiagnosticFlags", 0) & kDebugRecords) log->SetDebug(true);
}

int RunProcess(int argc) {
  const ProcessServices services;
  IniFile settings;
  LoadSettings(settings);
  return RunFrontEnd(argc, GetCommandLineA(), settings);
}

}  // namespace

}  // namespace kestrun

int main(int argc, char**) {
  kestrun::platform::SetStandardStreamsBinary();
  try {
    return kestrun::RunProcess(argc);
  } catch (const kestrun::SystemException& e) {
    kestrun::PrintError(std::string("exception thrown: error=") + std::to_string(e.GetCode()) + ", msg=" + e.what());
    return 1;
  }
}
