#include "agent/libZel/positioned_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "agent/libZel/file_system.h"
#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {

struct PositionedFile::Implementation {
  UniqueFd file;
  uint64_t sizeBytes = 0;
};

PositionedFile::PositionedFile() : implementation_(std::make_unique<Implementation>()) {}
PositionedFile::~PositionedFile() = default;

int PositionedFile::Open(const std::filesystem::path& path) {
  // A pipe without a writer must not hold us up before it is known for what it is.
  UniqueFd file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return errno;
  struct stat info;
  if (fstat(file.Get(), &info) != 0) return errno;
  if (S_ISDIR(info.st_mode)) return kErrorIsDirectory;
  if (!S_ISREG(info.st_mode)) return kErrorNotRegular;
  implementation_->sizeBytes = static_cast<uint64_t>(info.st_size);
  implementation_->file = std::move(file);
  return 0;
}

uint64_t PositionedFile::SizeBytes() const {
  return implementation_->sizeBytes;
}

int PositionedFile::ReadAt(uint64_t offset, void* buffer, size_t count, size_t* done) const {
  *done = 0;
  while (*done < count) {
    const ssize_t got = pread(implementation_->file.Get(), static_cast<char*>(buffer) + *done,
                              count - *done, static_cast<off_t>(offset + *done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return errno;
    if (got == 0) break;
    *done += static_cast<size_t>(got);
  }
  return 0;
}

}  // namespace file_system
