#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// How long a line may be, in bytes of UTF-8: behind so many it ends at the next blank, and behind
/// so many at the latest.
struct LineLimits {
  size_t atBlankBytes;
  size_t anywhereBytes;
};

/// `text`, UTF-8, with '\n' in place of blanks, or between characters, where its lines are longer:
/// what toolkits take to wrap a line grows with the square of its length. No character is broken.
std::string WithBrokenLines(std::string_view text, const LineLimits& limits);
