#pragma once

#include <algorithm>
#include <string>
#include <string_view>

// The characters of ASCII, whatever the locale makes of them. All others are nothing here.

constexpr char AsciiLower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
constexpr char AsciiUpper(char c) {
  return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

constexpr bool IsAsciiDigit(char c) {
  return c >= '0' && c <= '9';
}
constexpr bool IsAsciiLetter(char c) {
  return AsciiLower(c) >= 'a' && AsciiLower(c) <= 'z';
}
constexpr bool IsAsciiAlphanumeric(char c) {
  return IsAsciiLetter(c) || IsAsciiDigit(c);
}
constexpr bool IsHexDigit(char c) {
  return IsAsciiDigit(c) || (AsciiLower(c) >= 'a' && AsciiLower(c) <= 'f');
}

/// What names of the agent's own are made of: letters, digits, ".", "-" and "_".
constexpr bool IsAsciiNameCharacter(char c) {
  return IsAsciiAlphanumeric(c) || c == '.' || c == '-' || c == '_';
}

/// What stands in URLs for itself (RFC 3986 section 2.3).
constexpr bool IsUnreserved(char c) {
  return IsAsciiNameCharacter(c) || c == '~';
}

inline std::string AsciiLower(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) c = AsciiLower(c);
  return lower;
}

inline std::string AsciiUpper(std::string_view text) {
  std::string upper(text);
  for (char& c : upper) c = AsciiUpper(c);
  return upper;
}

inline bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return AsciiLower(x) == AsciiLower(y); });
}
