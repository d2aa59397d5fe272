#include <gtest/gtest.h>

#include <cstdint>

#include "platform/win32.h"

namespace kestrun::test {
namespace {

std::uint64_t Ticks(const FILETIME& time) {
  return (static_cast<std::uint64_t>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

TEST(TimeTest, DatesAndFileTimesConvertBothWays) {
  const struct {
    SYSTEMTIME date;
    std::uint64_t ticks;
  } kCases[] = {{{1601, 1, 1, 1, 0, 0, 0, 0}, 0},
                {{1970, 1, 4, 1, 0, 0, 0, 0}, 116444736000000000},
                {{2000, 2, 2, 29, 23, 59, 59, 999}, 125963423999990000},
                {{2026, 3, 1, 9, 14, 5, 33, 27}, 134175387330270000}};
  for (const auto& c : kCases) {
    FILETIME time;
    ASSERT_TRUE(SystemTimeToFileTime(&c.date, &time)) << c.date.wYear;
    EXPECT_EQ(Ticks(time), c.ticks) << c.date.wYear;
    SYSTEMTIME back;
    ASSERT_TRUE(FileTimeToSystemTime(&time, &back));
    EXPECT_EQ(back.wYear, c.date.wYear);
    EXPECT_EQ(back.wMonth, c.date.wMonth);
    EXPECT_EQ(back.wDay, c.date.wDay);
    EXPECT_EQ(back.wDayOfWeek, c.date.wDayOfWeek);
    EXPECT_EQ(back.wHour, c.date.wHour);
    EXPECT_EQ(back.wMinute, c.date.wMinute);
    EXPECT_EQ(back.wSecond, c.date.wSecond);
    EXPECT_EQ(back.wMilliseconds, c.date.wMilliseconds);
  }
}

TEST(TimeTest, WhatIsNoDateIsRefused) {
  const SYSTEMTIME kNoDates[] = {{2026, 2, 0, 30, 0, 0, 0, 0},   {2026, 13, 0, 1, 0, 0, 0, 0},
                                 {2026, 1, 0, 0, 0, 0, 0, 0},    {2026, 1, 0, 1, 24, 0, 0, 0},
                                 {2026, 1, 0, 1, 0, 0, 0, 1000}, {1600, 1, 0, 1, 0, 0, 0, 0}};
  for (const SYSTEMTIME& date : kNoDates) {
    FILETIME time;
    EXPECT_FALSE(SystemTimeToFileTime(&date, &time)) << date.wYear << " " << date.wMonth << " " << date.wDay;
    EXPECT_EQ(GetLastError(), ERROR_INVALID_PARAMETER);
  }
  const FILETIME tooFar{0, 0x80000000};
  SYSTEMTIME date;
  EXPECT_FALSE(FileTimeToSystemTime(&tooFar, &date));
}

TEST(TimeTest, ClocksAgreeOnAPause) {
  LARGE_INTEGER frequency, start, end;
  ASSERT_TRUE(QueryPerformanceFrequency(&frequency));
  const DWORD startTick = GetTickCount();
  QueryPerformanceCounter(&start);
  Sleep(60);
  QueryPerformanceCounter(&end);
  const DWORD ticks = GetTickCount() - startTick;
  const double counted =
      static_cast<double>(end.QuadPart - start.QuadPart) * 1000 / static_cast<double>(frequency.QuadPart);
  // The tick count of some systems moves in steps of 16 ms.
  EXPECT_GE(counted, 59.0);
  EXPECT_GE(ticks, 44u);
  EXPECT_LE(counted, ticks + 32.0);
}

TEST(TimeTest, LocalTimeIsTheSystemTimeInTheLocalZone) {
  FILETIME before, after, localBefore, localAfter, now;
  SYSTEMTIME local;
  GetSystemTimeAsFileTime(&before);
  GetLocalTime(&local);
  GetSystemTimeAsFileTime(&after);
  ASSERT_TRUE(FileTimeToLocalFileTime(&before, &localBefore));
  ASSERT_TRUE(FileTimeToLocalFileTime(&after, &localAfter));
  ASSERT_TRUE(SystemTimeToFileTime(&local, &now));
  constexpr std::uint64_t kMillisecond = 10'000;
  EXPECT_GE(Ticks(now) + kMillisecond, Ticks(localBefore));
  EXPECT_LE(Ticks(now), Ticks(localAfter));
}

}  // namespace
}  // namespace kestrun::test
