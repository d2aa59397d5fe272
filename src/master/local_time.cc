#include "master/local_time.h"

#include "platform/win32.h"

namespace kestrun {

u64 LocalTimeMs() {
  constexpr u64 kTicksPerMs = 10000;
  SYSTEMTIME local;
  FILETIME time{};
  GetLocalTime(&local);
  SystemTimeToFileTime(&local, &time);
  return ((u64{time.dwHighDateTime} << 32) | time.dwLowDateTime) / kTicksPerMs;
}

}  // namespace kestrun
