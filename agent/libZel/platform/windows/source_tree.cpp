#include "agent/libZel/source_tree.h"

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "agent/libZel/file_system.h"
#include "agent/libZel/file_time_ticks.h"
#include "agent/libZel/platform/windows/file_access.h"
#include "agent/libZel/platform/windows/find_facts.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "libZel/string.h"

namespace file_system {
namespace {

HANDLE OpenForReading(const std::filesystem::path& path, DWORD flags) {
  return CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                     FILE_FLAG_SEQUENTIAL_SCAN | flags, nullptr);
}

// Opens a file that may be a reparse point, but no link.
int OpenNoLink(const std::filesystem::path& path, UniqueHandle* file) {
  *file = UniqueHandle(OpenForReading(path, FILE_FLAG_OPEN_REPARSE_POINT));
  if (!*file) return static_cast<int>(GetLastError());
  FILE_ATTRIBUTE_TAG_INFO info{};
  if (!GetFileInformationByHandleEx(file->Get(), FileAttributeTagInfo, &info, sizeof info)) {
    return static_cast<int>(GetLastError());
  }
  if ((info.FileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) == 0) return 0;
  if (IsLink({info.FileAttributes, info.ReparseTag})) return kErrorNotRegular;
  *file = UniqueHandle(OpenForReading(path, 0));
  return *file ? 0 : static_cast<int>(GetLastError());
}

SourceEntry SourceEntryOf(const WIN32_FIND_DATAW& found) {
  constexpr int64_t kMaxTicks = INT64_MAX / kNsPerTick;
  SourceEntry entry;
  entry.name = found.cFileName;
  entry.archiveName = ZelString(found.cFileName).TakeUtf8();
  entry.kind = IsLink(EntryOf(found)) ? SourceEntry::Kind::kLink
               : (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0
                   ? SourceEntry::Kind::kDirectory
                   : SourceEntry::Kind::kFile;
  entry.sizeBytes = uint64_t{found.nFileSizeHigh} << 32 | found.nFileSizeLow;
  const uint64_t ticks =
      uint64_t{found.ftLastWriteTime.dwHighDateTime} << 32 | found.ftLastWriteTime.dwLowDateTime;
  // What lies beyond 1677 to 2262 has no place in 64 bits.
  const int64_t sinceUnix =
      static_cast<int64_t>(std::min<uint64_t>(ticks, INT64_MAX)) - kUnixEpochTicks;
  entry.modifiedNs = std::clamp(sinceUnix, -kMaxTicks, kMaxTicks) * kNsPerTick;
  entry.mode = found.dwFileAttributes;
  return entry;
}

}  // namespace

const bool kSourcesHaveModes = false;

int ListSource(const std::filesystem::path& directory, std::vector<SourceEntry>* entries) {
  WIN32_FIND_DATAW found;
  std::wstring pattern = directory.native();
  if (!pattern.ends_with(L'\\')) pattern += L'\\';
  pattern += L'*';
  const HANDLE search = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, &found,
                                         FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH);
  if (search == INVALID_HANDLE_VALUE) {
    // The root of a drive may hold nothing at all.
    const DWORD error = GetLastError();
    return error == ERROR_FILE_NOT_FOUND ? 0 : static_cast<int>(error);
  }
  do {
    const std::wstring_view name = found.cFileName;
    if (name != L"." && name != L"..") entries->push_back(SourceEntryOf(found));
  } while (FindNextFileW(search, &found));
  const DWORD error = GetLastError();
  FindClose(search);
  return error == ERROR_NO_MORE_FILES ? 0 : static_cast<int>(error);
}

struct SourceFile::Implementation {
  UniqueHandle file;
  uint64_t sizeBytes = 0;
};

SourceFile::SourceFile() : implementation_(std::make_unique<Implementation>()) {}
SourceFile::~SourceFile() = default;

int SourceFile::Open(const std::filesystem::path& path) {
  UniqueHandle file;
  const int error = OpenNoLink(path, &file);
  if (error != 0) return error;
  if (GetFileType(file.Get()) != FILE_TYPE_DISK) return kErrorNotRegular;
  LARGE_INTEGER size;
  if (!GetFileSizeEx(file.Get(), &size)) return static_cast<int>(GetLastError());
  implementation_->sizeBytes = static_cast<uint64_t>(size.QuadPart);
  implementation_->file = std::move(file);
  return 0;
}

uint64_t SourceFile::SizeBytes() const {
  return implementation_->sizeBytes;
}

int SourceFile::Read(void* buffer, size_t count, size_t* done) {
  *done = 0;
  while (*done < count) {
    const auto step = static_cast<DWORD>(std::min(count - *done, kMaxTransferBytes));
    DWORD got = 0;
    if (!ReadFile(implementation_->file.Get(), static_cast<char*>(buffer) + *done, step, &got,
                  nullptr)) {
      return static_cast<int>(GetLastError());
    }
    if (got == 0) break;
    *done += got;
  }
  return 0;
}

}  // namespace file_system
