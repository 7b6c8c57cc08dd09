#include "actions/relay/backup_rank.h"

#include <cstddef>

#include "windows_api.h"

namespace {

constexpr const char* kDatePattern = "%S_[2-9][0-9]{3,3}[0-1][0-9][0-3][0-9]";
constexpr size_t kDateLength = 8;
constexpr size_t kExtensionLength = 4;
constexpr uint64_t kFileTimeStepsPerSecond = 10'000'000;

/// In steps of 100 nanoseconds; none for a date that the calendar does not have.
std::optional<uint64_t> FileTimeOf(uint32_t year, uint32_t month, uint32_t day) {
  SYSTEMTIME date = {};
  date.wYear = static_cast<WORD>(year);
  date.wMonth = static_cast<WORD>(month);
  date.wDay = static_cast<WORD>(day);
  FILETIME time = {};
  if (!SystemTimeToFileTime(&date, &time)) return {};
  return uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime;
}

/// The date at the end of a backup's name, or in front of its extension.
ZelString DateDigits(const ZelString& entryName) {
  const size_t behind = entryName.EndsWith(".zip", false) ? kExtensionLength : 0;
  const size_t length = entryName.GetLength();
  const size_t tail = kDateLength + behind;
  return entryName.GetSubstring(length > tail ? length - tail : 0, kDateLength);
}

}  // namespace

std::optional<uint32_t> RankOfBackup(const ZelString& entryName, const ZelString& name) {
  ZelString pattern;
  pattern.Printf(kDatePattern, name);
  if (!MatchRegex(entryName, pattern, 0)) return {};

  const ZelString digits = DateDigits(entryName);
  const std::optional<uint64_t> date =
      FileTimeOf(digits.GetSubstring(0, 4).ToUL(0), digits.GetSubstring(4, 2).ToUL(0),
                 digits.GetSubstring(6, 2).ToUL(0));
  const std::optional<uint64_t> epoch = FileTimeOf(1970, 1, 1);
  if (!date || !epoch) return {};
  return static_cast<uint32_t>((*date - *epoch) / kFileTimeStepsPerSecond);
}
