#include <windows.h>

#include <string>

#include "agent/libZel/file_system.h"
#include "agent/libZel/file_time_ticks.h"
#include "agent/libZel/platform/windows/file_security.h"
#include "agent/libZel/platform/windows/move_over.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/platform/windows/write_all.h"

namespace file_system {
namespace {

int Flush(HANDLE file) {
  return FlushFileBuffers(file) ? 0 : static_cast<int>(GetLastError());
}

// Brings a file to the disk that nobody has open for writing, a read-only one too.
int FlushClosed(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
  const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  const int error = file ? Flush(file.Get()) : static_cast<int>(GetLastError());
  if (attributes != INVALID_FILE_ATTRIBUTES) SetFileAttributesW(path.c_str(), attributes);
  return error;
}

// Gives a copy the attributes and times of its source, makes it writable and brings it to the disk.
int Finish(const std::filesystem::path& path, const WIN32_FILE_ATTRIBUTE_DATA& source) {
  constexpr DWORD kKept = FILE_ATTRIBUTE_ARCHIVE | FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
  const DWORD attributes = source.dwFileAttributes & kKept;
  if (!SetFileAttributesW(path.c_str(), attributes != 0 ? attributes : FILE_ATTRIBUTE_NORMAL)) {
    return static_cast<int>(GetLastError());
  }
  const UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) return static_cast<int>(GetLastError());
  SetFileTime(file.Get(), &source.ftCreationTime, &source.ftLastAccessTime,
              &source.ftLastWriteTime);
  return Flush(file.Get());
}

}  // namespace

struct PendingFile::Implementation {
  std::filesystem::path destination;
  std::filesystem::path temporary;
  UniqueHandle file;
  bool survivesPowerCuts = false;
};

PendingFile::PendingFile() : implementation_(std::make_unique<Implementation>()) {}

PendingFile::~PendingFile() {
  Implementation& self = *implementation_;
  self.file.Close();
  if (self.temporary.empty()) return;
  // A read-only source makes a read-only copy, which the system would keep.
  SetFileAttributesW(self.temporary.c_str(), FILE_ATTRIBUTE_NORMAL);
  DeleteFileW(self.temporary.c_str());
}

int PendingFile::Create(const std::filesystem::path& destination) {
  Implementation& self = *implementation_;
  self.destination = destination;
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    std::filesystem::path path = Beside(destination, RandomName());
    self.file = UniqueHandle(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr, CREATE_NEW,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
    if (self.file) {
      self.temporary = std::move(path);
      return 0;
    }
    if (GetLastError() != ERROR_FILE_EXISTS) return static_cast<int>(GetLastError());
  }
  return ERROR_FILE_EXISTS;
}

void PendingFile::KeepOutOfCache() {}

void PendingFile::SurvivePowerCuts() {
  implementation_->survivesPowerCuts = true;
}

int PendingFile::Write(const void* bytes, size_t count) {
  return WriteAll(implementation_->file.Get(), bytes, count);
}

int PendingFile::WriteAt(uint64_t offset, const void* bytes, size_t count) {
  LARGE_INTEGER place;
  place.QuadPart = static_cast<LONGLONG>(offset);
  if (!SetFilePointerEx(implementation_->file.Get(), place, nullptr, FILE_BEGIN)) {
    return static_cast<int>(GetLastError());
  }
  return Write(bytes, count);
}

int PendingFile::CopyFrom(const std::filesystem::path& source) {
  Implementation& self = *implementation_;
  self.file.Close();
  BOOL isCancelled = FALSE;
  const BOOL done = CopyFileExW(source.c_str(), self.temporary.c_str(), nullptr, nullptr,
                                &isCancelled, COPY_FILE_ALLOW_DECRYPTED_DESTINATION);
  return done ? 0 : static_cast<int>(GetLastError());
}

int PendingFile::CloneFrom(const std::filesystem::path& source) {
  const std::filesystem::path& temporary = implementation_->temporary;
  WIN32_FILE_ATTRIBUTE_DATA info;
  if (!GetFileAttributesExW(source.c_str(), GetFileExInfoStandard, &info)) {
    return static_cast<int>(GetLastError());
  }
  const auto security = SecurityOf(source);
  if (security) ApplySecurity(*security, temporary);
  const int error = CopyFrom(source);
  return error == 0 ? Finish(temporary, info) : error;
}

int PendingFile::WriteInPlaceOf(const std::filesystem::path& replaced, const void* bytes,
                                size_t count) {
  const Implementation& self = *implementation_;
  const auto security = SecurityOf(replaced);
  if (!security) return kErrorNotFound;
  ApplySecurity(*security, self.temporary);
  const int error = Write(bytes, count);
  if (error != 0) return error;
  const DWORD attributes = security->attributes | FILE_ATTRIBUTE_ARCHIVE;
  if (!SetFileAttributesW(self.temporary.c_str(), attributes)) {
    return static_cast<int>(GetLastError());
  }
  return Flush(self.file.Get());
}

int PendingFile::SetModified(int64_t unixSeconds) {
  const int64_t ticks = kUnixEpochTicks + unixSeconds * kTicksPerSecond;
  const FILETIME time{static_cast<DWORD>(ticks), static_cast<DWORD>(ticks >> 32)};
  const BOOL done = SetFileTime(implementation_->file.Get(), nullptr, nullptr, &time);
  return done ? 0 : static_cast<int>(GetLastError());
}

int PendingFile::Commit(bool replace) {
  Implementation& self = *implementation_;
  self.file.Close();
  int error = self.survivesPowerCuts ? FlushClosed(self.temporary) : 0;
  if (error != 0) return error;
  const DWORD flags = self.survivesPowerCuts ? MOVEFILE_WRITE_THROUGH : 0;
  if (replace) {
    error = MoveOver(self.temporary, self.destination, flags);
  } else if (!MoveFileExW(self.temporary.c_str(), self.destination.c_str(), flags)) {
    error = static_cast<int>(GetLastError());
  }
  if (error == 0) self.temporary.clear();
  return error;
}

std::filesystem::path PendingFile::Path() const {
  return implementation_->temporary;
}

}  // namespace file_system
