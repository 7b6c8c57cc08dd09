#pragma once

#include <charconv>
#include <optional>
#include <string_view>
#include <system_error>

/// The number that these digits, and nothing else, are; none when they are no digits or `Number`
/// cannot hold it.
template <typename Number>
std::optional<Number> ReadWholeNumber(std::string_view digits, int base = 10) {
  Number number = 0;
  const char* const end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, number, base);
  if (error != std::errc() || rest != end) return std::nullopt;
  return number;
}
