#pragma once

#include <sys/types.h>

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

/// So many of them are tried where they turn out to be taken.
constexpr int kMaxNameAttempts = 100;

}  // namespace file_system
