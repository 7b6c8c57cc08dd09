#include "libZel/base64.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

namespace {

// RFC 4648, table 1.
constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr uint8_t kNoDigit = 0xFF;
constexpr uint8_t kBlank = 0xFE;
constexpr uint8_t kPadding = 0xFD;

constexpr auto kDigits = [] {
  std::array<uint8_t, 256> digits{};
  digits.fill(kNoDigit);
  for (size_t i = 0; i < kAlphabet.size(); ++i) {
    digits[static_cast<unsigned char>(kAlphabet[i])] = static_cast<uint8_t>(i);
  }
  for (const char blank : {' ', '\t', '\r', '\n'}) digits[static_cast<size_t>(blank)] = kBlank;
  digits['='] = kPadding;
  return digits;
}();

/// Decodes into `bytes`, which has room for three bytes of every four characters; returns their
/// number, or -1. OpenSSL's decoders stop at a "-" and let spare bits pass.
int64_t Decode(const unsigned char* text, size_t length, unsigned char* bytes) {
  unsigned char* out = bytes;
  uint32_t bits = 0;
  unsigned digits = 0;  // of the current group of four
  unsigned padding = 0;
  for (size_t i = 0; i < length; ++i) {
    const uint8_t digit = kDigits[text[i]];
    if (digit == kBlank) continue;
    if (digit == kNoDigit) return -1;
    if (digit == kPadding) {
      if (digits + ++padding > 4 || digits < 2) return -1;
      continue;
    }
    if (padding > 0) return -1;
    bits = (bits << 6) | digit;
    if (++digits < 4) continue;
    *out++ = static_cast<unsigned char>(bits >> 16);
    *out++ = static_cast<unsigned char>(bits >> 8);
    *out++ = static_cast<unsigned char>(bits);
    bits = digits = 0;
  }
  if (digits == 0) return padding == 0 ? out - bytes : -1;
  if (digits + padding != 4) return -1;
  // Bits that no byte uses must be 0 (RFC 4648 section 3.5).
  if (digits == 2) {
    if ((bits & 0xF) != 0) return -1;
    *out++ = static_cast<unsigned char>(bits >> 4);
  } else {
    if ((bits & 3) != 0) return -1;
    *out++ = static_cast<unsigned char>(bits >> 10);
    *out++ = static_cast<unsigned char>(bits >> 2);
  }
  return out - bytes;
}

}  // namespace

ZelString EncodeBase64(const unsigned char* bytes, uint32_t byteCount) {
  // OpenSSL counts in int.
  constexpr uint32_t kPieceBytes = 3U << 28;
  std::string text((size_t{byteCount} + 2) / 3 * 4, '\0');
  auto* out = reinterpret_cast<unsigned char*>(text.data());
  while (byteCount > 0) {
    const uint32_t piece = std::min(byteCount, kPieceBytes);
    out += EVP_EncodeBlock(out, bytes, static_cast<int>(piece));
    bytes += piece;
    byteCount -= piece;
  }
  return ZelString(std::move(text));
}

char* DecodeBase64(const unsigned char* text, uint32_t* length) {
  const size_t textLength = *length;
  *length = 0;
  auto* bytes = static_cast<char*>(std::malloc(textLength / 4 * 3 + 4));
  if (bytes == nullptr) return nullptr;
  const int64_t count = Decode(text, textLength, reinterpret_cast<unsigned char*>(bytes));
  if (count < 0) {
    std::free(bytes);
    return nullptr;
  }
  *length = static_cast<uint32_t>(count);
  return bytes;
}
