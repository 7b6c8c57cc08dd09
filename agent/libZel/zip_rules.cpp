#include "agent/libZel/zip_rules.h"

#include <algorithm>

#include "agent/libZel/output_tree.h"
#include "agent/libZel/zip_names.h"

uint64_t AllowedBytes(const ArchiveLimits& limits, uint64_t archiveBytes) {
  const uint64_t byRatio = limits.maxRatio > UINT64_MAX / std::max<uint64_t>(archiveBytes, 1)
                               ? UINT64_MAX
                               : archiveBytes * limits.maxRatio;
  return std::min(limits.maxBytes, std::max(byRatio, ArchiveLimits::kRatioFloorBytes));
}

ZipNameRules::ZipNameRules(const ArchiveLimits& limits, size_t expectedCount)
    : asOnWindows_(limits.windowsNames || file_system::OutputTree::kStoresWindowsNamesOnly) {
  keys_.reserve(expectedCount);
}

const char* ZipNameRules::ReasonToRefuse(std::string_view name) {
  const char* const reason = zip_names::ReasonToRefuse(name, asOnWindows_);
  const bool isNew = keys_.insert(zip_names::Key(name, !asOnWindows_)).second;
  if (reason == nullptr && !isNew) return "an earlier entry has the same name";
  return reason;
}
