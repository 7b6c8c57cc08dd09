#include "agent/service/installation_access.h"

#include <windows.h>

#include <aclapi.h>

#include <vector>

#include "agent/libZel/native_path.h"
#include "agent/libZel/platform/windows/local_memory.h"
#include "agent/libZel/platform/windows/process_account.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/system_error_text.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/service/platform/windows/access_rule.h"

namespace {

namespace fs = std::filesystem;

std::string Utf8(const fs::path& path) {
  return std::string(FromNativePath(path).Utf8());
}

// A link is judged itself, not where it leads.
UniqueHandle OpenForLook(const fs::path& entry, DWORD* error) {
  UniqueHandle handle(
      CreateFileW(entry.c_str(), READ_CONTROL | FILE_READ_ATTRIBUTES,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr, OPEN_EXISTING,
                  FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  *error = handle ? DWORD{ERROR_SUCCESS} : GetLastError();
  return handle;
}

bool IsLink(HANDLE entry) {
  FILE_ATTRIBUTE_TAG_INFO info{};
  if (!GetFileInformationByHandleEx(entry, FileAttributeTagInfo, &info, sizeof info)) return false;
  return (info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 &&
         IsReparseTagNameSurrogate(info.ReparseTag);
}

std::string EntryWeakness(HANDLE handle, const fs::path& entry, AccessUse use) {
  if (IsLink(handle)) return Utf8(entry) + " is a link; name the directory that it leads to";
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  const DWORD error = GetSecurityInfo(handle, SE_FILE_OBJECT,
                                      OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
                                      nullptr, nullptr, nullptr, nullptr, &descriptor);
  if (error != ERROR_SUCCESS)
    return Utf8(entry) + " does not tell who may change it: " + SystemErrorText(error);
  const LocalMemory<> owner(descriptor);
  const ProcessAccount own;
  const std::string weakness = AccessWeakness(descriptor, use, own.Sid());
  return weakness.empty() ? std::string() : Utf8(entry) + " " + weakness;
}

/// Whether a person at the machine started this process. Services, scheduled tasks and log-ins over
/// the network have window stations of their own.
bool IsOnDesktop() {
  wchar_t name[64] = {};
  DWORD size = 0;
  return GetUserObjectInformationW(GetProcessWindowStation(), UOI_NAME, name, sizeof name, &size) &&
         CompareStringOrdinal(name, -1, L"WinSta0", -1, TRUE) == CSTR_EQUAL;
}

bool IsMissing(DWORD error) {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

/// The path itself, then what is above it, up to the root.
std::vector<fs::path> Upwards(fs::path path) {
  std::vector<fs::path> entries;
  for (; path.has_relative_path(); path = path.parent_path()) {
    // A separator at the end is no name.
    if (path.has_filename()) entries.push_back(path);
  }
  entries.push_back(path);
  return entries;
}

}  // namespace

// An agent that an administrator starts on his desktop is a trial of his own, often below
// directories that are his alone.
bool HasAdministratorsRights() {
  return !IsOnDesktop() && core_platform::IsAdministrator();
}

std::string FindWeakness(const fs::path& path, PathUse use) {
  AccessUse here = use == PathUse::kSecret ? AccessUse::kSecret : AccessUse::kTrusted;
  for (const fs::path& entry : Upwards(fs::absolute(path).lexically_normal())) {
    DWORD error = ERROR_SUCCESS;
    const UniqueHandle handle = OpenForLook(entry, &error);
    if (!handle && IsMissing(error)) {
      // What others may add to could be made by them.
      here = AccessUse::kTrusted;
      continue;
    }
    if (!handle) return Utf8(entry) + " cannot be looked at: " + SystemErrorText(error);
    std::string weakness = EntryWeakness(handle.Get(), entry, here);
    if (!weakness.empty()) return weakness;
    here = AccessUse::kParent;
  }
  return {};
}
