#include "agent/libZel/output_tree.h"

#include <windows.h>

#include <algorithm>
#include <string>
#include <vector>

#include "agent/libZel/file_system.h"
#include "agent/libZel/file_time_ticks.h"
#include "agent/libZel/platform/windows/move_over.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/platform/windows/write_all.h"
#include "libZel/string.h"

namespace file_system {
namespace {

// Holds a directory, so that neither it nor its parents can be replaced; links are refused.
int Hold(const std::wstring& path, UniqueHandle* directory) {
  UniqueHandle handle(CreateFileW(
      path.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
      FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!handle) return static_cast<int>(GetLastError());
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(handle.Get(), &info)) return static_cast<int>(GetLastError());
  if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return ERROR_DIRECTORY;
  if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return ERROR_CANT_ACCESS_FILE;
  *directory = std::move(handle);
  return 0;
}

int Enter(const std::wstring& path, UniqueHandle* directory, bool* isNew) {
  *isNew = CreateDirectoryW(path.c_str(), nullptr);
  if (!*isNew && GetLastError() != ERROR_ALREADY_EXISTS) {
    // Some systems refuse to make what is there, for other reasons first.
    const DWORD error = GetLastError();
    if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) return static_cast<int>(error);
  }
  return Hold(path, directory);
}

int SetModified(HANDLE file, int64_t ns) {
  const int64_t ticks = kUnixEpochTicks + ns / kNsPerTick;
  const FILETIME time{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  return SetFileTime(file, nullptr, nullptr, &time) ? 0 : static_cast<int>(GetLastError());
}

// A directory that was made for an entry of its own.
struct MadeDirectory {
  // Below the root, with a separator in front of each name.
  std::wstring path;
  int64_t modifiedNs = 0;
};

int Finish(const std::wstring& root, const MadeDirectory& made) {
  // The parent is held until its child is.
  UniqueHandle parent;
  for (size_t end = made.path.find(L'\\', 1); end != made.path.npos;
       end = made.path.find(L'\\', end + 1)) {
    UniqueHandle next;
    const int error = Hold(root + made.path.substr(0, end), &next);
    if (error != 0) return error;
    parent = std::move(next);
  }
  const UniqueHandle directory(CreateFileW(
      (root + made.path).c_str(), FILE_WRITE_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
      nullptr, OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!directory) return static_cast<int>(GetLastError());
  return SetModified(directory.Get(), made.modifiedNs);
}

// A read-only file keeps its name against others.
int MoveOverReadOnly(const std::wstring& source, const std::wstring& destination) {
  const int error = MoveOver(source, destination);
  if (error == 0) return 0;
  const DWORD attributes = GetFileAttributesW(destination.c_str());
  constexpr DWORD kBoth = FILE_ATTRIBUTE_READONLY | FILE_ATTRIBUTE_DIRECTORY;
  if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & kBoth) != FILE_ATTRIBUTE_READONLY) {
    return error;
  }
  SetFileAttributesW(destination.c_str(), attributes & ~FILE_ATTRIBUTE_READONLY);
  const int secondError = MoveOver(source, destination);
  if (secondError != 0) SetFileAttributesW(destination.c_str(), attributes);
  return secondError;
}

// The volume that holds the directory, for somebody who may have all of it written; invalid for
// others, and for a share.
UniqueHandle OpenVolume(const std::wstring& directory) {
  wchar_t mountPoint[MAX_PATH], volume[MAX_PATH];
  if (!GetVolumePathNameW(directory.c_str(), mountPoint, MAX_PATH) ||
      !GetVolumeNameForVolumeMountPointW(mountPoint, volume, MAX_PATH)) {
    return UniqueHandle();
  }
  // With its separator it would be the volume's first directory.
  std::wstring name = volume;
  name.pop_back();
  return UniqueHandle(CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE,
                                  FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                  FILE_ATTRIBUTE_NORMAL, nullptr));
}

}  // namespace

const bool OutputTree::kStoresWindowsNamesOnly = true;

struct OutputTree::Implementation {
  // Whether the last one was made stands in `*isNew`.
  int EnterAll(const Names& names, size_t count, bool* isNew) {
    *isNew = false;
    if (current && currentNames.size() == count &&
        std::equal(currentNames.begin(), currentNames.end(), names.begin())) {
      return 0;
    }
    std::wstring path = root;
    UniqueHandle directory;
    for (size_t i = 0; i < count; ++i) {
      path += L'\\';
      path += ZelString(names[i]).GetTCHAR();
      // The parent is held until its child is.
      UniqueHandle next;
      const int error = Enter(path, &next, isNew);
      if (error != 0) return error;
      directory = std::move(next);
    }
    if (count == 0) {
      // A drive's root is a directory only with its separator.
      directory = UniqueHandle(CreateFileW((path + L'\\').c_str(), FILE_LIST_DIRECTORY,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                           OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
      if (!directory) return static_cast<int>(GetLastError());
    }
    currentNames.assign(names.begin(), names.begin() + static_cast<ptrdiff_t>(count));
    currentPath = std::move(path);
    current = std::move(directory);
    return 0;
  }

  // Without a closing separator.
  std::wstring root;
  UniqueHandle current;
  std::wstring currentPath;
  Names currentNames;
  std::vector<MadeDirectory> made;
  UniqueHandle file;
  std::wstring temporary;
  std::wstring destination;
};

OutputTree::OutputTree() : implementation_(std::make_unique<Implementation>()) {}
OutputTree::~OutputTree() {
  Discard();
}

int OutputTree::Open(const std::filesystem::path& root) {
  // What was entered stands below the root there was.
  Discard();
  FinishDirectories();
  implementation_->current = UniqueHandle();
  implementation_->currentNames.clear();
  std::error_code error;
  if (!std::filesystem::is_directory(root, error)) {
    std::filesystem::create_directories(root, error);
    if (error && !std::filesystem::is_directory(root)) return error.value();
  }
  implementation_->root = root.native();
  while (implementation_->root.ends_with(L'\\')) implementation_->root.pop_back();
  return 0;
}

int OutputTree::MakeDirectory(const Names& names, const OutputAttributes& attributes) {
  Implementation& self = *implementation_;
  bool isNew = false;
  const int error = self.EnterAll(names, names.size(), &isNew);
  if (error == 0 && isNew && attributes.modifiedNs) {
    self.made.push_back({self.currentPath.substr(self.root.size()), *attributes.modifiedNs});
  }
  return error;
}

int OutputTree::FinishDirectories() {
  Implementation& self = *implementation_;
  int firstError = 0;
  for (const MadeDirectory& made : self.made) {
    const int error = Finish(self.root, made);
    if (firstError == 0) firstError = error;
  }
  self.made.clear();
  return firstError;
}

int OutputTree::Create(const Names& names, std::optional<uint32_t> /*permissions*/) {
  Implementation& self = *implementation_;
  Discard();
  bool isNew = false;
  const int error = self.EnterAll(names, names.size() - 1, &isNew);
  if (error != 0) return error;
  self.destination = self.currentPath + L'\\' + ZelString(names.back()).GetTCHAR();
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    std::wstring path = self.currentPath + L'\\' + RandomName();
    self.file =
        UniqueHandle(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE,
                                 nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (self.file) {
      self.temporary = std::move(path);
      return 0;
    }
    if (GetLastError() != ERROR_FILE_EXISTS) return static_cast<int>(GetLastError());
  }
  return ERROR_FILE_EXISTS;
}

int OutputTree::Write(const void* bytes, size_t count) {
  return WriteAll(implementation_->file.Get(), bytes, count);
}

int OutputTree::Commit(const OutputAttributes& attributes) {
  Implementation& self = *implementation_;
  if (attributes.modifiedNs) {
    const int error = SetModified(self.file.Get(), *attributes.modifiedNs);
    if (error != 0) return error;
  }
  self.file.Close();
  if (attributes.isReadOnly &&
      !SetFileAttributesW(self.temporary.c_str(), FILE_ATTRIBUTE_READONLY)) {
    return static_cast<int>(GetLastError());
  }
  const int error = MoveOverReadOnly(self.temporary, self.destination);
  if (error == 0) self.temporary.clear();
  return error;
}

void OutputTree::Discard() {
  Implementation& self = *implementation_;
  self.file.Close();
  if (self.temporary.empty()) return;
  SetFileAttributesW(self.temporary.c_str(), FILE_ATTRIBUTE_NORMAL);
  DeleteFileW(self.temporary.c_str());
  self.temporary.clear();
}

int OutputTree::Sync() {
  const UniqueHandle volume = OpenVolume(implementation_->root + L'\\');
  if (!volume) return 0;
  return FlushFileBuffers(volume.Get()) ? 0 : static_cast<int>(GetLastError());
}

}  // namespace file_system
