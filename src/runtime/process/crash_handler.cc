#include "runtime/process/crash_handler.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <exception>

#include "platform/host.h"
#include "platform/win32.h"
#include "runtime/base/handle.h"
#include "runtime/files/executable_search.h"
#include "runtime/files/version_string.h"

namespace kestrun {

namespace {

constexpr DWORD kCrashExitCode = 0xFFFFFFFF;
// The most dumps of one program version in one folder, since a dump can contain all memory of the process.
constexpr int kMostDumps = 5;

// Made at installation and constant from then on: a crash may come while the heap is locked or damaged, so the handler
// itself must not allocate memory.
struct Settings {
  char libraryBesideProgram[MAX_PATH];
  char dumpStem[2 * MAX_PATH + 64];
  MINIDUMP_TYPE dumpType;
};

Settings settings;
std::atomic<bool> isHandling{false};

// Writes without the run-time library, because a stopped thread may hold the lock of its stream.
void Print(const char* text) {
  DWORD written = 0;
  WriteFile(GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(std::strlen(text)), &written, nullptr);
}

void SuspendOtherThreads(DWORD processId, DWORD threadId) {
  const UniqueFile snapshot(CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0));
  if (!snapshot) return;
  constexpr DWORD kNeededSize = 16;  // up to and with the owner's id
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Thread32First(snapshot.Get(), &entry); more; more = Thread32Next(snapshot.Get(), &entry)) {
    if (entry.dwSize >= kNeededSize && entry.th32OwnerProcessID == processId && entry.th32ThreadID != threadId) {
      const UniqueHandle thread(OpenThread(THREAD_SUSPEND_RESUME, FALSE, entry.th32ThreadID));
      if (thread && SuspendThread(thread.Get()) == static_cast<DWORD>(-1)) {
        char text[96];
        std::snprintf(text, sizeof text, "Could not suspend thread %d (error %d)\n",
                      static_cast<int>(entry.th32ThreadID), static_cast<int>(GetLastError()));
        Print(text);
      }
    }
    entry.dwSize = sizeof entry;
  }
}

// Makes a file that does not exist yet. An existing dump is kept, because the first crash often explains the others,
// and a file or link that another user may have put there is never written to. Empty if none can be made; `name` is the
// last name that was tried.
UniqueFile CreateDumpFile(char* name, std::size_t size) {
  std::snprintf(name, size, "%s.dmp", settings.dumpStem);
  for (int number = 2;; ++number) {
    UniqueFile file(CreateFileA(name, GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file || GetLastError() != ERROR_FILE_EXISTS) return file;
    if (number > kMostDumps) break;
    std::snprintf(name, size, "%s-%d.dmp", settings.dumpStem, number);
  }
  Print("Internal Exception: no dump file written, there are enough up to ");
  Print(name);
  Print("\n");
  return UniqueFile();
}

void WriteDump(DWORD processId, DWORD threadId, EXCEPTION_POINTERS* exception) {
  HMODULE library = LoadLibraryA(settings.libraryBesideProgram);
  if (library == nullptr) library = LoadLibraryA("DBGHELP.DLL");
  if (library == nullptr) {
    Print("Internal Exception: System debug DLL not found. Cannot produce dump file.\n");
    return;
  }
  const auto writeDump = reinterpret_cast<decltype(&MiniDumpWriteDump)>(
      reinterpret_cast<void*>(GetProcAddress(library, "MiniDumpWriteDump")));
  if (writeDump == nullptr) {
    Print("Internal Exception: System debug DLL too old to produce dump file.\n");
    return;
  }
  char dumpName[sizeof settings.dumpStem + 16];
  UniqueFile file = CreateDumpFile(dumpName, sizeof dumpName);
  if (!file) return;
  MINIDUMP_EXCEPTION_INFORMATION info{};
  info.ThreadId = threadId;
  info.ExceptionPointers = exception;
  info.ClientPointers = FALSE;
  writeDump(GetCurrentProcess(), processId, file.Get(), settings.dumpType, &info, nullptr, nullptr);
  file.Reset();
  Print("Internal Exception: dump file written to ");
  Print(dumpName);
  Print("\n");
}

LONG WINAPI HandleCrash(EXCEPTION_POINTERS* exception) {
  // A second fault, in the handler or on another thread, is left to the system.
  if (isHandling.exchange(true)) return EXCEPTION_CONTINUE_SEARCH;
  const DWORD processId = GetCurrentProcessId();
  const DWORD threadId = GetCurrentThreadId();
  // Stopped first, so that the dump shows them where they were at the crash.
  SuspendOtherThreads(processId, threadId);
  platform::FlushStandardStreams();
  WriteDump(processId, threadId, exception);
  ExitProcess(kCrashExitCode);
}

// For an uncaught C++ exception: std::terminate would call abort, which on Windows ends the process without the filter.
[[noreturn]] void CrashOnTerminate() {
  __builtin_trap();
}

}  // namespace

void InstallCrashHandler(const char* directory, const char* prefix, bool fullMemory) {
  const Path program = GetProgramPath();
  std::snprintf(settings.dumpStem, sizeof settings.dumpStem, "%.259s%.259s%s", directory, prefix,
                GetProgramVersion().ToString().c_str());
  std::snprintf(settings.libraryBesideProgram, sizeof settings.libraryBesideProgram, "%s",
                (program.GetDirectory() / "DBGHELP.DLL").c_str());
  settings.dumpType = fullMemory ? MiniDumpWithFullMemory : MiniDumpNormal;
  SetUnhandledExceptionFilter(HandleCrash);
  std::set_terminate(CrashOnTerminate);
}

}  // namespace kestrun
