// URLs: what is taken apart can be put together and taken apart again.

#include <cstdint>
#include <string>
#include <string_view>

#include "libZel/url.h"
#include "tests/fuzz/require.h"

namespace {

std::string Encoded(const ZelString& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string encoded;
  for (const char c : text.Utf8()) {
    const auto byte = static_cast<unsigned char>(c);
    encoded += {'%', kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return encoded;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ZelString input(std::string_view(reinterpret_cast<const char*>(data), size));
  UrlParseInet url;
  if (url.LoadUrl(input) == 0) {
    Require(url.GetUser().IsEmpty() && url.GetPassword().IsEmpty() && url.GetHost().IsEmpty());
    return 0;
  }
  Require(UrlParseInet::CanHandleUrl(input) == 1);
  Require(!url.GetHost().IsEmpty());

  const std::string host(url.GetHost().Utf8());
  const bool isIpv6 = host.find(':') != host.npos;
  UrlParseInet again;
  Require(again.LoadUrl(ZelString("http://" + Encoded(url.GetUser()) + ":" +
                                  Encoded(url.GetPassword()) + "@" +
                                  (isIpv6 ? "[" + host + "]" : host))) == 1);
  Require(again.GetUser() == url.GetUser());
  Require(again.GetPassword() == url.GetPassword());
  Require(again.GetHost() == url.GetHost());
  return 0;
}
