#include "agent/libZel/native_path.h"

#include <windows.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

#include "agent/libZel/ascii.h"
#include "agent/libZel/device_names.h"
#include "agent/libZel/platform_path.h"

namespace {

constexpr std::wstring_view kDrivePrefix = LR"(\\?\)";
constexpr std::wstring_view kSharePrefix = LR"(\\?\UNC\)";

NativePath Refused(std::string_view name, const char* reason) {
  return {{}, "the name \"" + std::string(name) + "\" " + reason};
}

std::wstring Wide(std::string_view text) {
  return ZelString(text).GetTCHAR();
}

// Why `name` cannot name a file, or null.
const char* ReasonToRefuse(std::string_view name) {
  const bool hasForbidden = std::any_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) < ' ' ||
           std::string_view("<>:\"|?*").find(c) != std::string_view::npos;
  });
  if (hasForbidden) return "holds a character that no file name can hold";
  if (name.ends_with('.') || name.ends_with(' ')) return "ends in a dot or blank";
  if (IsDeviceName(name)) return "is reserved for a device";
  return nullptr;
}

// "\\server\share" as "server\share", or why it is none. The shares "pipe" and "mailslot" are not
// files; the servers "." and "?" lead to devices.
NativePath ShareOf(std::string_view drive) {
  const std::string_view text = drive.substr(2);
  const size_t separator = text.find_first_of("\\/");
  const std::string_view server = text.substr(0, separator);
  const std::string_view share = text.substr(separator + 1);
  if (server == "." || server == "?") return Refused(drive, "leads to a device");
  if (EqualsIgnoringCase(share, "PIPE") || EqualsIgnoringCase(share, "MAILSLOT")) {
    return Refused(drive, "is not a share of files");
  }
  for (const std::string_view name : {server, share}) {
    if (const char* reason = ReasonToRefuse(name)) return Refused(drive, reason);
  }
  return {std::filesystem::path(Wide(server) + L'\\' + Wide(share)), {}};
}

}  // namespace

const char platform_path::kSeparator = '\\';
const bool platform_path::kSlashesNameShares = true;
const bool platform_path::kRootsHaveDrives = true;

ZelString platform_path::WorkingDirectory() {
  std::wstring text(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetCurrentDirectoryW(static_cast<DWORD>(text.size()), text.data());
    if (length == 0) {
      throw std::system_error(static_cast<int>(GetLastError()), std::system_category(),
                              "the working directory is not known");
    }
    const bool fits = length < text.size();
    text.resize(length);
    if (fits) return FromNativePath(text);
  }
}

NativePath platform_path::Assemble(const PathParts& parts) {
  std::wstring path;
  if (IsShare(parts.drive)) {
    const NativePath share = ShareOf(parts.drive);
    if (!share) return share;
    path = std::wstring(kSharePrefix) + share.path.native();
  } else {
    path = std::wstring(kDrivePrefix) + Wide(AsciiUpper(parts.drive));
  }
  for (const std::string_view name : parts.names) {
    if (const char* reason = ReasonToRefuse(name)) return Refused(name, reason);
    path += L'\\';
    path += Wide(name);
  }
  if (parts.names.empty()) path += L'\\';
  return {std::filesystem::path(std::move(path)), {}};
}

ZelString FromNativePath(const std::filesystem::path& path) {
  std::wstring_view text = path.native();
  if (text.starts_with(kSharePrefix)) {
    text.remove_prefix(kSharePrefix.size());
    return ZelString(LR"(\\)") + ZelString(text);
  }
  if (text.starts_with(kDrivePrefix)) text.remove_prefix(kDrivePrefix.size());
  return ZelString(text);
}

void SetDriveMap(const std::map<char, std::string>& /*drives*/) {}
