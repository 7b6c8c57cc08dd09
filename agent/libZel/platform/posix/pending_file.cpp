#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <optional>
#include <random>
#include <string>

#include "agent/libZel/file_system.h"
#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/file_security.h"
#include "agent/libZel/platform/posix/open_regular.h"
#include "agent/libZel/platform/posix/pending_file.h"
#include "agent/libZel/platform/posix/permissions.h"
#include "agent/libZel/platform/posix/rename.h"
#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {

UniqueFd OpenNameless(int directory, mode_t mode) {
  // The only way to give it a name without special rights leads through here.
  static const bool canBeNamed = access("/proc/self/fd", X_OK) == 0;
  if (!canBeNamed) return {};
  return UniqueFd(openat(directory, ".", O_RDWR | O_TMPFILE | O_CLOEXEC, mode));
}

int NameFile(int file, int directory, const std::string& name) {
  const std::string path = "/proc/self/fd/" + std::to_string(file);
  const int result = linkat(AT_FDCWD, path.c_str(), directory, name.c_str(), AT_SYMLINK_FOLLOW);
  return result == 0 ? 0 : errno;
}

std::string TemporaryName() {
  std::random_device random;
  char name[32];
  std::snprintf(name, sizeof name, ".zel-%08x%08x.tmp", random(), random());
  return name;
}

namespace {

constexpr size_t kBufferBytes = 256 * 1024;
constexpr size_t kKernelCopyBytes = size_t{1} << 30;

// Copies up to `limit` bytes, to the end of the source at most, from where both files stand. As far
// as the two file systems let it, the kernel does it. Returns an error number.
int CopyBytes(int source, int destination, uint64_t limit) {
  for (ssize_t copied = 1; limit > 0 && copied > 0;) {
    const size_t wanted = std::min<uint64_t>(limit, kKernelCopyBytes);
    copied = Uninterrupted(
        [&] { return copy_file_range(source, nullptr, destination, nullptr, wanted, 0); });
    if (copied > 0) limit -= static_cast<uint64_t>(copied);
  }

  // Also finds the end: files made by the system have content without having a size.
  const auto buffer = std::make_unique<char[]>(kBufferBytes);
  while (limit > 0) {
    const size_t wanted = std::min<uint64_t>(limit, kBufferBytes);
    const ssize_t count = Uninterrupted([&] { return read(source, buffer.get(), wanted); });
    if (count < 0) return errno;
    if (count == 0) break;
    const int error = WriteAll(destination, buffer.get(), static_cast<size_t>(count));
    if (error != 0) return error;
    limit -= static_cast<uint64_t>(count);
  }
  return 0;
}

int Sync(int file) {
  return Uninterrupted([&] { return fsync(file); }) == 0 ? 0 : errno;
}

// Brings the names in a directory to the disk. One that may be written but not read cannot be asked
// to, and some file systems know nothing of the kind.
int SyncDirectory(int directory) {
  const UniqueFd readable(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!readable) return 0;
  const int error = Sync(readable.Get());
  return error == EINVAL ? 0 : error;
}

bool HasHoles(const struct stat& info) {
  constexpr off_t kBlockBytes = 512;  // of st_blocks, whatever the file system's own
  return info.st_blocks < info.st_size / kBlockBytes;
}

// Copies the first `sizeBytes` bytes and leaves out the holes: a disk image must not fill the disk.
int CopyAroundHoles(int source, int destination, off_t sizeBytes) {
  for (off_t position = 0; position < sizeBytes;) {
    const off_t data = lseek(source, position, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // the rest is a hole
    if (data < 0 && errno == EINVAL)
      return 0;  // the file system cannot tell; nothing has moved yet
    const off_t end = data < 0 ? -1 : lseek(source, data, SEEK_HOLE);
    if (end < 0 || lseek(source, data, SEEK_SET) < 0) return errno;
    if (lseek(destination, data, SEEK_SET) < 0) return errno;
    const int error = CopyBytes(source, destination, static_cast<uint64_t>(end - data));
    if (error != 0) return error;
    position = end;
  }
  if (ftruncate(destination, sizeBytes) != 0) return errno;
  const bool areAtEnd =
      lseek(source, sizeBytes, SEEK_SET) >= 0 && lseek(destination, sizeBytes, SEEK_SET) >= 0;
  return areAtEnd ? 0 : errno;
}

// Copies the whole content into a file that nobody else may read until this has returned.
int CopyContent(int source, const struct stat& info, int destination) {
  if (fchmod(destination, S_IRUSR | S_IWUSR) != 0) return errno;
  const int error = HasHoles(info) ? CopyAroundHoles(source, destination, info.st_size) : 0;
  return error == 0 ? CopyBytes(source, destination, UINT64_MAX) : error;
}

// Copies the content, wherever the source stands, and all that belongs to it onto the disk.
int CopyWhole(int source, int destination) {
  struct stat info;
  if (fstat(source, &info) != 0 || lseek(source, 0, SEEK_SET) < 0) return errno;
  const int error = CopyContent(source, info, destination);
  if (error != 0) return error;
  ApplySecurity(SecurityOf(source, info), destination);
  const struct timespec times[2] = {info.st_atim, info.st_mtim};
  if (futimens(destination, times) != 0) return errno;
  return Sync(destination);
}

// Sends a growing file to the disk and out of the system's cache, some way behind its end. A disk
// that is slower is waited for, so that little is left to wait for at the file's end, where others
// wait, too. Failures do not matter: the file is then cached like any other.
class CacheDrain {
 public:
  void FollowTo(int file, off_t end) {
    if (end - sent_ < kStepBytes) return;
    sync_file_range(file, sent_, end - sent_, SYNC_FILE_RANGE_WRITE);
    sent_ = end;
    if (end <= kCachedBytes) return;
    // Only what has reached the disk can leave.
    sync_file_range(file, 0, end - kCachedBytes, SYNC_FILE_RANGE_WAIT_BEFORE);
    posix_fadvise(file, 0, end - kCachedBytes, POSIX_FADV_DONTNEED);
  }

 private:
  static constexpr off_t kStepBytes = 8 << 20;
  static constexpr off_t kCachedBytes = 32 << 20;

  off_t sent_ = 0;
};

}  // namespace

struct PendingFile::Implementation {
  int Open();
  int OpenNamed();
  int GiveTemporaryName();
  int LinkNameless();
  int MoveToNamed();

  std::filesystem::path directoryPath;
  std::string temporaryName;
  std::string finalName;
  UniqueFd directory;
  UniqueFd file;
  // Whether the file has no name so far: then it is gone as soon as nobody has it open, even when
  // the agent is killed.
  bool isNameless = false;
  bool survivesPowerCuts = false;
  off_t writtenBytes = 0;
  std::optional<CacheDrain> drain;
};

int PendingFile::Implementation::Open() {
  file = OpenNameless(directory.Get(), 0666);
  isNameless = static_cast<bool>(file);
  // Not every file system has files without names.
  return isNameless ? 0 : OpenNamed();
}

int PendingFile::Implementation::OpenNamed() {
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    std::string name = TemporaryName();
    file = UniqueFd(openat(directory.Get(), name.c_str(),
                           O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (file) {
      temporaryName = std::move(name);
      return 0;
    }
    if (errno != EEXIST) return errno;
  }
  return EEXIST;
}

int PendingFile::Implementation::GiveTemporaryName() {
  if (!isNameless) return 0;
  // Some file systems make files without names and then refuse to name them.
  const int error = LinkNameless() == 0 ? 0 : MoveToNamed();
  if (error == 0) isNameless = false;
  return error;
}

int PendingFile::Implementation::LinkNameless() {
  for (int attempt = 0; attempt < kMaxNameAttempts; ++attempt) {
    std::string name = TemporaryName();
    const int error = NameFile(file.Get(), directory.Get(), name);
    if (error == 0) temporaryName = std::move(name);
    if (error != EEXIST) return error;
  }
  return EEXIST;
}

// Goes on with a copy that has a name from its first moment. The file stays as it is when that
// fails.
int PendingFile::Implementation::MoveToNamed() {
  UniqueFd nameless = std::move(file);
  int error = OpenNamed();
  if (error == 0) error = CopyWhole(nameless.Get(), file.Get());
  if (error == 0) return 0;
  if (file) unlinkat(directory.Get(), temporaryName.c_str(), 0);
  temporaryName.clear();
  file = std::move(nameless);
  return error;
}

PendingFile::PendingFile() : implementation_(std::make_unique<Implementation>()) {}

PendingFile::~PendingFile() {
  const Implementation& self = *implementation_;
  if (!self.temporaryName.empty()) unlinkat(self.directory.Get(), self.temporaryName.c_str(), 0);
}

int PendingFile::Create(const std::filesystem::path& destination) {
  Implementation& self = *implementation_;
  self.directoryPath = destination.parent_path();
  self.finalName = destination.filename().native();
  if (self.finalName.empty()) return kErrorIsDirectory;
  self.directory = UniqueFd(open(self.directoryPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return self.directory ? self.Open() : errno;
}

void PendingFile::KeepOutOfCache() {
  implementation_->drain.emplace();
}

void PendingFile::SurvivePowerCuts() {
  implementation_->survivesPowerCuts = true;
}

int PendingFile::Write(const void* bytes, size_t count) {
  Implementation& self = *implementation_;
  const int error = WriteAll(self.file.Get(), bytes, count);
  if (error != 0) return error;
  self.writtenBytes += static_cast<off_t>(count);
  if (self.drain) self.drain->FollowTo(self.file.Get(), self.writtenBytes);
  return 0;
}

int PendingFile::WriteAt(uint64_t offset, const void* bytes, size_t count) {
  return WriteAllAt(implementation_->file.Get(), offset, bytes, count);
}

int PendingFile::CopyFrom(const std::filesystem::path& source) {
  const int destination = implementation_->file.Get();
  UniqueFd input;
  struct stat info;
  int error = OpenRegular(source, &input, &info);
  if (error == 0) error = CopyContent(input.Get(), info, destination);
  if (error != 0) return error;

  if (fchmod(destination, info.st_mode & kPermissions) != 0) return errno;
  const struct timespec times[2] = {{0, UTIME_OMIT}, info.st_mtim};
  return futimens(destination, times) == 0 ? 0 : errno;
}

int PendingFile::CloneFrom(const std::filesystem::path& source) {
  const int destination = implementation_->file.Get();
  UniqueFd input;
  struct stat info;
  int error = OpenRegular(source, &input, &info);
  if (error == 0) error = CopyContent(input.Get(), info, destination);
  if (error != 0) return error;

  Security security = SecurityOf(input.Get(), info);
  if ((security.mode & kAnyWrite) == 0) security.mode |= S_IWUSR;
  ApplySecurity(security, destination);
  const struct timespec times[2] = {info.st_atim, info.st_mtim};
  if (futimens(destination, times) != 0) return errno;
  return Sync(destination);
}

int PendingFile::WriteInPlaceOf(const std::filesystem::path& replaced, const void* bytes,
                                size_t count) {
  const int file = implementation_->file.Get();
  const auto security = SecurityOf(replaced);
  if (!security) return kErrorNotFound;
  if (fchmod(file, S_IRUSR | S_IWUSR) != 0) return errno;
  const int error = Write(bytes, count);
  if (error != 0) return error;
  ApplySecurity(*security, file);
  return Sync(file);
}

int PendingFile::SetModified(int64_t unixSeconds) {
  const struct timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(unixSeconds), 0}};
  return futimens(implementation_->file.Get(), times) == 0 ? 0 : errno;
}

int PendingFile::Commit(bool replace) {
  Implementation& self = *implementation_;
  const int directory = self.directory.Get();
  // First the content: a name that reaches the disk before it would be an empty file's.
  int error = self.survivesPowerCuts ? Sync(self.file.Get()) : 0;
  // Complete as it is, it may be seen under a name now; a rename puts it in the place of another.
  if (error == 0) error = self.GiveTemporaryName();
  if (error != 0) return error;
  const char* from = self.temporaryName.c_str();
  const char* to = self.finalName.c_str();
  // Some file systems report a full disk only here.
  if (close(self.file.Release()) != 0 && errno != EINTR) return errno;
  if (!replace) {
    error = RenameFileAt(directory, from, directory, to);
  } else if (renameat(directory, from, directory, to) != 0) {
    error = errno;
  }
  if (error != 0) return error;
  self.temporaryName.clear();
  if (self.survivesPowerCuts) error = SyncDirectory(directory);
  // What is not sure to last does not count, and only what has replaced nothing can be taken back.
  if (error != 0 && !replace) unlinkat(directory, to, 0);
  return error;
}

std::filesystem::path PendingFile::Path() const {
  Implementation& self = *implementation_;
  // Where it cannot have a name, nobody is to take the directory for it.
  if (self.GiveTemporaryName() != 0) return {};
  return self.directoryPath / self.temporaryName;
}

}  // namespace file_system
