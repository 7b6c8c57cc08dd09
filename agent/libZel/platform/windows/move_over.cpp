#include "agent/libZel/platform/windows/move_over.h"

#include <windows.h>

#include <cstdio>
#include <random>

#include "agent/libZel/platform/windows/file_access.h"

namespace file_system {
namespace {

int MoveWith(const std::filesystem::path& source, const std::filesystem::path& destination,
             DWORD flags) {
  return ErrorOf(MoveFileExW(source.c_str(), destination.c_str(), flags));
}

bool MayBeOpen(const std::filesystem::path& path, int error) {
  if (error != ERROR_ACCESS_DENIED && error != ERROR_SHARING_VIOLATION) return false;
  constexpr DWORD kOtherReasons = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY;
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & kOtherReasons) == 0;
}

}  // namespace

std::wstring RandomName() {
  std::random_device random;
  wchar_t name[32];
  std::swprintf(name, 32, L".zel-%08x%08x.tmp", random(), random());
  return name;
}

std::filesystem::path Beside(const std::filesystem::path& path, const std::wstring& name) {
  const std::wstring& text = path.native();
  return text.substr(0, text.find_last_of(L"\\/") + 1) + name;
}

int MoveOver(const std::filesystem::path& source, const std::filesystem::path& destination,
             unsigned long flags) {
  const int error = MoveWith(source, destination, flags | MOVEFILE_REPLACE_EXISTING);
  if (error == 0 || !MayBeOpen(destination, error)) return error;

  // An open file keeps its name until it is closed, unless it gets another one first.
  const std::filesystem::path aside = Beside(destination, RandomName());
  if (MoveWith(destination, aside, 0) != 0) return error;
  const int secondError = MoveWith(source, destination, flags);
  if (secondError == 0 && DeleteFileW(aside.c_str())) return 0;
  // Running programs may be renamed, but not deleted: nothing may stay behind.
  if (secondError == 0) MoveWith(destination, source, 0);
  MoveWith(aside, destination, 0);
  return error;
}

}  // namespace file_system
