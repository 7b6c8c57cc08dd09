#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libZel/container.h"

/// One entry of a directory.
struct ListingRow {
  std::string name;  ///< WTF-8
  bool isDirectory = false;
  bool isHidden = false;
  uint64_t sizeBytes = 0;
  uint32_t modifyTime = 0;  ///< seconds since 1970-01-01 00:00 UTC
  uint32_t mode = 0;        ///< of POSIX's sys/stat.h; 0: unknown
};

/// The rows of CoreUtilsGetDirList. Where the agent did not tell which ones are hidden, those are
/// whose name starts with a dot.
std::vector<ListingRow> ReadListingRows(const ZelContainer& listing);

/// "drwxr-xr-x"; with question marks for unknown permissions.
std::string FormatMode(uint32_t mode, bool isDirectory);

/// A line for each row: mode, size, local date and time, name. Names are escaped; those of
/// directories end in "/".
std::string FormatListing(const std::vector<ListingRow>& rows);
/// The names alone.
std::string FormatNames(const std::vector<ListingRow>& rows);
