#include "kill_support.h"

namespace kestrun::test {

const unsigned kRandomKillLimitMs = 60000;

void KillProcess(unsigned long pid) {
  const HANDLE process = OpenProcess(PROCESS_TERMINATE, FALSE, pid);
  EXPECT_TRUE(TerminateProcess(process, 137));
  CloseHandle(process);
}

std::string NamedObjectsLeft(const std::string&) {
  return "";
}

int CountProcessesOf(const std::string&) {
  return 0;
}

}  // namespace kestrun::test
