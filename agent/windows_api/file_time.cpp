#include <chrono>

#include "windows_api.h"

namespace {

namespace chrono = std::chrono;

constexpr int kFirstYear = 1601;
constexpr int kLastYear = 30827;
constexpr auto kEpoch = chrono::sys_days(chrono::year(kFirstYear) / chrono::January / 1);
using Step = chrono::duration<uint64_t, std::ratio<1, 10'000'000>>;

// A minute has no second 60: neither clock knows leap seconds.
bool IsTimeOfDay(const SYSTEMTIME& time) {
  return time.wHour < 24 && time.wMinute < 60 && time.wSecond < 60 && time.wMilliseconds < 1000;
}

}  // namespace

BOOL SystemTimeToFileTime(const SYSTEMTIME* systemTime, FILETIME* fileTime) {
  if (systemTime == nullptr || fileTime == nullptr) return 0;
  const SYSTEMTIME& time = *systemTime;
  // Compared as they are: a `chrono::year` of more than 32767 would be another one.
  if (time.wYear < kFirstYear || time.wYear > kLastYear) return 0;
  if (time.wMonth > 12 || time.wDay > 31) return 0;
  const chrono::year_month_day date(chrono::year(time.wYear), chrono::month(time.wMonth),
                                    chrono::day(time.wDay));
  if (!date.ok() || !IsTimeOfDay(time)) return 0;

  const chrono::milliseconds sinceEpoch =
      chrono::sys_days(date) - kEpoch + chrono::hours(time.wHour) + chrono::minutes(time.wMinute) +
      chrono::seconds(time.wSecond) + chrono::milliseconds(time.wMilliseconds);
  const uint64_t steps = chrono::duration_cast<Step>(sinceEpoch).count();
  fileTime->dwLowDateTime = static_cast<DWORD>(steps);
  fileTime->dwHighDateTime = static_cast<DWORD>(steps >> 32);
  return 1;
}
