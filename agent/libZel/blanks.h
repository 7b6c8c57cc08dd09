#pragma once

#include <string_view>

/// The text without the blanks at its ends, a part of it.
inline std::string_view TrimBlanks(std::string_view text, std::string_view blanks = " \t") {
  const size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}
