#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>

#include "agent/libZel/archive_limits.h"

// What the limits say of an archive. Who packs one asks the same as who unpacks it.

/// How many bytes may come out of an archive of `archiveBytes`.
uint64_t AllowedBytes(const ArchiveLimits& limits, uint64_t archiveBytes);

/// Judges the names of one archive's entries, in their order.
class ZipNameRules {
 public:
  ZipNameRules(const ArchiveLimits& limits, size_t expectedCount);

  /// Why an entry of that name must not come out, or null.
  const char* ReasonToRefuse(std::string_view name);

 private:
  const bool asOnWindows_;
  std::unordered_set<std::string> keys_;
};
