#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <vector>

/// Reads exactly `count` bytes at `offset` of a file. False when there are fewer.
using ReadAt = std::function<bool(uint64_t offset, void* target, size_t count)>;

/// The version resource of a Portable Executable (32 or 64 bits, any machine), as it stands in the
/// file, without what lies past the 65535 bytes that its own length can name: the first one, in
/// its first language. Nothing when there is none or the file is damaged or none of that kind.
std::optional<std::vector<unsigned char>> ReadVersionResource(const ReadAt& readAt);
