#include "agent/libZel/output_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <random>
#include <string>
#include <string_view>
#include <vector>

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

constexpr int kDirectoryFlags = O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// Opens a directory that is no link, making it where it is missing.
int Enter(int parent, const std::string& name, mode_t permissions, UniqueFd* directory,
          bool* isNew) {
  *isNew = false;
  *directory = UniqueFd(openat(parent, name.c_str(), O_PATH | kDirectoryFlags));
  if (*directory) return 0;
  if (errno != ENOENT) return errno;
  *isNew = mkdirat(parent, name.c_str(), permissions) == 0;
  if (!*isNew && errno != EEXIST) return errno;
  *directory = UniqueFd(openat(parent, name.c_str(), O_PATH | kDirectoryFlags));
  return *directory ? 0 : errno;
}

struct timespec TimeOf(int64_t ns) {
  const SecondsAndNs time = SplitNs(ns);
  return {static_cast<time_t>(time.seconds), static_cast<long>(time.ns)};
}

int SetModified(int file, int64_t ns) {
  const struct timespec times[2] = {{0, UTIME_OMIT}, TimeOf(ns)};
  return futimens(file, times) == 0 ? 0 : errno;
}

// A directory that was made for an entry of its own.
struct MadeDirectory {
  // Its names in bytes, with "/" behind each but the last.
  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
  OutputAttributes attributes;
};

// Opens a directory below another one for reading; no part of its path may be a link.
int OpenBelow(int root, std::string_view path, UniqueFd* directory) {
  UniqueFd parent;
  int at = root;
  for (size_t end = path.find('/'); end != path.npos; end = path.find('/')) {
    UniqueFd next(openat(at, std::string(path.substr(0, end)).c_str(), O_PATH | kDirectoryFlags));
    if (!next) return errno;
    parent = std::move(next);
    at = parent.Get();
    path.remove_prefix(end + 1);
  }
  *directory = UniqueFd(openat(at, std::string(path).c_str(), O_RDONLY | kDirectoryFlags));
  return *directory ? 0 : errno;
}

int Finish(int root, const MadeDirectory& made) {
  UniqueFd directory;
  const int error = OpenBelow(root, made.path, &directory);
  if (error != 0) return error;
  struct stat info;
  if (fstat(directory.Get(), &info) != 0) return errno;
  // Another one that somebody has put there keeps its permissions.
  if (info.st_dev != made.device || info.st_ino != made.inode) return kErrorNotFound;
  if (made.attributes.permissions) {
    // The group of new entries may be inherited: that bit is the system's.
    const mode_t inherited = info.st_mode & ~(S_IFMT | kPermissions);
    const mode_t mode = inherited | (*made.attributes.permissions & kPermissions);
    if (fchmod(directory.Get(), mode) != 0) return errno;
  }
  return made.attributes.modifiedNs ? SetModified(directory.Get(), *made.attributes.modifiedNs) : 0;
}

}  // namespace

const bool OutputTree::kStoresWindowsNamesOnly = false;

struct OutputTree::Implementation {
  // Opens the directory of `names`, which is kept: what follows mostly goes there too.
  // Whether the last one was made stands in `*isNew`.
  int EnterAll(const Names& names, size_t count, mode_t lastPermissions, bool* isNew) {
    *isNew = false;
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
      const mode_t permissions = i + 1 == count ? lastPermissions : kPermissions;
      const int error = Enter(directory.Get(), *name, permissions, &next, isNew);
      if (error != 0) return error;
      directory = std::move(next);
    }
    currentNames.assign(names.begin(), names.begin() + static_cast<ptrdiff_t>(count));
    current = std::move(directory);
    return 0;
  }

  // Remembers the directory of `names`, which has just been made and entered.
  int Note(const Names& names, const OutputAttributes& attributes) {
    struct stat info;
    if (fstat(current.Get(), &info) != 0) return errno;
    MadeDirectory directory{{}, info.st_dev, info.st_ino, attributes};
    for (const std::string& name : names) {
      if (!directory.path.empty()) directory.path += '/';
      directory.path += *BytesOf(name);
    }
    made.push_back(std::move(directory));
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
  std::vector<MadeDirectory> made;
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
  FinishDirectories();
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

int OutputTree::MakeDirectory(const Names& names, const OutputAttributes& attributes) {
  const std::optional<uint32_t>& permissions = attributes.permissions;
  const mode_t mode = permissions ? (*permissions & kPermissions) | S_IRWXU : kPermissions;
  bool isNew = false;
  const int error = implementation_->EnterAll(names, names.size(), mode, &isNew);
  return error == 0 && isNew ? implementation_->Note(names, attributes) : error;
}

int OutputTree::FinishDirectories() {
  Implementation& self = *implementation_;
  int firstError = 0;
  // A directory comes before its parent, which may keep us out of it then.
  for (auto made = self.made.rbegin(); made != self.made.rend(); ++made) {
    const int error = Finish(self.root.Get(), *made);
    if (firstError == 0) firstError = error;
  }
  self.made.clear();
  return firstError;
}

int OutputTree::Create(const Names& names, std::optional<uint32_t> permissions) {
  Implementation& self = *implementation_;
  Discard();
  const std::optional<std::string> finalName = BytesOf(names.back());
  if (!finalName) return kErrorInvalidName;
  bool isNew = false;
  const int error = self.EnterAll(names, names.size() - 1, kPermissions, &isNew);
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
    const int error = SetModified(file, *attributes.modifiedNs);
    if (error != 0) return error;
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
