#pragma once

#include <cstdint>

#include "libZel/string.h"

/// The version of Windows; elsewhere the one whose calls the agent offers, 10.0. Throws nothing.
class OSVersion {
 public:
  // NOLINTBEGIN(readability-identifier-naming): the library's own names
  /// What `GetMajorVersion` answers on Windows NT 4.
  static constexpr uint32_t MAJOR_MICROSOFT_WINDOWS_NT = 4;
  /// What `GetFullVersion` answers on Windows XP before its service packs.
  static constexpr const char* FULL_VERSION_WINDOWS_XP = "005.001.02600";
  // NOLINTEND(readability-identifier-naming)

  static uint32_t GetMajorVersion();
  /// Major and minor version and build, "010.000.19045": the texts compare like the versions.
  static ZelString GetFullVersion();
};
