#include "kill_support.h"

namespace kestrun::test {

void KillProcess(unsigned long pid) {
  const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, pid);
  EXPECT_TRUE(TerminateProcess(process, 137));
  CloseHandle(process);
}

// Debuggers stop a process with these; the headers do not declare them.
static void CallOfNtdll(const char* name, unsigned long pid) {
  const HANDLE process = OpenProcess(PROCESS_SUSPEND_RESUME, FALSE, pid);
  void* const address = reinterpret_cast<void*>(GetProcAddress(GetModuleHandleA("ntdll.dll"), name));
  reinterpret_cast<LONG(WINAPI*)(HANDLE)>(address)(process);
  CloseHandle(process);
}

void StopProcess(unsigned long pid) {
  CallOfNtdll("NtSuspendProcess", pid);
}

void ContinueProcess(unsigned long pid) {
  CallOfNtdll("NtResumeProcess", pid);
}

std::string NamedObjectsLeft(const std::string&) {
  return "";
}

int CountProcessesOf(const std::string&) {
  return 0;
}

}  // namespace kestrun::test
