#include "platform/linux/process/process_object.h"

#include <unistd.h>

#include <fstream>
#include <string>

#include "platform/linux/base/process_stat.h"

namespace kestrun::platform {
namespace {

constexpr std::uint64_t kSecondsFrom1601To1970 = 11644473600;

// When the system started, in seconds since 1970. /proc tells the start of a process relative to that.
std::uint64_t BootTime() {
  std::ifstream file("/proc/stat");
  std::string word;
  std::uint64_t seconds = 0;
  while (file >> word) {
    if (word == "btime" && file >> seconds) return seconds;
  }
  return 0;
}

}  // namespace

bool ProcessObject::Times(ProcessTimes& times) const {
  return ReadProcessTimes(pid_, times);
}

bool ReadProcessTimes(pid_t pid, ProcessTimes& times) {
  ProcessStat stat;
  if (!ReadProcessStat(pid, stat)) return false;
  times.userUs = TicksToMicroseconds(stat.userTicks);
  times.kernelUs = TicksToMicroseconds(stat.kernelTicks);
  return true;
}

FILETIME FileTimeFromMicroseconds(std::uint64_t microseconds) {
  const std::uint64_t ticks = microseconds * 10;
  return FILETIME{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
}

FILETIME ProcessStartTime(pid_t pid) {
  ProcessStat stat;
  if (!ReadProcessStat(pid, stat)) return FILETIME{};
  return FileTimeFromMicroseconds((BootTime() + kSecondsFrom1601To1970) * 1000000 +
                                  TicksToMicroseconds(stat.startTicks));
}

}  // namespace kestrun::platform
