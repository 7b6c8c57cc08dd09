// Base64: any bytes come back as they were, and any text is refused or stands for bytes whose own
// text is the same but for blanks.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "libZel/base64.h"
#include "tests/fuzz/require.h"

namespace {

using Bytes = std::unique_ptr<char, void (*)(void*)>;

Bytes Decode(std::string_view text, uint32_t* length) {
  *length = static_cast<uint32_t>(text.size());
  // A copy of its own, so that reading past the end is seen.
  const auto copy = std::make_unique<unsigned char[]>(text.size());
  if (!text.empty()) std::memcpy(copy.get(), text.data(), text.size());
  return {DecodeBase64(copy.get(), length), std::free};
}

void CheckBytes(const uint8_t* data, size_t size) {
  const ZelString text = EncodeBase64(data, static_cast<uint32_t>(size));
  Require(text.GetLength() == (size + 2) / 3 * 4);
  uint32_t length = 0;
  const Bytes bytes = Decode(text.Utf8(), &length);
  Require(bytes && length == size && (size == 0 || std::memcmp(bytes.get(), data, size) == 0));
}

void CheckText(std::string_view text) {
  uint32_t length = 0;
  const Bytes bytes = Decode(text, &length);
  if (!bytes) return Require(length == 0);
  std::string compact;
  for (const char c : text) {
    if (std::string_view(" \t\r\n").find(c) == std::string_view::npos) compact += c;
  }
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.get());
  Require(EncodeBase64(data, length).Utf8() == compact);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  CheckBytes(data, size);
  CheckText(std::string_view(reinterpret_cast<const char*>(data), size));
  return 0;
}
