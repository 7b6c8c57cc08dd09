#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

// UTF-8 (RFC 3629) and its superset WTF-8, which can also hold lone surrogates.

constexpr bool IsHighSurrogate(uint32_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}
constexpr bool IsLowSurrogate(uint32_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}
constexpr bool IsSurrogate(uint32_t unit) {
  return unit >= 0xD800 && unit <= 0xDFFF;
}
/// The code point of a surrogate pair.
constexpr uint32_t CombineSurrogates(uint32_t high, uint32_t low) {
  return 0x10000 + ((high - 0xD800) << 10) + (low - 0xDC00);
}

/// Decodes the code point (surrogates included) at the start of `bytes`: its length in bytes, or 0
/// when there is no whole, shortest-form one.
size_t DecodeWtf8(std::string_view bytes, uint32_t* codePoint);

/// Appends a code point up to U+10FFFF; surrogates take three bytes.
void AppendWtf8(uint32_t codePoint, std::string* text);

/// Whether `bytes` are UTF-8 throughout: shortest forms, no surrogates.
bool IsUtf8(std::string_view bytes);

/// What a byte that belongs to no character is added to: 0xDC80 to 0xDCFF are lone surrogates.
constexpr uint32_t kByteEscapeBase = 0xDC00;

/// Any bytes as WTF-8: one that belongs to no character becomes a lone surrogate U+DC80..U+DCFF.
/// Three bytes that would stand for a surrogate are no character either, so that `UnescapeBytes`
/// gives exactly the bytes back.
std::string EscapeBytes(std::string_view bytes);

/// The other way: the surrogates U+DC80..U+DCFF become the bytes that they stand for. Whatever else
/// is not UTF-8 is copied as it is; `*isWhole`, unless null, is set to false then.
std::string UnescapeBytes(std::string_view wtf8, bool* isWhole = nullptr);
