#include "agent/libZel/wtf8.h"

#include <algorithm>
#include <cstring>

namespace {

/// The length of the run of ASCII at the start, looked at in blocks that the compiler takes at
/// once.
size_t AsciiRun(std::string_view bytes) {
  constexpr uint64_t kHighBits = 0x8080808080808080;
  constexpr size_t kBlockBytes = 64;
  size_t length = 0;
  while (bytes.size() - length >= kBlockBytes) {
    uint64_t words[kBlockBytes / sizeof(uint64_t)];
    std::memcpy(words, bytes.data() + length, sizeof words);
    uint64_t all = 0;
    for (const uint64_t word : words) all |= word;
    if ((all & kHighBits) != 0) break;
    length += kBlockBytes;
  }
  while (bytes.size() - length >= sizeof(uint64_t)) {
    uint64_t word;
    std::memcpy(&word, bytes.data() + length, sizeof word);
    if ((word & kHighBits) != 0) break;
    length += sizeof word;
  }
  while (length < bytes.size() && static_cast<unsigned char>(bytes[length]) < 0x80) ++length;
  return length;
}

}  // namespace

size_t DecodeWtf8(std::string_view bytes, uint32_t* codePoint) {
  if (bytes.empty()) return 0;
  const auto lead = static_cast<unsigned char>(bytes[0]);
  if (lead < 0x80) {
    *codePoint = lead;
    return 1;
  }

  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4 || bytes.size() < length) return 0;
  uint32_t value = lead & (0xFFu >> (length + 1));
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    if ((byte & 0xC0) != 0x80) return 0;
    value = (value << 6) | (byte & 0x3F);
  }

  constexpr uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
  if (value < kSmallest[length] || value > 0x10FFFF) return 0;
  *codePoint = value;
  return length;
}

void AppendWtf8(uint32_t codePoint, std::string* text) {
  const auto continuation = [codePoint](int shift) {
    return static_cast<char>(0x80 | ((codePoint >> shift) & 0x3F));
  };
  if (codePoint < 0x80) {
    text->push_back(static_cast<char>(codePoint));
  } else if (codePoint < 0x800) {
    text->push_back(static_cast<char>(0xC0 | (codePoint >> 6)));
    text->push_back(continuation(0));
  } else if (codePoint < 0x10000) {
    text->push_back(static_cast<char>(0xE0 | (codePoint >> 12)));
    text->push_back(continuation(6));
    text->push_back(continuation(0));
  } else {
    text->push_back(static_cast<char>(0xF0 | (codePoint >> 18)));
    text->push_back(continuation(12));
    text->push_back(continuation(6));
    text->push_back(continuation(0));
  }
}

bool IsUtf8(std::string_view bytes) {
  while (!bytes.empty()) {
    bytes.remove_prefix(AsciiRun(bytes));
    if (bytes.empty()) break;
    uint32_t codePoint = 0;
    const size_t length = DecodeWtf8(bytes, &codePoint);
    if (length == 0 || IsSurrogate(codePoint)) return false;
    bytes.remove_prefix(length);
  }
  return true;
}

std::string EscapeBytes(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size() + bytes.size() / 8);
  while (!bytes.empty()) {
    uint32_t codePoint = 0;
    size_t length = DecodeWtf8(bytes, &codePoint);
    if (length == 0 || IsSurrogate(codePoint)) {
      codePoint = kByteEscapeBase + static_cast<unsigned char>(bytes[0]);
      length = 1;
    }
    AppendWtf8(codePoint, &text);
    bytes.remove_prefix(length);
  }
  return text;
}

std::string UnescapeBytes(std::string_view wtf8, bool* isWhole) {
  if (IsUtf8(wtf8)) return std::string(wtf8);
  constexpr uint32_t kFirst = kByteEscapeBase + 0x80;
  constexpr uint32_t kLast = kByteEscapeBase + 0xFF;
  std::string bytes;
  bytes.reserve(wtf8.size());
  while (!wtf8.empty()) {
    uint32_t codePoint = 0;
    const size_t length = DecodeWtf8(wtf8, &codePoint);
    const size_t taken = std::max<size_t>(length, 1);
    if (length > 0 && codePoint >= kFirst && codePoint <= kLast) {
      bytes.push_back(static_cast<char>(codePoint - kByteEscapeBase));
    } else {
      if (isWhole && (length == 0 || IsSurrogate(codePoint))) *isWhole = false;
      bytes.append(wtf8.substr(0, taken));
    }
    wtf8.remove_prefix(taken);
  }
  return bytes;
}
