#include "agent/libZel/file_system.h"

#include <windows.h>

#include <string>

#include "agent/libZel/platform/windows/file_access.h"
#include "agent/libZel/platform/windows/find_facts.h"
#include "agent/libZel/platform/windows/unique_handle.h"

namespace file_system {
namespace {

Status StatusOfError(DWORD error) {
  Status status;
  status.error = static_cast<int>(error);
  return status;
}

// As `IsLink` has it. What kind of reparse point it is, the directory knows.
bool IsLinkAt(const std::filesystem::path& path, DWORD attributes) {
  if ((attributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return false;
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW(path.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return true;
  FindClose(search);
  return IsLink(EntryOf(found));
}

Status Examine(const std::filesystem::path& path, DWORD flags) {
  const UniqueHandle handle(CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES, kShareAll, nullptr,
                                        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | flags,
                                        nullptr));
  if (!handle) return StatusOfError(GetLastError());
  if (GetFileType(handle.Get()) != FILE_TYPE_DISK) {
    Status status;
    status.kind = Kind::kOther;
    return status;
  }
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(handle.Get(), &info)) return StatusOfError(GetLastError());

  Status status;
  const bool isDirectory = (info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
  status.kind = isDirectory ? Kind::kDirectory : Kind::kFile;
  status.sizeBytes = (uint64_t{info.nFileSizeHigh} << 32) | info.nFileSizeLow;
  status.identity.volume = info.dwVolumeSerialNumber;
  status.identity.file = (uint64_t{info.nFileIndexHigh} << 32) | info.nFileIndexLow;
  if ((flags & FILE_FLAG_OPEN_REPARSE_POINT) != 0 && IsLinkAt(path, info.dwFileAttributes)) {
    status.isLink = true;
    status.kind = Kind::kFile;
  }
  return status;
}

bool HasAttribute(DWORD attributes, DWORD attribute) {
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & attribute) != 0;
}

// A link to a directory is a directory to the system, and deleted as one.
int DeleteEntry(const std::filesystem::path& path, DWORD attributes) {
  const bool isDirectoryLink = HasAttribute(attributes, FILE_ATTRIBUTE_DIRECTORY) &&
                               HasAttribute(attributes, FILE_ATTRIBUTE_REPARSE_POINT);
  return ErrorOf(isDirectoryLink ? RemoveDirectoryW(path.c_str()) : DeleteFileW(path.c_str()));
}

int MoveEntry(const std::filesystem::path& source, const std::filesystem::path& destination) {
  return ErrorOf(MoveFileExW(source.c_str(), destination.c_str(), 0));
}

bool DiffersInCaseOnly(const std::filesystem::path& a, const std::filesystem::path& b) {
  return a.native() != b.native() &&
         CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

// Whether the directory writes the name as the path does.
bool HasExactName(const std::filesystem::path& path) {
  WIN32_FIND_DATAW found;
  const HANDLE search = FindFirstFileW(path.c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) return false;
  FindClose(search);
  return path.native().ends_with(std::wstring(L"\\") + found.cFileName);
}

}  // namespace

const int kErrorNotFound = ERROR_FILE_NOT_FOUND;
const int kErrorExists = ERROR_FILE_EXISTS;
const int kErrorIsDirectory = 336;  // ERROR_DIRECTORY_NOT_SUPPORTED of winerror.h
const int kErrorNotRegular = ERROR_NOT_SUPPORTED;
const int kErrorSameFile = ERROR_SHARING_VIOLATION;
const int kErrorInvalidName = ERROR_INVALID_NAME;
const int kErrorOtherVolume = ERROR_NOT_SAME_DEVICE;

ZelString ErrorText(int error) {
  wchar_t text[512];
  DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr,
                                static_cast<DWORD>(error), 0, text, 512, nullptr);
  while (length > 0 && (text[length - 1] <= L' ' || text[length - 1] == L'.')) --length;
  if (length > 0) return ZelString(std::wstring_view(text, length));
  ZelString number;
  return number.Printf("error %d", error);
}

Status Look(const std::filesystem::path& path) {
  return Examine(path, 0);
}

Status LookAtEntry(const std::filesystem::path& path) {
  return Examine(path, FILE_FLAG_OPEN_REPARSE_POINT);
}

std::filesystem::path TemporaryDirectory() {
  wchar_t text[MAX_PATH + 1];
  const DWORD length = GetTempPathW(MAX_PATH + 1, text);
  return std::filesystem::path(std::wstring(text, length));
}

int RenameFile(const std::filesystem::path& source, const std::filesystem::path& destination) {
  const int error = MoveEntry(source, destination);
  if (error != 0 || !DiffersInCaseOnly(source, destination) || HasExactName(destination)) {
    return error;
  }
  // Some systems take a change of case for none: it needs a name between.
  const std::filesystem::path between(source.native() + L".zel-tmp");
  const int firstError = MoveEntry(source, between);
  if (firstError != 0) return firstError;
  const int secondError = MoveEntry(between, destination);
  if (secondError != 0) MoveEntry(between, source);
  return secondError;
}

int RenameDirectory(const std::filesystem::path& source, const std::filesystem::path& destination) {
  return RenameFile(source, destination);
}

// A link across volumes would need a privilege that a service may lack.
int CopyLink(const std::filesystem::path& /*source*/,
             const std::filesystem::path& /*destination*/) {
  return kErrorNotRegular;
}

int RemoveFile(const std::filesystem::path& path, bool force) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  const int error = DeleteEntry(path, attributes);
  if (error != ERROR_ACCESS_DENIED || !force) return error;
  if (!HasAttribute(attributes, FILE_ATTRIBUTE_READONLY)) return error;
  if (!SetFileAttributesW(path.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY)) return error;
  const int secondError = DeleteEntry(path, attributes);
  if (secondError != 0) SetFileAttributesW(path.c_str(), attributes);
  return secondError;
}

int MakeDirectory(const std::filesystem::path& path) {
  return ErrorOf(CreateDirectoryW(path.c_str(), nullptr));
}

int DeleteDirectory(const std::filesystem::path& path) {
  if (RemoveDirectoryW(path.c_str())) return 0;
  const int error = static_cast<int>(GetLastError());
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (error != ERROR_ACCESS_DENIED || !HasAttribute(attributes, FILE_ATTRIBUTE_READONLY)) {
    return error;
  }
  SetFileAttributesW(path.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
  if (RemoveDirectoryW(path.c_str())) return 0;
  SetFileAttributesW(path.c_str(), attributes);
  return error;
}

int DeleteDirectoryLink(const std::filesystem::path& path) {
  return DeleteDirectory(path);
}

}  // namespace file_system
