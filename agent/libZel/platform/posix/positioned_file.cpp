#include "agent/libZel/positioned_file.h"

#include "agent/libZel/platform/posix/descriptor_io.h"
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
  return ReadUpToAt(implementation_->file.Get(), offset, buffer, count, done);
}

}  // namespace file_system
