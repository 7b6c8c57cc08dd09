// ZelString: formatting, encodings and editing on any input.

#include <cstdint>
#include <string>
#include <string_view>

#include "libZel/string.h"
#include "tests/fuzz/require.h"

namespace {

/// A text survives the trip through either encoding.
void CheckRoundTrips(const ZelString& text) {
  ZelString copy;
  Require(copy.Assign(text.GetString(kEncodingUtf8), text.GetSize(kEncodingUtf8), kEncodingUtf8));
  Require(copy == text);
  Require(
      copy.Assign(text.GetString(kEncodingUtf16), text.GetSize(kEncodingUtf16), kEncodingUtf16));
  Require(copy == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string_view formatBytes = input.substr(0, input.find('\n'));
  const std::string argumentBytes(input.substr(std::min(formatBytes.size(), input.size())));

  const ZelString format(formatBytes);
  const ZelString argument{std::string_view(argumentBytes)};
  CheckRoundTrips(format);
  CheckRoundTrips(argument);

  ZelString result;
  result.Printf(format, argument, argumentBytes.c_str(), argument.GetTCHAR(), -1, 7u, size);
  CheckRoundTrips(result);
  result.Printf(format, size, argument, 'x', argument);
  CheckRoundTrips(result);

  ZelString edited = argument;
  edited.ReplaceAll(format, "\xFF", true);
  CheckRoundTrips(edited);
  edited.Remove(size % 7, size % 5);
  CheckRoundTrips(edited);
  CheckRoundTrips(argument.SubString(size % 11, size % 13));
  (void)argument.ToUL(0);
  (void)argument.ToInt64(16);
  return 0;
}
