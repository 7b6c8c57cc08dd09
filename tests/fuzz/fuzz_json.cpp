// The JSON form of containers: whatever is taken survives the trip through its own text.

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZelCore/json_codec.h"
#include "tests/fuzz/require.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);

  const JsonDecodeResult first = DecodeContainer(input);
  if (!first.error.empty()) {
    Require(first.container.CountKeys() == 0);
  } else {
    std::string json;
    EncodeContainer(first.container, &json);
    const JsonDecodeResult second = DecodeContainer(json);
    Require(second.error.empty());
    Require(second.container == first.container);
  }

  // Any text is a value that travels.
  ZelContainer container;
  container.SetString(ZelString(input), ZelString(input), 0);
  std::string json;
  EncodeContainer(container, &json);
  const JsonDecodeResult back = DecodeContainer(json);
  Require(back.error.empty());
  Require(back.container == container);
  return 0;
}
