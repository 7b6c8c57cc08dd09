#include "agent/libZel/positioned_file.h"

#include <unistd.h>

#include <cerrno>

#include "agent/libZel/platform/posix/open_regular.h"

namespace file_system {

struct PositionedFile::Implementation {
  UniqueFd file;
  uint64_t sizeBytes = 0;
};

PositionedFile::PositionedFile() : implementation_(std::make_unique<Implementation>()) {}
PositionedFile::~PositionedFile() = default;

int PositionedFile::Open(const std::filesystem::path& path) {
  struct stat info;
  const int error = OpenRegular(path, &implementation_->file, &info);
  if (error == 0) implementation_->sizeBytes = static_cast<uint64_t>(info.st_size);
  return error;
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
