#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "agent/libZel/outcome.h"

/// The largest file that is read as lines.
constexpr size_t kMaxTextFileBytes = size_t{16} << 20;

/// Reads all of a regular file; one larger than `maxBytes` is an error. Throws only for want of
/// memory.
Outcome ReadTextFile(const std::filesystem::path& path, std::string* bytes,
                     size_t maxBytes = kMaxTextFileBytes);

/// Makes the path of a link that of what it leads to in the end: who replaces a file by its name
/// would replace the link. Throws only for want of memory.
Outcome FollowLinks(std::filesystem::path* path);
