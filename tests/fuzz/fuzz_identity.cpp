// The file of a device's identity, which people copy and restore: it holds one UUID, or the reason
// that it does not names the file. It is never replaced.

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

#include "agent/libZelCore/identity.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

bool IsUuid(std::string_view text) {
  constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  return std::equal(text.begin(), text.end(), kForm.begin(), kForm.end(), [](char c, char form) {
    const bool isDigit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    return form == '-' ? c == '-' : isDigit;
  });
}

std::string LowerCase(std::string text) {
  for (char& c : text) {
    if (c >= 'A' && c <= 'F') c = static_cast<char>(c | 0x20);
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch scratch;
  const std::filesystem::path file = scratch / "identity";
  const std::string content(reinterpret_cast<const char*>(data), size);
  WriteBytes(file, content);
  try {
    const std::string identity = DeviceIdentity(file);
    Require(IsUuid(identity) && identity.find_first_not_of("0-") != std::string::npos);
    Require(LowerCase(content).starts_with(identity));
    Require(content.find_first_not_of("\r\n", identity.size()) == std::string::npos);
  } catch (const std::runtime_error& error) {
    Require(std::string_view(error.what()).find(file.native()) != std::string_view::npos);
  }
  Require(ReadBytes(file) == content);
  return 0;
}
