#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "agent/libZel/file_system.h"
#include "agent/libZel/open_file.h"
#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/file_security.h"
#include "agent/libZel/platform/posix/open_regular.h"
#include "agent/libZel/platform/posix/pending_file.h"
#include "agent/libZel/platform/posix/permissions.h"
#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {
namespace {

constexpr uint32_t kMaxReadBytes = uint32_t{1} << 30;

// Links the file that `source` leads to under a new name in `directory`.
int LinkBeside(const std::filesystem::path& source, const std::filesystem::path& directory,
               std::filesystem::path* link) {
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    *link = directory / TemporaryName();
    if (linkat(AT_FDCWD, source.c_str(), AT_FDCWD, link->c_str(), AT_SYMLINK_FOLLOW) == 0) return 0;
    if (errno != EEXIST) return errno;
  }
  return EEXIST;
}

}  // namespace

const int kErrorReadOnly = EACCES;

struct OpenFile::Implementation {
  UniqueFd file;
  off_t sizeBytes = 0;
};

OpenFile::OpenFile() : implementation_(std::make_unique<Implementation>()) {}
OpenFile::~OpenFile() = default;

int OpenFile::Open(const std::filesystem::path& path) {
  struct stat info;
  const int error = OpenRegular(path, &implementation_->file, &info);
  if (error == 0) posix_fadvise(implementation_->file.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  return error;
}

int OpenFile::Create(const std::filesystem::path& path, const Security* security) {
  constexpr int kFlags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_DSYNC | O_CLOEXEC;
  const mode_t mode = security != nullptr ? S_IRUSR | S_IWUSR : 0666;
  UniqueFd file(open(path.c_str(), kFlags, mode));
  if (!file) return errno;
  if (security != nullptr) ApplySecurity(*security, file.Get());
  implementation_->file = std::move(file);
  return 0;
}

int OpenFile::Read(char* buffer, uint32_t sizeBytes, uint32_t* count) {
  const int file = implementation_->file.Get();
  const ssize_t got =
      Uninterrupted([&] { return read(file, buffer, std::min(sizeBytes, kMaxReadBytes)); });
  if (got < 0) return errno;
  *count = static_cast<uint32_t>(got);
  return 0;
}

int OpenFile::Write(const char* bytes, uint32_t sizeBytes) {
  Implementation& self = *implementation_;
  const int error = WriteAll(self.file.Get(), bytes, sizeBytes);
  if (error == 0) {
    self.sizeBytes += sizeBytes;
    return 0;
  }
  if (ftruncate(self.file.Get(), self.sizeBytes) == 0) {
    lseek(self.file.Get(), self.sizeBytes, SEEK_SET);
  }
  return error;
}

int OpenFile::Close() {
  // After EINTR the descriptor is closed all the same.
  return close(implementation_->file.Release()) == 0 || errno == EINTR ? 0 : errno;
}

bool IsReadOnly(const std::filesystem::path& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
         (info.st_mode & kAnyWrite) == 0;
}

int RemoveFileNow(const std::filesystem::path& path, bool force) {
  return RemoveFile(path, force);
}

bool IsDiskFull(int error) {
  return error == ENOSPC || error == EDQUOT;
}

int ReplaceByLink(const std::filesystem::path& source, const std::filesystem::path& destination) {
  std::filesystem::path link;
  int error = LinkBeside(source, destination.parent_path(), &link);
  if (error != 0) return error;
  if (rename(link.c_str(), destination.c_str()) != 0) error = errno;
  // Two links to one file are not renamed over each other: the new one stays, with success.
  unlink(link.c_str());
  return error;
}

}  // namespace file_system
