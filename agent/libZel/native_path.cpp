#include "agent/libZel/native_path.h"

#include "agent/libZel/path_parts.h"
#include "agent/libZel/platform_path.h"
#include "libZel/path.h"
#include "libZel/url.h"

namespace {

// "\\server" alone: the text says share, but there is none.
bool IsUnfinishedShare(std::string_view path) {
  if (path.size() < 2 || !IsPathSeparator(path[0]) || !IsPathSeparator(path[1])) return false;
  if (path.starts_with("//") && !platform_path::kSlashesNameShares) return false;
  return DriveLength(path) == 0;
}

}  // namespace

NativePath ToNativePath(const ZelString& path) {
  if (path.IsEmpty()) return RefusedPath("the path is empty");
  if (path.Utf8().find('\0') != std::string_view::npos) {
    return RefusedPath("the path holds a NUL character");
  }
  if (UrlParseInet::CanHandleUrl(path)) return RefusedPath("the path is a URL");
  if (IsUnfinishedShare(path.Utf8())) return RefusedPath("the path names a server without a share");

  const ZelString full = CompletePath(path);
  const PathParts parts = ParsePath(full.Utf8());
  if (!parts.isAbsolute) return RefusedPath("the working directory is not known");
  return platform_path::Assemble(parts);
}
