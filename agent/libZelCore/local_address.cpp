#include "agent/libZelCore/local_address.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/udp.hpp>

namespace asio = boost::asio;
using asio::ip::udp;
using ErrorCode = boost::system::error_code;

namespace {

// Any will do: connecting a socket for datagrams only looks for the way.
constexpr const char* kPort = "9";

std::string WithoutBrackets(const std::string& host) {
  const bool hasBrackets = host.starts_with('[') && host.ends_with(']');
  return hasBrackets ? host.substr(1, host.size() - 2) : host;
}

}  // namespace

std::string LocalAddressTowards(const std::string& host) {
  asio::io_context network;
  udp::resolver resolver(network);
  ErrorCode error;
  for (const auto& found : resolver.resolve(WithoutBrackets(host), kPort, error)) {
    udp::socket socket(network);
    socket.connect(found.endpoint(), error);
    if (error) continue;
    const udp::endpoint own = socket.local_endpoint(error);
    if (!error && !own.address().is_unspecified()) return own.address().to_string();
  }
  return {};
}

bool IsWildcardAddress(const std::string& address) {
  ErrorCode error;
  const asio::ip::address parsed = asio::ip::make_address(address, error);
  return !error && parsed.is_unspecified();
}
