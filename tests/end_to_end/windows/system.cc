#include "build_fixture.h"

namespace kestrun::test {

unsigned long long CpuTimeMs(unsigned long pid) {
  const HANDLE process = OpenProcess(PROCESS_QUERY_INFORMATION, FALSE, pid);
  FILETIME created, ended, kernel, user;
  EXPECT_TRUE(GetProcessTimes(process, &created, &ended, &kernel, &user));
  CloseHandle(process);
  const auto wide = [](const FILETIME& time) {
    return (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
  };
  return (wide(kernel) + wide(user)) / 10000;
}

}  // namespace kestrun::test
