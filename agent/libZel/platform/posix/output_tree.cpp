#include "agent/libZel/output_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <random>

#include "agent/libZel/file_system.h"
#include "agent/libZel/nanoseconds.h"
#include "agent/libZel/platform/posix/byte_names.h"
#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/pending_file.h"
#include "agent/libZel/platform/posix/permissions.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/platform/posix/volume_sync.h"

namespace file_system {
namespace {

// Opens a directory that is no link, making it where it is missing.
int Enter(int parent, const std::string& name, mode_t permissions, UniqueFd* directory) {
  constexpr int kFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  *directory = UniqueFd(openat(parent, name.c_str(), kFlags));
  if (*directory) return 0;
  if (errno != ENOENT) return errno;
  if (mkdirat(parent, name.c_str(), permissions) != 0 && errno != EEXIST) return errno;
  *directory = UniqueFd(openat(parent, name.c_str(), kFlags));
  return *directory ? 0 : errno;
}

struct timespec TimeOf(int64_t ns) {
  const SecondsAndNs time = SplitNs(ns);
  return {static_cast<time_t>(time.seconds), static_cast<long>(time.ns)};
}

}  // namespace

const bool OutputTree::kStoresWindowsNamesOnly = false;

struct OutputTree::Implementation {
  // Opens the directory of `names`, which is kept: what follows mostly goes there too.
  int EnterAll(const Names& names, size_t count, mode_t lastPermissions) {
    if (current && currentNames.size() == count &&
        std::equal(currentNames.begin(), currentNames.end(), names.begin())) {
      return 0;
    }
    UniqueFd directory(fcntl(root.Get(), F_DUPFD_CLOEXEC, 0));
    if (!directory) return errno;
    for (size_t i = 0; i < count; ++i) {
      const std::optional<std::string> name = BytesOf(names[i]);
      if (!name) return kErrorInvalidName;
      UniqueFd next;
      const int error =
          Enter(directory.Get(), *name, i + 1 == count ? lastPermissions : kPermissions, &next);
      if (error != 0) return error;
      directory = std::move(next);
    }
    currentNames.assign(names.begin(), names.begin() + static_cast<ptrdiff_t>(count));
    current = std::move(directory);
    return 0;
  }

  // Unlike the names of other pending files these need not be unforeseeable: an entry that has the
  // name already is never opened.
  std::string NextTemporaryName() {
    char name[48];
    std::snprintf(name, sizeof name, ".zel-%08x%08x.tmp", series, ++count);
    return name;
  }

  UniqueFd root;
  UniqueFd current;
  Names currentNames;
  unsigned series = std::random_device()();
  unsigned count = 0;
  UniqueFd file;
  std::string temporaryName;
  std::string finalName;
  uint64_t writtenBytes = 0;  // of the file
  VolumeSync volume;
};

OutputTree::OutputTree() : implementation_(std::make_unique<Implementation>()) {}
OutputTree::~OutputTree() {
  Discard();
}

int OutputTree::Open(const std::filesystem::path& root) {
  // What was entered stands below the root there was.
  Discard();
  implementation_->current = UniqueFd();
  implementation_->currentNames.clear();
  std::error_code error;
  std::filesystem::create_directories(root, error);
  if (error) return error.value();
  implementation_->root = UniqueFd(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!implementation_->root) return errno;
  implementation_->volume.Follow(implementation_->root.Get());
  return 0;
}

int OutputTree::MakeDirectory(const Names& names, std::optional<uint32_t> permissions) {
  const mode_t mode = permissions ? (*permissions & kPermissions) | S_IRWXU : kPermissions;
  return implementation_->EnterAll(names, names.size(), mode);
}

int OutputTree::Create(const Names& names, std::optional<uint32_t> permissions) {
  Implementation& self = *implementation_;
  Discard();
  const std::optional<std::string> finalName = BytesOf(names.back());
  if (!finalName) return kErrorInvalidName;
  const int error = self.EnterAll(names, names.size() - 1, kPermissions);
  if (error != 0) return error;

  // Nobody may read what the finished file keeps from them.
  const mode_t mode = permissions ? *permissions & S_IRWXU : mode_t{0666};
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    std::string name = self.NextTemporaryName();
    self.file = UniqueFd(openat(self.current.Get(), name.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (self.file) {
      self.temporaryName = std::move(name);
      self.finalName = *finalName;
      self.writtenBytes = 0;
      return 0;
    }
    if (errno != EEXIST) return errno;
  }
  return EEXIST;
}

int OutputTree::Write(const void* bytes, size_t count) {
  implementation_->writtenBytes += count;
  return WriteAll(implementation_->file.Get(), bytes, count);
}

int OutputTree::Commit(const OutputAttributes& attributes) {
  Implementation& self = *implementation_;
  const int file = self.file.Get();
  if (attributes.permissions && fchmod(file, *attributes.permissions & kPermissions) != 0) {
    return errno;
  }
  if (attributes.isReadOnly && !attributes.permissions) {
    struct stat info;
    if (fstat(file, &info) != 0) return errno;
    if (fchmod(file, info.st_mode & kPermissions & ~kAnyWrite) != 0) return errno;
  }
  if (attributes.modifiedNs) {
    const struct timespec times[2] = {{0, UTIME_OMIT}, TimeOf(*attributes.modifiedNs)};
    if (futimens(file, times) != 0) return errno;
  }
  // Some file systems report a full disk only here.
  if (close(self.file.Release()) != 0 && errno != EINTR) return errno;
  const int directory = self.current.Get();
  if (renameat(directory, self.temporaryName.c_str(), directory, self.finalName.c_str()) != 0) {
    return errno;
  }
  self.temporaryName.clear();
  self.volume.NoteFile(self.writtenBytes);
  return 0;
}

void OutputTree::Discard() {
  Implementation& self = *implementation_;
  self.file = UniqueFd();
  if (self.temporaryName.empty()) return;
  unlinkat(self.current.Get(), self.temporaryName.c_str(), 0);
  self.temporaryName.clear();
}

int OutputTree::Sync() {
  return implementation_->volume.Finish();
}

}  // namespace file_system
