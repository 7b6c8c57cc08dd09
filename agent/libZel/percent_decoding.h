#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/libZel/whole_number.h"

/// Undoes percent-encoding (RFC 3986 section 2.1); nothing when it is malformed.
inline std::optional<std::string> DecodePercent(std::string_view text) {
  constexpr size_t kEscape = 3;  // "%2F"
  std::string decoded;
  while (!text.empty()) {
    if (!text.starts_with('%')) {
      decoded += text.front();
      text.remove_prefix(1);
      continue;
    }
    if (text.size() < kEscape) return std::nullopt;
    const auto byte = ReadWholeNumber<uint8_t>(text.substr(1, 2), 16);
    if (!byte) return std::nullopt;
    decoded += static_cast<char>(*byte);
    text.remove_prefix(kEscape);
  }
  return decoded;
}
