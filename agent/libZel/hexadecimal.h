#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// The bytes as digits, two small ones for each.
inline std::string Hexadecimal(const unsigned char* bytes, size_t count) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(2 * count);
  for (size_t i = 0; i < count; ++i) {
    text += kDigits[bytes[i] >> 4];
    text += kDigits[bytes[i] & 15];
  }
  return text;
}

inline std::string Hexadecimal(std::string_view bytes) {
  return Hexadecimal(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
}
