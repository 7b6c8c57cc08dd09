#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "libZel/string.h"

/// A path as this platform's calls take it, or the reason why there is none.
struct NativePath {
  std::filesystem::path path;
  /// Empty when `path` is valid; else a sentence for the log: "the path is empty", ...
  std::string error;

  explicit operator bool() const { return error.empty(); }
};

inline NativePath RefusedPath(const std::string& reason) {
  return {{}, reason};
}

/// Turns a path of the protocol (either separator, drive letters on every platform) into a full
/// native one; ".." is resolved in the text. On Windows the result has the form "\\?\...", and
/// names that end in a dot or blank or that the system reserves for devices are refused. Elsewhere
/// drive letters are looked up in the drive map, lone surrogates U+DC80..U+DCFF become the bytes
/// they stand for (others are refused), "//x" means "/x", and a share ("\\server\share") is
/// refused. A closing separator is dropped. URLs, empty paths and NUL characters are refused.
NativePath ToNativePath(const ZelString& path);

/// The other way: WTF-8, without the "\\?\" form. Never fails.
ZelString FromNativePath(const std::filesystem::path& path);

/// Off Windows: which directory each drive letter stands for, e.g. {'C', "/"}. Letters are upper
/// case. Set once at start, before other threads convert paths. Default: C is "/". On Windows the
/// system's drives rule and this does nothing.
void SetDriveMap(const std::map<char, std::string>& drives);
