#include "agent/libZel/file_system.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "agent/libZel/platform/posix/rename.h"
#include "agent/libZel/system_error_text.h"

namespace {

// A file system that lacks the flag answers EINVAL, a system that lacks the call ENOSYS.
bool LacksNoReplace(int error) {
  return error == EINVAL || error == ENOSYS || error == EOPNOTSUPP;
}

int RenameNoReplace(int sourceDir, const char* source, int destinationDir,
                    const char* destination) {
  return renameat2(sourceDir, source, destinationDir, destination, RENAME_NOREPLACE) == 0 ? 0
                                                                                          : errno;
}

file_system::Status StatusOf(const struct stat& info) {
  using file_system::Kind;
  file_system::Status status;
  status.kind = S_ISDIR(info.st_mode)                            ? Kind::kDirectory
                : S_ISREG(info.st_mode) || S_ISLNK(info.st_mode) ? Kind::kFile
                                                                 : Kind::kOther;
  status.sizeBytes = static_cast<uint64_t>(info.st_size);
  status.identity = {info.st_dev, info.st_ino};
  status.isLink = S_ISLNK(info.st_mode);
  return status;
}

file_system::Status StatusOfError(int error) {
  file_system::Status status;
  status.error = error;
  return status;
}

}  // namespace

int RenameFileAt(int sourceDir, const char* source, int destinationDir, const char* destination) {
  const int error = RenameNoReplace(sourceDir, source, destinationDir, destination);
  if (!LacksNoReplace(error)) return error;
  if (linkat(sourceDir, source, destinationDir, destination, 0) != 0) return errno;
  if (unlinkat(sourceDir, source, 0) == 0) return 0;
  const int unlinkError = errno;
  unlinkat(destinationDir, destination, 0);
  return unlinkError;
}

int RenameDirectoryAt(int sourceDir, const char* source, int destinationDir,
                      const char* destination) {
  const int error = RenameNoReplace(sourceDir, source, destinationDir, destination);
  if (!LacksNoReplace(error)) return error;
  // A new, empty directory of our own keeps the name; a directory may be renamed over it.
  if (mkdirat(destinationDir, destination, 0700) != 0) return errno;
  if (renameat(sourceDir, source, destinationDir, destination) == 0) return 0;
  const int renameError = errno;
  unlinkat(destinationDir, destination, AT_REMOVEDIR);
  return renameError;
}

namespace file_system {

const int kErrorNotFound = ENOENT;
const int kErrorExists = EEXIST;
const int kErrorIsDirectory = EISDIR;
const int kErrorNotRegular = EOPNOTSUPP;
const int kErrorSameFile = EINVAL;
const int kErrorInvalidName = EINVAL;
const int kErrorOtherVolume = EXDEV;

ZelString ErrorText(int error) {
  return ZelString(SystemErrorText(error));
}

Status Look(const std::filesystem::path& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0 ? StatusOf(info) : StatusOfError(errno);
}

Status LookAtEntry(const std::filesystem::path& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0 ? StatusOf(info) : StatusOfError(errno);
}

std::filesystem::path TemporaryDirectory() {
  return std::filesystem::temp_directory_path();
}

int RenameFile(const std::filesystem::path& source, const std::filesystem::path& destination) {
  return RenameFileAt(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str());
}

int RenameDirectory(const std::filesystem::path& source, const std::filesystem::path& destination) {
  return RenameDirectoryAt(AT_FDCWD, source.c_str(), AT_FDCWD, destination.c_str());
}

int CopyLink(const std::filesystem::path& source, const std::filesystem::path& destination) {
  std::error_code error;
  const std::filesystem::path target = std::filesystem::read_symlink(source, error);
  if (error) return error.value();
  return symlink(target.c_str(), destination.c_str()) == 0 ? 0 : errno;
}

// Whether a file may be deleted is its directory's matter here: there is no mark to overcome.
int RemoveFile(const std::filesystem::path& path, bool /*force*/) {
  return unlink(path.c_str()) == 0 ? 0 : errno;
}

int MakeDirectory(const std::filesystem::path& path) {
  return mkdir(path.c_str(), 0777) == 0 ? 0 : errno;
}

int DeleteDirectory(const std::filesystem::path& path) {
  return rmdir(path.c_str()) == 0 ? 0 : errno;
}

int DeleteDirectoryLink(const std::filesystem::path& path) {
  return RemoveFile(path, false);
}

}  // namespace file_system
