#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "libZel/string.h"

// How the transcript shows arguments.

inline std::string Escape(char character) {
  constexpr const char* kDigits = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(character);
  return std::string("\\x") + kDigits[byte >> 4] + kDigits[byte & 15];
}

/// A text; control characters as "\x0a".
inline std::string Quote(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    const bool isControl = static_cast<unsigned char>(character) < 0x20;
    quoted += isControl ? Escape(character) : std::string(1, character);
  }
  return quoted + "\"";
}

inline std::string Quote(const ZelString& text) {
  return Quote(text.Utf8());
}

inline std::string Quote(const ZelString* text) {
  return text ? Quote(*text) : "null";
}

/// Bytes of a file: everything that is no ASCII text as "\xff".
inline std::string QuoteBytes(std::string_view bytes) {
  std::string quoted = "\"";
  for (const char byte : bytes) {
    const bool isPlain = byte >= 0x20 && byte < 0x7F;
    quoted += isPlain ? std::string(1, byte) : Escape(byte);
  }
  return quoted + "\"";
}

inline std::string Flag(bool value) {
  return value ? "true" : "false";
}

inline std::string Pointer(const void* pointer) {
  return pointer ? std::to_string(reinterpret_cast<uintptr_t>(pointer)) : "null";
}

inline std::string AllBits(uint32_t value) {
  return value == ~0U ? "~0" : std::to_string(value);
}

/// The arguments with commas between them.
template <typename... Parts>
std::string List(const std::string& first, const Parts&... rest) {
  std::string list = first;
  ((list += ", " + std::string(rest)), ...);
  return list;
}
