#include "agent/libZelCore/local_address.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/udp.hpp>
#include <chrono>
#include <cstdint>

#include "agent/libZel/network/name_lookup.h"

namespace asio = boost::asio;
using asio::ip::udp;
using ErrorCode = boost::system::error_code;

namespace {

// Any will do: connecting a socket for datagrams only looks for the way.
constexpr uint16_t kPort = 9;
constexpr std::chrono::seconds kNameLimit{10};

std::string WithoutBrackets(const std::string& host) {
  const bool hasBrackets = host.starts_with('[') && host.ends_with(']');
  return hasBrackets ? host.substr(1, host.size() - 2) : host;
}

asio::ip::address ToAsio(const HostAddress& address) {
  if (address.isV6) return asio::ip::address_v6(address.bytes, address.scope);
  return asio::ip::address_v4(address.AsIpv4());
}

}  // namespace

std::string LocalAddressTowards(const std::string& host) {
  asio::io_context network;
  ErrorCode error;
  for (const HostAddress& found :
       LookUpHost(WithoutBrackets(host), AddressKind::kAny, kNameLimit, NameAsker::kAgent)) {
    udp::socket socket(network);
    socket.connect({ToAsio(found), kPort}, error);
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
