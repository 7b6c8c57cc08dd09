#include "agent/libZel/text_test.h"

namespace {

// Eight-bit arithmetic without branches or tables, so that the compiler makes it one operation on
// many bytes.
constexpr unsigned char IsBinary(unsigned char byte) {
  constexpr unsigned char kBell = 7;
  constexpr unsigned char kFormatCount = 7;  // BEL, BS, TAB, LF, VT, FF, CR
  constexpr unsigned char kEscape = 27;
  constexpr unsigned char kDelete = 127;
  const bool isControl = byte < ' ';
  const bool isFormat = static_cast<unsigned char>(byte - kBell) < kFormatCount;
  return (isControl & !isFormat & (byte != kEscape)) | (byte == kDelete);
}

bool HasBinary(const unsigned char* bytes, size_t count) {
  unsigned char found = 0;
  for (size_t i = 0; i < count; ++i) found |= IsBinary(bytes[i]);
  return found != 0;
}

}  // namespace

bool LooksLikeText(const char* text, size_t count) {
  constexpr size_t kBlock = 32;
  const auto* bytes = reinterpret_cast<const unsigned char*>(text);
  for (; count >= kBlock; bytes += kBlock, count -= kBlock) {
    if (HasBinary(bytes, kBlock)) return false;
  }
  return !HasBinary(bytes, count);
}
