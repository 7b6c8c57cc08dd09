// Whether bytes look like text: the answer that the bytes give one by one, wherever they lie.

#include <algorithm>
#include <cstdint>
#include <string_view>

#include "agent/libZel/text_test.h"
#include "tests/fuzz/require.h"

namespace {

// What docs/actions/files.md calls text: all but control characters other than these.
bool IsTextByte(char byte) {
  const auto code = static_cast<unsigned char>(byte);
  return (code >= 0x20 && code != 0x7F) ||
         std::string_view("\a\b\t\n\v\f\r\x1B").find(byte) != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (size_t start = 0; start <= std::min<size_t>(size, 40); ++start) {
    const std::string_view rest = bytes.substr(start);
    Require(LooksLikeText(rest.data(), rest.size()) ==
            std::all_of(rest.begin(), rest.end(), IsTextByte));
  }
  return 0;
}
