#include "agent/libZel/path_parts.h"

#include <algorithm>

#include "agent/libZel/ascii.h"
#include "libZel/path.h"

namespace {

constexpr std::string_view kSeparators = "\\/";

// Two separators, a server, one separator, a share.
size_t ShareLength(std::string_view path) {
  if (path.size() < 2 || !IsPathSeparator(path[0]) || !IsPathSeparator(path[1])) return 0;
  const size_t serverEnd = path.find_first_of(kSeparators, 2);
  if (serverEnd == path.npos || serverEnd == 2) return 0;
  const size_t shareEnd = std::min(path.find_first_of(kSeparators, serverEnd + 1), path.size());
  return shareEnd == serverEnd + 1 ? 0 : shareEnd;
}

void AddName(PathParts* parts, std::string_view name) {
  if (name.empty() || name == ".") return;
  if (name != "..") {
    parts->names.push_back(name);
    return;
  }
  if (!parts->names.empty() && parts->names.back() != "..") {
    parts->names.pop_back();
    return;
  }
  if (!parts->isAbsolute) parts->names.push_back(name);
}

void Store(ZelString* output, std::string_view text) {
  if (output != nullptr) output->Assign(text.data(), text.size(), kEncodingUtf8);
}

}  // namespace

bool IsShare(std::string_view drive) {
  return drive.size() > 2;
}

size_t DriveLength(std::string_view path) {
  if (path.size() >= 2 && path[1] == ':' && IsAsciiLetter(path[0])) return 2;
  return ShareLength(path);
}

PathParts ParsePath(std::string_view path) {
  PathParts parts;
  parts.drive = path.substr(0, DriveLength(path));
  const std::string_view rest = path.substr(parts.drive.size());
  parts.isAbsolute = IsShare(parts.drive) || (!rest.empty() && IsPathSeparator(rest[0]));
  parts.endsInSeparator = !rest.empty() && IsPathSeparator(rest.back());
  size_t from = 0;
  while (from < rest.size()) {
    const size_t end = std::min(rest.find_first_of(kSeparators, from), rest.size());
    AddName(&parts, rest.substr(from, end - from));
    from = end + 1;
  }
  return parts;
}

void SplitPath(const ZelString& path, ZelString* drive, ZelString* directory, ZelString* name,
               ZelString* extension) {
  const std::string_view text = path.Utf8();
  const std::string_view rest = text.substr(DriveLength(text));
  const size_t lastSeparator = rest.find_last_of(kSeparators);
  const size_t directorySize = lastSeparator == rest.npos ? 0 : lastSeparator + 1;
  const std::string_view last = rest.substr(directorySize);
  size_t dot = last.rfind('.');
  if (dot == last.npos || dot == 0 || last == "..") dot = last.size();

  Store(drive, text.substr(0, text.size() - rest.size()));
  Store(directory, rest.substr(0, directorySize));
  Store(name, last.substr(0, dot));
  Store(extension, last.substr(dot));
}
