// The reader of HTTP requests: any bytes, in any pieces, with the same outcome.

#include <algorithm>
#include <boost/asio/buffer.hpp>
#include <boost/beast/http/error.hpp>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZelCore/http_request.h"
#include "tests/fuzz/require.h"

namespace {

namespace http = boost::beast::http;

struct Outcome {
  bool isDone = false;
  bool isRefused = false;
  HttpRequest request;
};

/// Reads `input` as if `pieceBytes` of it arrived at a time.
Outcome Parse(std::string_view input, size_t pieceBytes) {
  Outcome outcome;
  HttpRequestParser parser(&outcome.request);
  parser.header_limit(4096);
  parser.body_limit(4096);
  parser.eager(true);
  std::string pending;
  while (!outcome.isDone && !outcome.isRefused && !input.empty()) {
    const std::string_view piece = input.substr(0, pieceBytes);
    pending += piece;
    input.remove_prefix(piece.size());
    while (!pending.empty() && !parser.is_done()) {
      boost::beast::error_code ec;
      const size_t used = parser.put(boost::asio::const_buffer(pending.data(), pending.size()), ec);
      pending.erase(0, used);
      if (ec == http::error::need_more) break;
      if (ec) outcome.isRefused = true;
      if (ec) break;
    }
    outcome.isDone = parser.is_done();
  }
  return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const Outcome whole = Parse(input, std::max<size_t>(size, 1));
  const Outcome pieces = Parse(input, 1 + size % 7);
  Require(whole.request.body.size() <= 4096);
  if (whole.isDone && pieces.isDone) {
    Require(whole.request.target == pieces.request.target);
    Require(whole.request.authorization == pieces.request.authorization);
    Require(whole.request.body == pieces.request.body);
  }
  // One of the two may see a limit passed earlier than the other, but neither may take a request
  // that the other refuses for what it says.
  if (whole.isDone) Require(pieces.isDone || pieces.isRefused);
  return 0;
}
