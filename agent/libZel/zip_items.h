#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/libZel/outcome.h"

/// What goes into an archive: a file or a directory.
struct ZipItem {
  std::filesystem::path path;
  /// A directory's ends in "/".
  std::string name;
  uint64_t sizeBytes = 0;
  int64_t modifiedSeconds = 0;
  uint32_t mode = 0;

  bool IsDirectory() const { return name.ends_with('/'); }
};

/// Collects the files and directories below a directory, in the order of their names: a directory
/// comes before what is in it. Links and special files are left out with a warning, and so is
/// `archive`, silently.
Outcome ListZipItems(const std::filesystem::path& directory, const std::filesystem::path& archive,
                     std::vector<ZipItem>* items);

/// Writes one warning when an archive of these items would not be unpacked whole by the limits in
/// force.
void WarnOfZipItems(const std::vector<ZipItem>& items, const std::filesystem::path& archive,
                    uint64_t archiveBytes);
