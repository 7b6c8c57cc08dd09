#include "libZel/socket.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <cstring>
#include <limits>
#include <utility>

#include "agent/libZel/boundary.h"

namespace asio = boost::asio;
using asio::ip::udp;
using ErrorCode = boost::system::error_code;

struct NetworkSocket::Implementation {
  asio::io_context context;
  udp::socket socket{context, udp::v4()};
};

namespace {

/// SO_BROADCAST of Winsock.
constexpr int kBroadcastOption = 32;

void LogReason(const char* what, const ErrorCode& error) {
  LibraryLog().PrintWithNL("%s: %s", what, error.message());
}

}  // namespace

NetworkSocket::NetworkSocket(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}
NetworkSocket::~NetworkSocket() = default;

bool NetworkSocket::SetOption(int option, int value) {
  return Guarded("SetOption", false, [&] {
    if (option != kBroadcastOption) return false;
    ErrorCode error;
    implementation_->socket.set_option(asio::socket_base::broadcast(value != 0), error);
    if (error) LogReason("Datagrams to broadcast addresses cannot be allowed", error);
    return !error;
  });
}

int UncheckedSocket::SendTo(sockaddr_in& to, char* data, unsigned length) {
  return Guarded("SendTo", -1, [&] {
    if (to.sin_family != AF_INET || length > unsigned{std::numeric_limits<int>::max()}) {
      LibraryLog().PrintWithNL("A datagram was not sent: the address or the length is none");
      return -1;
    }
    udp::endpoint endpoint;
    std::memcpy(endpoint.data(), &to, sizeof to);
    ErrorCode error;
    const size_t sent =
        GetImplementation().socket.send_to(asio::buffer(data, length), endpoint, 0, error);
    if (!error) return static_cast<int>(sent);
    LogReason("A datagram was not sent", error);
    return -1;
  });
}

std::unique_ptr<UdpSocket> SocketFactory::CreateUdp() {
  try {
    return std::unique_ptr<UdpSocket>(new UdpSocket(std::make_unique<UdpSocket::Implementation>()));
  } catch (const std::exception& error) {
    LogException("CreateUdp", error.what());
    return nullptr;
  }
}
