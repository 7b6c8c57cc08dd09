#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <utility>

#include "agent/libZel/file_system.h"
#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {

/// Opens the regular file that `path` leads to for reading, and tells what it is. Returns an error
/// number, or 0.
inline int OpenRegular(const std::filesystem::path& path, UniqueFd* file, struct stat* info) {
  // A pipe without a writer, or a device, must not hold us up before it is known for what it is.
  UniqueFd opened(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!opened) return errno;
  if (fstat(opened.Get(), info) != 0) return errno;
  if (S_ISDIR(info->st_mode)) return kErrorIsDirectory;
  if (!S_ISREG(info->st_mode)) return kErrorNotRegular;
  *file = std::move(opened);
  return 0;
}

}  // namespace file_system
