#include <windows.h>

#include <string>
#include <vector>

#include "agent/libZel/file_system.h"
#include "agent/libZel/platform/windows/unique_handle.h"

namespace file_system {
namespace {

// One directory on the way from the root of the tree to where the work is.
struct Level {
  size_t pathLength = 0;
  Identity identity;
  std::vector<std::wstring> directories;
};

bool IsDotName(std::wstring_view name) {
  return name == L"." || name == L"..";
}

// Deletes from the leaves up. The directory where the work is stays open without the right to
// rename or delete it, which the system extends to its parents, so the path to it holds.
class TreeDeletion {
 public:
  explicit TreeDeletion(const std::wstring& path) : path_(path) {}

  int Run(bool keepRoot) {
    int error = Enter();
    while (error == 0 && !levels_.empty()) {
      std::vector<std::wstring>& directories = levels_.back().directories;
      if (!directories.empty()) {
        path_ += L'\\';
        path_ += directories.back();
        directories.pop_back();
        error = Enter();
      } else {
        error = Leave(keepRoot);
      }
    }
    return error;
  }

 private:
  // Opens the directory at `path_`; anything else, a link above all, is refused.
  int Hold(UniqueHandle* holder, Identity* identity) {
    UniqueHandle handle(CreateFileW(
        path_.c_str(), FILE_LIST_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
        OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (!handle) return static_cast<int>(GetLastError());
    BY_HANDLE_FILE_INFORMATION info;
    if (!GetFileInformationByHandle(handle.Get(), &info)) return static_cast<int>(GetLastError());
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) return ERROR_DIRECTORY;
    if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) return ERROR_CANT_ACCESS_FILE;
    identity->volume = info.dwVolumeSerialNumber;
    identity->file = (uint64_t{info.nFileIndexHigh} << 32) | info.nFileIndexLow;
    *holder = std::move(handle);
    return 0;
  }

  // Deletes the files of the directory at `path_` and notes its directories.
  int Enter() {
    Level level;
    level.pathLength = path_.size();
    UniqueHandle holder;
    int error = Hold(&holder, &level.identity);
    if (error == 0) error = Empty(&level);
    if (error != 0) return error;
    holder_ = std::move(holder);
    levels_.push_back(std::move(level));
    return 0;
  }

  int Empty(Level* level) {
    WIN32_FIND_DATAW entry;
    const HANDLE search =
        FindFirstFileExW((path_ + L"\\*").c_str(), FindExInfoBasic, &entry, FindExSearchNameMatch,
                         nullptr, FIND_FIRST_EX_LARGE_FETCH);
    if (search == INVALID_HANDLE_VALUE) {
      const DWORD error = GetLastError();
      return error == ERROR_FILE_NOT_FOUND ? 0 : static_cast<int>(error);
    }
    int error = 0;
    do {
      error = Delete(entry, level);
    } while (error == 0 && FindNextFileW(search, &entry));
    if (error == 0 && GetLastError() != ERROR_NO_MORE_FILES) {
      error = static_cast<int>(GetLastError());
    }
    FindClose(search);
    return error;
  }

  int Delete(const WIN32_FIND_DATAW& entry, Level* level) {
    if (IsDotName(entry.cFileName)) return 0;
    const bool isDirectory = (entry.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
    const bool isReparsePoint = (entry.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
    if (isDirectory && !isReparsePoint) {
      level->directories.emplace_back(entry.cFileName);
      return 0;
    }
    return RemoveFile(path_ + L'\\' + entry.cFileName, true);
  }

  int Leave(bool keepRoot) {
    levels_.pop_back();
    const std::wstring emptied = path_;
    if (levels_.empty()) {
      holder_.Close();
      return keepRoot ? 0 : DeleteDirectory(emptied);
    }
    path_.resize(levels_.back().pathLength);
    UniqueHandle parent;
    Identity identity;
    const int error = Hold(&parent, &identity);
    if (error != 0) return error;
    if (identity != levels_.back().identity) return ERROR_DIRECTORY;
    // Lets go of the emptied directory.
    holder_ = std::move(parent);
    parent.Close();
    return DeleteDirectory(emptied);
  }

  std::wstring path_;
  std::vector<Level> levels_;
  UniqueHandle holder_;
};

}  // namespace

int DeleteTree(const std::filesystem::path& path, bool keepRoot) {
  return TreeDeletion(path.native()).Run(keepRoot);
}

}  // namespace file_system
