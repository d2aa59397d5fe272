#include <cerrno>
#include <cstdint>
#include <limits>

#include "platform/api/time_api.h"

namespace kestrun::platform {

namespace {

constexpr std::int64_t kTicksPerSecond = 10'000'000;
constexpr std::int64_t kSecondsFrom1601To1970 = 11'644'473'600;

std::uint64_t Monotonic(std::uint64_t unitsPerSecond) {
  timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * unitsPerSecond +
         static_cast<std::uint64_t>(now.tv_nsec) / (1'000'000'000 / unitsPerSecond);
}

std::int64_t Ticks(const FILETIME& time) {
  return static_cast<std::int64_t>((static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime);
}

FILETIME FromTicks(std::int64_t ticks) {
  return {static_cast<DWORD>(ticks), static_cast<DWORD>(static_cast<std::uint64_t>(ticks) >> 32)};
}

SYSTEMTIME FromTm(const tm& from, std::int64_t milliseconds) {
  SYSTEMTIME to;
  to.wYear = static_cast<WORD>(from.tm_year + 1900);
  to.wMonth = static_cast<WORD>(from.tm_mon + 1);
  to.wDayOfWeek = static_cast<WORD>(from.tm_wday);
  to.wDay = static_cast<WORD>(from.tm_mday);
  to.wHour = static_cast<WORD>(from.tm_hour);
  to.wMinute = static_cast<WORD>(from.tm_min);
  to.wSecond = static_cast<WORD>(from.tm_sec);
  to.wMilliseconds = static_cast<WORD>(milliseconds);
  return to;
}

SYSTEMTIME Now(tm* (*convert)(const time_t*, tm*)) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  tm parts{};
  convert(&now.tv_sec, &parts);
  return FromTm(parts, now.tv_nsec / 1'000'000);
}

}  // namespace

FILETIME FileTimeFromTimespec(const timespec& time) {
  return FromTicks((time.tv_sec + kSecondsFrom1601To1970) * kTicksPerSecond + time.tv_nsec / 100);
}

}  // namespace kestrun::platform

using namespace kestrun::platform;

DWORD GetTickCount() {
  return static_cast<DWORD>(Monotonic(1000));
}

ULONGLONG GetTickCount64() {
  return Monotonic(1000);
}

BOOL QueryPerformanceCounter(LARGE_INTEGER* count) {
  count->QuadPart = static_cast<LONGLONG>(Monotonic(1'000'000'000));
  return TRUE;
}

BOOL QueryPerformanceFrequency(LARGE_INTEGER* countsPerSecond) {
  countsPerSecond->QuadPart = 1'000'000'000;
  return TRUE;
}

void GetLocalTime(SYSTEMTIME* time) {
  *time = Now(localtime_r);
}

void GetSystemTime(SYSTEMTIME* time) {
  *time = Now(gmtime_r);
}

void GetSystemTimeAsFileTime(FILETIME* time) {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  *time = FileTimeFromTimespec(now);
}

BOOL SystemTimeToFileTime(const SYSTEMTIME* from, FILETIME* to) {
  tm parts{};
  parts.tm_year = from->wYear - 1900;
  parts.tm_mon = from->wMonth - 1;
  parts.tm_mday = from->wDay;
  parts.tm_hour = from->wHour;
  parts.tm_min = from->wMinute;
  parts.tm_sec = from->wSecond;
  tm normal = parts;
  const time_t seconds = timegm(&normal);
  // timegm carries a field beyond its range over into the next one, so a changed field means that the date does not
  // exist.
  const bool isDate = normal.tm_mday == parts.tm_mday && normal.tm_mon == parts.tm_mon &&
                      normal.tm_hour == parts.tm_hour && normal.tm_min == parts.tm_min &&
                      normal.tm_sec == parts.tm_sec && from->wYear >= 1601 && from->wMilliseconds < 1000;
  if (!isDate) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  *to = FileTimeFromTimespec({seconds, from->wMilliseconds * 1'000'000L});
  return TRUE;
}

BOOL FileTimeToSystemTime(const FILETIME* from, SYSTEMTIME* to) {
  const std::int64_t ticks = Ticks(*from);
  if (ticks < 0) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const time_t seconds = ticks / kTicksPerSecond - kSecondsFrom1601To1970;
  tm parts{};
  gmtime_r(&seconds, &parts);
  *to = FromTm(parts, ticks % kTicksPerSecond / 10'000);
  return TRUE;
}

BOOL FileTimeToLocalFileTime(const FILETIME* from, FILETIME* to) {
  const time_t seconds = Ticks(*from) / kTicksPerSecond - kSecondsFrom1601To1970;
  tm parts{};
  localtime_r(&seconds, &parts);
  // tm_gmtoff is the zone's offset at that very moment, with daylight saving time.
  *to = FromTicks(Ticks(*from) + parts.tm_gmtoff * kTicksPerSecond);
  return TRUE;
}

LONG CompareFileTime(const FILETIME* left, const FILETIME* right) {
  const std::int64_t difference = Ticks(*left) - Ticks(*right);
  return difference < 0 ? -1 : difference > 0 ? 1 : 0;
}
