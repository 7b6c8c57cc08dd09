#pragma once

#include <cstddef>
#include <string>

namespace file_system {

/// A name that no file has, for one that is not complete yet: ".zel-<random>.tmp".
std::string TemporaryName();

/// Writes all the bytes from where the file stands. Returns an error number, or 0.
int WriteAll(int fd, const char* bytes, size_t count);

}  // namespace file_system
