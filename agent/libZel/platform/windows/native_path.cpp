#include "agent/libZel/native_path.h"

#include <windows.h>

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

#include "agent/libZel/platform_path.h"

namespace {

constexpr std::wstring_view kDrivePrefix = LR"(\\?\)";
constexpr std::wstring_view kSharePrefix = LR"(\\?\UNC\)";
// Superscript one, two and three count as digits of a device's name.
constexpr std::wstring_view kPortDigits = L"123456789\u00B9\u00B2\u00B3";

NativePath Refused(std::string_view name, const char* reason) {
  return {{}, "the name \"" + std::string(name) + "\" " + reason};
}

std::wstring Upper(std::wstring_view text) {
  std::wstring upper(text);
  for (wchar_t& c : upper) {
    if (c >= L'a' && c <= L'z') c = static_cast<wchar_t>(c - L'a' + L'A');
  }
  return upper;
}

// A device stays one with any extension, and with blanks before that.
bool IsDeviceName(std::wstring_view name) {
  std::wstring stem = Upper(name.substr(0, name.find(L'.')));
  while (stem.ends_with(L' ')) stem.pop_back();
  for (const std::wstring_view device : {L"CON", L"PRN", L"AUX", L"NUL", L"CONIN$", L"CONOUT$"}) {
    if (stem == device) return true;
  }
  return stem.size() == 4 && (stem.starts_with(L"COM") || stem.starts_with(L"LPT")) &&
         kPortDigits.find(stem[3]) != kPortDigits.npos;
}

// Why `name` cannot name a file, or null.
const char* ReasonToRefuse(std::wstring_view name) {
  const bool hasForbidden = std::any_of(name.begin(), name.end(), [](wchar_t c) {
    return c < L' ' || std::wstring_view(L"<>:\"|?*").find(c) != std::wstring_view::npos;
  });
  if (hasForbidden) return "holds a character that no file name can hold";
  if (name.ends_with(L'.') || name.ends_with(L' ')) return "ends in a dot or blank";
  if (IsDeviceName(name)) return "is reserved for a device";
  return nullptr;
}

// "\\server\share" as "server\share", or why it is none. The shares "pipe" and "mailslot" are not
// files; the servers "." and "?" lead to devices.
NativePath ShareOf(std::string_view drive) {
  const std::wstring text = ZelString(drive.substr(2)).GetTCHAR();
  const size_t separator = text.find_first_of(L"\\/");
  const std::wstring server = text.substr(0, separator);
  const std::wstring share = text.substr(separator + 1);
  if (server == L"." || server == L"?") return Refused(drive, "leads to a device");
  if (Upper(share) == L"PIPE" || Upper(share) == L"MAILSLOT") {
    return Refused(drive, "is not a share of files");
  }
  for (const std::wstring& name : {server, share}) {
    if (const char* reason = ReasonToRefuse(name)) return Refused(drive, reason);
  }
  return {std::filesystem::path(server + L'\\' + share), {}};
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
    path = std::wstring(kDrivePrefix) + Upper(ZelString(parts.drive).GetTCHAR());
  }
  for (const std::string_view name : parts.names) {
    const ZelString text(name);
    if (const char* reason = ReasonToRefuse(text.GetTCHAR())) return Refused(name, reason);
    path += L'\\';
    path += text.GetTCHAR();
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
