#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {

/// A file in this directory that has no name and goes with its last descriptor, however the process
/// ends. Invalid where the system or the file system has no such files, or none could be made.
UniqueFd OpenNameless(int directory, mode_t mode);

/// Gives such a file its name. Returns an error number, EEXIST when the name is taken.
int NameFile(int file, int directory, const std::string& name);

/// A name that no file has, for one that is not complete yet: ".zel-<random>.tmp".
std::string TemporaryName();

/// Writes all the bytes from where the file stands. Returns an error number, or 0.
int WriteAll(int fd, const char* bytes, size_t count);

}  // namespace file_system
