#include "agent/libZel/source_tree.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string_view>

#include "agent/libZel/file_system.h"
#include "agent/libZel/nanoseconds.h"
#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/directory_stream.h"
#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {
namespace {

SourceEntry EntryOf(const char* name, const struct stat& info) {
  constexpr int64_t kMaxSeconds = INT64_MAX / kNsPerSecond - 1;
  SourceEntry entry;
  entry.name = name;
  entry.archiveName = name;
  entry.kind = S_ISREG(info.st_mode)   ? SourceEntry::Kind::kFile
               : S_ISDIR(info.st_mode) ? SourceEntry::Kind::kDirectory
               : S_ISLNK(info.st_mode) ? SourceEntry::Kind::kLink
                                       : SourceEntry::Kind::kOther;
  entry.sizeBytes = static_cast<uint64_t>(info.st_size);
  // What lies beyond 1677 to 2262 has no place in 64 bits.
  const auto seconds = std::clamp<int64_t>(info.st_mtim.tv_sec, -kMaxSeconds, kMaxSeconds);
  entry.modifiedNs = seconds * kNsPerSecond + info.st_mtim.tv_nsec;
  entry.mode = info.st_mode;
  return entry;
}

}  // namespace

const bool kSourcesHaveModes = true;

int ListSource(const std::filesystem::path& directory, std::vector<SourceEntry>* entries) {
  const DirectoryStream stream(opendir(directory.c_str()));
  if (!stream) return errno;
  for (;;) {
    errno = 0;
    const dirent* const found = readdir(stream.get());
    if (found == nullptr) return errno;
    const std::string_view name = found->d_name;
    if (name == "." || name == "..") continue;
    struct stat info;
    if (fstatat(dirfd(stream.get()), found->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
      entries->push_back(EntryOf(found->d_name, info));
    } else if (errno != ENOENT) {
      return errno;
    }
  }
}

struct SourceFile::Implementation {
  UniqueFd file;
  uint64_t sizeBytes = 0;
};

SourceFile::SourceFile() : implementation_(std::make_unique<Implementation>()) {}
SourceFile::~SourceFile() = default;

int SourceFile::Open(const std::filesystem::path& path) {
  // A pipe without a writer must not hold us up before it is known for what it is.
  UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file) return errno;
  struct stat info;
  if (fstat(file.Get(), &info) != 0) return errno;
  if (!S_ISREG(info.st_mode)) return kErrorNotRegular;
  implementation_->sizeBytes = static_cast<uint64_t>(info.st_size);
  implementation_->file = std::move(file);
  return 0;
}

uint64_t SourceFile::SizeBytes() const {
  return implementation_->sizeBytes;
}

int SourceFile::Read(void* buffer, size_t count, size_t* done) {
  return ReadUpTo(implementation_->file.Get(), buffer, count, done);
}

}  // namespace file_system
