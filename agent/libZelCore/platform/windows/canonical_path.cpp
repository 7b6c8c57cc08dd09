#include "agent/libZelCore/canonical_path.h"

#include <windows.h>

#include <algorithm>
#include <vector>

#include "agent/libZel/native_path.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/system_error_text.h"

namespace {

namespace fs = std::filesystem;

CanonicalPath Failed(const fs::path& path, const std::string& reason) {
  return {{}, std::string(FromNativePath(path).Utf8()) + ": " + reason};
}

bool IsMissing(DWORD error) {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ||
         error == ERROR_BAD_NETPATH || error == ERROR_BAD_NET_NAME || error == ERROR_NOT_READY ||
         error == ERROR_DIRECTORY;
}

// The path that the system itself gives an existing file: links resolved, long names, true case.
DWORD FinalPath(const fs::path& path, bool followsLast, fs::path* result) {
  const DWORD flags = FILE_FLAG_BACKUP_SEMANTICS | (followsLast ? 0 : FILE_FLAG_OPEN_REPARSE_POINT);
  const UniqueHandle handle(CreateFileW(path.c_str(), 0,
                                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                        nullptr, OPEN_EXISTING, flags, nullptr));
  if (!handle) return GetLastError();
  std::vector<wchar_t> text(512);
  DWORD length = 0;
  DWORD error = ERROR_SUCCESS;
  for (;;) {
    length = GetFinalPathNameByHandleW(handle.Get(), text.data(), static_cast<DWORD>(text.size()),
                                       FILE_NAME_NORMALIZED | VOLUME_NAME_DOS);
    if (length == 0) error = GetLastError();
    if (length < text.size()) break;
    text.resize(length + 1);
  }
  if (error == ERROR_SUCCESS) *result = fs::path(text.data(), text.data() + length);
  return error;
}

// "file.txt:stream" names the same file as "file.txt".
bool NamesStream(const fs::path& path) {
  return path.relative_path().native().find(L':') != std::wstring::npos;
}

std::string Normalised(const fs::path& path) {
  std::string text(FromNativePath(path).Utf8());
  std::replace(text.begin(), text.end(), '\\', '/');
  while (!text.empty() && text.back() == '/') text.pop_back();
  return text;
}

// A path in the form "\\?\C:\..." as one with an ordinary root, which std::filesystem takes apart.
fs::path Ordinary(const fs::path& native) {
  const std::wstring& text = native.native();
  if (text.starts_with(L"\\\\?\\UNC\\")) return L"\\\\" + text.substr(8);
  if (text.starts_with(L"\\\\?\\")) return text.substr(4);
  return native;
}

fs::path Extended(const fs::path& path) {
  const std::wstring& text = path.native();
  if (text.starts_with(L"\\\\")) return L"\\\\?\\UNC\\" + text.substr(2);
  return L"\\\\?\\" + text;
}

CanonicalPath Resolve(const fs::path& native, bool followsLast) {
  fs::path path = Ordinary(native);
  if (NamesStream(path)) return Failed(path, "names of alternate streams are refused");
  if (!path.has_filename()) path = path.parent_path();

  std::vector<fs::path> missing;
  for (;;) {
    const bool isRoot = !path.has_relative_path();
    const bool follows = followsLast || !missing.empty();
    const fs::path asked = isRoot ? path.root_path() : path;
    fs::path found;
    const DWORD error = FinalPath(Extended(asked), follows, &found);
    if (error == ERROR_SUCCESS) {
      fs::path result = Ordinary(found);
      for (auto name = missing.rbegin(); name != missing.rend(); ++name) result /= *name;
      return {Normalised(result), {}};
    }
    if (!IsMissing(error)) return Failed(path, SystemErrorText(error));
    // Attributes are those of a link itself: it is there and leads nowhere.
    const bool isDangling = GetFileAttributesW(Extended(asked).c_str()) != INVALID_FILE_ATTRIBUTES;
    if (isDangling && !isRoot) return Failed(path, "a link whose target is missing");
    if (isRoot) return {Normalised(Ordinary(native)), {}};
    missing.push_back(path.filename());
    path = path.parent_path();
  }
}

}  // namespace

CanonicalPath Canonical(const fs::path& native) {
  return Resolve(native, true);
}

CanonicalPath CanonicalEntry(const fs::path& native) {
  return Resolve(native, false);
}

std::string FoldCase(std::string_view wtf8) {
  const ZelString text(wtf8);
  std::wstring wide = text.GetTCHAR();
  CharUpperBuffW(wide.data(), static_cast<DWORD>(wide.size()));
  return std::string(ZelString(wide.c_str()).Utf8());
}
