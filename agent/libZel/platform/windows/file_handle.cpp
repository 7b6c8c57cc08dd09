#include <windows.h>

#include <algorithm>
#include <string>

#include "agent/libZel/file_system.h"
#include "agent/libZel/open_file.h"
#include "agent/libZel/platform/windows/file_access.h"
#include "agent/libZel/platform/windows/file_security.h"
#include "agent/libZel/platform/windows/move_over.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "agent/libZel/platform/windows/write_all.h"

namespace file_system {
namespace {

constexpr int kErrorQuota = 1295;  // ERROR_DISK_QUOTA_EXCEEDED of winerror.h

void CutOff(HANDLE file, LONGLONG sizeBytes) {
  LARGE_INTEGER end;
  end.QuadPart = sizeBytes;
  if (SetFilePointerEx(file, end, nullptr, FILE_BEGIN)) SetEndOfFile(file);
}

bool IsPlainFile(DWORD attributes) {
  constexpr DWORD kOthers =
      FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_READONLY;
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & kOthers) == 0;
}

}  // namespace

const int kErrorReadOnly = ERROR_ACCESS_DENIED;

struct OpenFile::Implementation {
  UniqueHandle file;
  LONGLONG sizeBytes = 0;
};

OpenFile::OpenFile() : implementation_(std::make_unique<Implementation>()) {}
OpenFile::~OpenFile() = default;

int OpenFile::Open(const std::filesystem::path& path) {
  UniqueHandle file(CreateFileW(path.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                                FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
  if (!file) return static_cast<int>(GetLastError());
  if (GetFileType(file.Get()) != FILE_TYPE_DISK) return kErrorNotRegular;
  implementation_->file = std::move(file);
  return 0;
}

int OpenFile::Create(const std::filesystem::path& path, const Security* security) {
  CreationSecurity creation(security);
  const DWORD attributes = security != nullptr ? security->attributes : 0;
  UniqueHandle file(CreateFileW(path.c_str(), GENERIC_WRITE, kShareAll, creation.Get(), CREATE_NEW,
                                attributes | FILE_ATTRIBUTE_NORMAL | FILE_FLAG_WRITE_THROUGH,
                                nullptr));
  if (!file) return static_cast<int>(GetLastError());
  // The owner, and the tie to what the directory hands down.
  if (security != nullptr) ApplySecurity(*security, path);
  implementation_->file = std::move(file);
  return 0;
}

int OpenFile::Read(char* buffer, uint32_t sizeBytes, uint32_t* count) {
  DWORD got = 0;
  const auto wanted = static_cast<DWORD>(std::min<size_t>(sizeBytes, kMaxTransferBytes));
  const BOOL done = ReadFile(implementation_->file.Get(), buffer, wanted, &got, nullptr);
  *count = got;
  return ErrorOf(done);
}

int OpenFile::Write(const char* bytes, uint32_t sizeBytes) {
  Implementation& self = *implementation_;
  const int error = WriteAll(self.file.Get(), bytes, sizeBytes);
  if (error == 0) {
    self.sizeBytes += sizeBytes;
  } else {
    CutOff(self.file.Get(), self.sizeBytes);
  }
  return error;
}

int OpenFile::Close() {
  implementation_->file.Close();
  return 0;
}

bool IsReadOnly(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_READONLY) != 0 &&
         !LookAtEntry(path).isLink;
}

int RemoveFileNow(const std::filesystem::path& path, bool force) {
  if (!IsPlainFile(GetFileAttributesW(path.c_str()))) return RemoveFile(path, force);
  // A deleted file keeps its name while it is open: it gets another one first.
  const std::filesystem::path aside = Beside(path, RandomName());
  int error = ErrorOf(MoveFileExW(path.c_str(), aside.c_str(), 0));
  if (error != 0) return error;
  error = ErrorOf(DeleteFileW(aside.c_str()));
  if (error != 0) MoveFileExW(aside.c_str(), path.c_str(), 0);
  return error;
}

bool IsDiskFull(int error) {
  return error == ERROR_DISK_FULL || error == ERROR_HANDLE_DISK_FULL || error == kErrorQuota;
}

int ReplaceByLink(const std::filesystem::path& source, const std::filesystem::path& destination) {
  const std::filesystem::path link = Beside(destination, RandomName());
  int error = ErrorOf(CreateHardLinkW(link.c_str(), source.c_str(), nullptr));
  if (error != 0) return error;
  error = MoveOver(link, destination);
  if (error != 0) DeleteFileW(link.c_str());
  return error;
}

}  // namespace file_system
