#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

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
    EXPECT_EQ(std::memcmp(&back, &c.date, sizeof back), 0) << c.date.wYear;
  }
}

TEST(TimeTest, ATimeBeyondAllDatesIsRefused) {
  const FILETIME tooFar{0, 0x80000000};
  SYSTEMTIME date;
  EXPECT_FALSE(FileTimeToSystemTime(&tooFar, &date));
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
