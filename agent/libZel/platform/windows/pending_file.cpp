#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

#include "agent/libZel/file_system.h"
#include "agent/libZel/platform/windows/unique_handle.h"

namespace file_system {
namespace {

constexpr int kMaxNameAttempts = 100;
constexpr size_t kMaxWriteBytes = size_t{1} << 30;
constexpr int64_t kUnixEpochTicks = 116444736000000000;
constexpr int64_t kTicksPerSecond = 10000000;

std::wstring RandomName() {
  std::random_device random;
  wchar_t name[32];
  std::swprintf(name, 32, L".zel-%08x%08x.tmp", random(), random());
  return name;
}

}  // namespace

struct PendingFile::Implementation {
  std::filesystem::path destination;
  std::filesystem::path temporary;
  UniqueHandle file;
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
  const std::wstring& text = destination.native();
  const std::wstring directory = text.substr(0, text.find_last_of(L"\\/") + 1);
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    std::filesystem::path path(directory + RandomName());
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

int PendingFile::Write(const void* bytes, size_t count) {
  const char* next = static_cast<const char*>(bytes);
  while (count > 0) {
    DWORD written = 0;
    const auto step = static_cast<DWORD>(std::min(count, kMaxWriteBytes));
    if (!WriteFile(implementation_->file.Get(), next, step, &written, nullptr)) {
      return static_cast<int>(GetLastError());
    }
    next += written;
    count -= written;
  }
  return 0;
}

int PendingFile::CopyFrom(const std::filesystem::path& source) {
  Implementation& self = *implementation_;
  self.file.Close();
  BOOL isCancelled = FALSE;
  const BOOL done = CopyFileExW(source.c_str(), self.temporary.c_str(), nullptr, nullptr,
                                &isCancelled, COPY_FILE_ALLOW_DECRYPTED_DESTINATION);
  return done ? 0 : static_cast<int>(GetLastError());
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
  if (!MoveFileExW(self.temporary.c_str(), self.destination.c_str(),
                   replace ? MOVEFILE_REPLACE_EXISTING : 0)) {
    return static_cast<int>(GetLastError());
  }
  self.temporary.clear();
  return 0;
}

std::filesystem::path PendingFile::Path() const {
  return implementation_->temporary;
}

}  // namespace file_system
