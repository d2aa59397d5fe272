#include "runtime/threads/event_timer.h"

namespace kestrun {

namespace {

constexpr u64 kFileTimeUnitsPerMs = 10000;

}  // namespace

void EventTimer::Start() {
  QueryPerformanceFrequency(&frequency_);
  isStopped_ = false;
  SYSTEMTIME now;
  // The wall clock for the start, the performance counter for the length: the wall clock may be set meanwhile.
  GetLocalTime(&now);
  SystemTimeToFileTime(&now, &startTime_);
  QueryPerformanceCounter(&start_);
}

void EventTimer::Stop() {
  QueryPerformanceCounter(&stop_);
  elapsedMs_ = static_cast<u32>((stop_.QuadPart - start_.QuadPart) * 1000 / frequency_.QuadPart);
  isStopped_ = true;
}

u64 EventTimer::GetStartTime() const {
  u64 time = static_cast<u64>(startTime_.dwHighDateTime) << 32 | startTime_.dwLowDateTime;
  return time / kFileTimeUnitsPerMs;
}

}  // namespace kestrun
