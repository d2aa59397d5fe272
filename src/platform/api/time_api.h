// Clocks and calendar times under their Win32 names.
//
// Tick counts and the performance counter come from one monotonic clock; calendar times from the system's clock and
// its local zone. FILETIME counts 100 ns since 1601-01-01 UTC. All of these are safe from any thread.
#ifndef KESTRUN_PLATFORM_API_TIME_API_H_
#define KESTRUN_PLATFORM_API_TIME_API_H_

#include <ctime>

#include "platform/api/base_api.h"

// Milliseconds, never going back; GetTickCount wraps after 49.7 days.
DWORD GetTickCount();
ULONGLONG GetTickCount64();

BOOL QueryPerformanceCounter(LARGE_INTEGER* count);
BOOL QueryPerformanceFrequency(LARGE_INTEGER* countsPerSecond);

void GetLocalTime(SYSTEMTIME* time);
void GetSystemTime(SYSTEMTIME* time);
void GetSystemTimeAsFileTime(FILETIME* time);

// Both without a time zone. A time that is no date fails with ERROR_INVALID_PARAMETER.
BOOL SystemTimeToFileTime(const SYSTEMTIME* from, FILETIME* to);
BOOL FileTimeToSystemTime(const FILETIME* from, SYSTEMTIME* to);
// Converts by the zone's offset at that very moment.
BOOL FileTimeToLocalFileTime(const FILETIME* from, FILETIME* to);
LONG CompareFileTime(const FILETIME* left, const FILETIME* right);

namespace kestrun::platform {

FILETIME FileTimeFromTimespec(const timespec& time);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_API_TIME_API_H_
