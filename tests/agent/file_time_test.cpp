#include <gtest/gtest.h>

#include <cstdint>
#include <optional>

#include "windows_api.h"

namespace {

// Steps of 100 nanoseconds; nothing when the call refuses.
std::optional<uint64_t> Steps(const SYSTEMTIME& time) {
  FILETIME fileTime{1, 2};
  if (SystemTimeToFileTime(&time, &fileTime) == 0) {
    EXPECT_EQ(fileTime.dwLowDateTime, 1u);
    EXPECT_EQ(fileTime.dwHighDateTime, 2u);
    return std::nullopt;
  }
  return uint64_t{fileTime.dwHighDateTime} << 32 | fileTime.dwLowDateTime;
}

std::optional<uint64_t> StepsOfDay(WORD year, WORD month, WORD day) {
  return Steps({year, month, 0, day, 0, 0, 0, 0});
}

TEST(SystemTimeToFileTime, CountsFrom1601) {
  EXPECT_EQ(StepsOfDay(1601, 1, 1), 0u);
  EXPECT_EQ(Steps({1601, 1, 0, 1, 0, 0, 0, 1}), 10'000u);
  EXPECT_EQ(StepsOfDay(1601, 1, 2), 864'000'000'000u);
  EXPECT_EQ(StepsOfDay(1970, 1, 1), 116'444'736'000'000'000u);
  EXPECT_EQ(Steps({2024, 2, 0, 29, 12, 34, 56, 789}), 133'536'836'967'890'000u);
}

TEST(SystemTimeToFileTime, ReachesTheLastYear) {
  EXPECT_EQ(Steps({30827, 12, 0, 31, 23, 59, 59, 999}), 9'223'149'887'999'990'000u);
  EXPECT_FALSE(StepsOfDay(30828, 1, 1));
  EXPECT_FALSE(StepsOfDay(1600, 12, 31));
  EXPECT_FALSE(StepsOfDay(0, 1, 1));
  EXPECT_FALSE(StepsOfDay(65535, 1, 1));
}

TEST(SystemTimeToFileTime, RefusesWhatTheCalendarDoesNotHave) {
  EXPECT_TRUE(StepsOfDay(2000, 2, 29));
  EXPECT_FALSE(StepsOfDay(1900, 2, 29));
  EXPECT_FALSE(StepsOfDay(2023, 2, 29));
  EXPECT_FALSE(StepsOfDay(2023, 4, 31));
  EXPECT_FALSE(StepsOfDay(2023, 0, 1));
  EXPECT_FALSE(StepsOfDay(2023, 13, 1));
  EXPECT_FALSE(StepsOfDay(2023, 1, 0));
  // Numbers that would be others in fewer bits.
  EXPECT_FALSE(StepsOfDay(2023, 256 + 1, 1));
  EXPECT_FALSE(StepsOfDay(2023, 1, 256 + 1));
}

TEST(SystemTimeToFileTime, RefusesWhatTheClockDoesNotHave) {
  EXPECT_TRUE(Steps({2023, 1, 0, 1, 23, 59, 59, 999}));
  EXPECT_FALSE(Steps({2023, 1, 0, 1, 24, 0, 0, 0}));
  EXPECT_FALSE(Steps({2023, 1, 0, 1, 0, 60, 0, 0}));
  EXPECT_FALSE(Steps({2023, 1, 0, 1, 0, 0, 60, 0}));
  EXPECT_FALSE(Steps({2023, 1, 0, 1, 0, 0, 0, 1000}));
}

TEST(SystemTimeToFileTime, DoesNotLookAtTheDayOfTheWeek) {
  EXPECT_EQ(Steps({2024, 1, 99, 1, 0, 0, 0, 0}), StepsOfDay(2024, 1, 1));
}

TEST(SystemTimeToFileTime, RefusesNull) {
  SYSTEMTIME time{2024, 1, 0, 1, 0, 0, 0, 0};
  FILETIME fileTime{};
  EXPECT_EQ(SystemTimeToFileTime(nullptr, &fileTime), 0);
  EXPECT_EQ(SystemTimeToFileTime(&time, nullptr), 0);
}

}  // namespace
