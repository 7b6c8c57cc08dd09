#pragma once

#include <cstddef>
#include <string_view>
#include <vector>

/// A path taken apart; the texts lie in the path that was parsed.
struct PathParts {
  /// "C:", a share's "\\server\share" (with the separators of the path), or empty.
  std::string_view drive;
  /// Whether the path starts at a root. A share always does.
  bool isAbsolute = false;
  /// The names in order, without "." and with ".." resolved: it takes the name before it away and
  /// stops at the root. A relative path keeps those ".." at its start that have nothing to take.
  std::vector<std::string_view> names;
  bool endsInSeparator = false;
};

constexpr bool IsPathSeparator(char c) {
  return c == '\\' || c == '/';
}

bool IsShare(std::string_view drive);

/// The number of bytes that the drive takes at the start of `path`, 0 without one.
size_t DriveLength(std::string_view path);

PathParts ParsePath(std::string_view path);
