// Targets of uploads: whatever is taken names one file in one directory, on every platform.

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZelCore/http_route.h"
#include "libZel/string.h"
#include "tests/fuzz/require.h"

namespace {

void RequireSafe(const HttpRoute& route) {
  Require(!route.alias.empty() && route.alias.size() <= 64 && route.alias[0] != '.');
  Require(route.alias != "v1");
  Require(route.alias.find_first_of("/\\%") == std::string::npos);
  Require(!route.file.empty() && route.file.size() <= 255);
  Require(route.file.find_first_of(std::string_view("/\\:*?\"<>|\0", 10)) == std::string::npos);
  Require(!route.file.ends_with('.') && !route.file.ends_with(' '));
  for (const char c : route.file) Require(static_cast<unsigned char>(c) >= 0x20);
  Require(ZelString(route.file).Utf8() == route.file);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using boost::beast::http::verb;
  const std::string_view target(reinterpret_cast<const char*>(data), size);
  const HttpRoute put = FindRoute(verb::put, target);
  const HttpRoute get = FindRoute(verb::get, target);
  const bool isUpload = put.kind == HttpRoute::Kind::kUpload && !put.refusal;
  if (isUpload) RequireSafe(put);
  // Nothing is both read and stored.
  if (isUpload) Require(get.refusal && get.refusal->status == 405);
  if (put.refusal) Require(put.refusal->status >= 400 && !put.refusal->message.empty());
  return 0;
}
