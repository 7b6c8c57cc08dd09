#pragma once

#include <filesystem>
#include <string>
#include <string_view>

// What a path really names, for the privacy policy. One implementation for each platform.

/// A path with every link resolved, or why there is none.
struct CanonicalPath {
  std::string path;   ///< WTF-8 with "/" as separator and no separator at its end; "" is the root
  std::string error;  ///< empty when `path` is valid

  explicit operator bool() const { return error.empty(); }
};

/// Resolves every link of an absolute path in the form of `ToNativePath`, dangling ones included,
/// as far as the path exists; the rest is appended. On Windows 8.3 names become long ones, and
/// names of alternate streams are refused.
CanonicalPath Canonical(const std::filesystem::path& native);
/// The same, but the last name stands for itself when it is a link.
CanonicalPath CanonicalEntry(const std::filesystem::path& native);

/// The text as the system's file names are compared: upper case on Windows, as it is elsewhere.
std::string FoldCase(std::string_view wtf8);
