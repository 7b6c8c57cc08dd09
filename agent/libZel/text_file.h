#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "agent/libZel/outcome.h"

/// The largest file that is read as lines.
constexpr size_t kMaxTextFileBytes = size_t{16} << 20;

/// Reads all of a regular file; one larger than `kMaxTextFileBytes` is an error. Throws only for
/// want of memory.
Outcome ReadTextFile(const std::filesystem::path& path, std::string* bytes);
