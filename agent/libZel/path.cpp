#include "libZel/path.h"

#include <algorithm>
#include <string>

#include "agent/libZel/boundary.h"
#include "agent/libZel/path_parts.h"
#include "agent/libZel/platform_path.h"
#include "libZel/url.h"

namespace {

// Shares keep "\\" on every platform: where "//" is the root, it would mean something else.
std::string DriveText(std::string_view drive) {
  std::string text(drive);
  if (!IsShare(drive)) return text;
  for (char& c : text) {
    if (IsPathSeparator(c)) c = '\\';
  }
  return text;
}

bool IsSameDrive(std::string_view a, std::string_view b) {
  constexpr auto kUpper = [](char c) { return c >= 'a' && c <= 'z' ? c - 'a' + 'A' : c; };
  return a.size() == 2 && b.size() == 2 && kUpper(a[0]) == kUpper(b[0]);
}

std::string Join(const PathParts& parts) {
  std::string text = DriveText(parts.drive);
  for (const std::string_view name : parts.names) {
    text += platform_path::kSeparator;
    text += name;
  }
  if (parts.names.empty() || parts.endsInSeparator) text += platform_path::kSeparator;
  return text;
}

ZelString Complete(const ZelString& path) {
  std::string_view text = path.Utf8();
  if (!platform_path::kSlashesNameShares && text.starts_with("//")) {
    text.remove_prefix(std::min(text.find_first_not_of('/'), text.size()) - 1);
  }
  PathParts parts = ParsePath(text);
  const bool isFull = !parts.drive.empty() || !platform_path::kRootsHaveDrives;
  if (parts.isAbsolute && isFull) return ZelString(Join(parts));

  const ZelString workingDirectory = platform_path::WorkingDirectory();
  const PathParts base = ParsePath(workingDirectory.Utf8());
  if (parts.isAbsolute) {
    parts.drive = base.drive;
    return ZelString(Join(parts));
  }
  // "D:name" starts at D's root unless D is where the process works.
  const bool startsAtBase = parts.drive.empty() || IsSameDrive(parts.drive, base.drive);
  std::string full = startsAtBase ? Join(base) : std::string(parts.drive);
  if (!full.ends_with(platform_path::kSeparator)) full += platform_path::kSeparator;
  full += text.substr(parts.drive.size());
  return ZelString(Join(ParsePath(full)));
}

}  // namespace

ZelString CompletePath(const ZelString& path) {
  if (path.IsEmpty() || UrlParseInet::CanHandleUrl(path)) return path;
  return Guarded("CompletePath", path, [&] { return Complete(path); });
}
