#include "agent/libZel/network/icmp_echo.h"

#include <netinet/icmp6.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/platform/posix/icmp_message.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/system_error_text.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

/// ICMP has no ports, but sockets without one do not say whom they are connected to.
constexpr uint16_t kAnyPort = 1;

/// An address as the system's calls take it.
struct SocketAddress {
  explicit SocketAddress(const HostAddress& address) {
    if (address.isV6) {
      auto& v6 = reinterpret_cast<sockaddr_in6&>(storage);
      v6.sin6_family = AF_INET6;
      v6.sin6_port = htons(kAnyPort);
      v6.sin6_scope_id = address.scope;
      std::copy_n(address.bytes.begin(), sizeof v6.sin6_addr, v6.sin6_addr.s6_addr);
      length = sizeof v6;
    } else {
      auto& v4 = reinterpret_cast<sockaddr_in&>(storage);
      v4.sin_family = AF_INET;
      v4.sin_port = htons(kAnyPort);
      std::memcpy(&v4.sin_addr, address.bytes.data(), sizeof v4.sin_addr);
      length = sizeof v4;
    }
  }
  SocketAddress() = default;

  sockaddr* Get() { return reinterpret_cast<sockaddr*>(&storage); }
  const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&storage); }

  /// Whether both are the same host, whatever their ports.
  bool IsSameHost(const SocketAddress& other) const {
    if (storage.ss_family != other.storage.ss_family) return false;
    if (storage.ss_family == AF_INET6) {
      const auto& a = reinterpret_cast<const sockaddr_in6&>(storage).sin6_addr;
      const auto& b = reinterpret_cast<const sockaddr_in6&>(other.storage).sin6_addr;
      return std::memcmp(&a, &b, sizeof a) == 0;
    }
    return reinterpret_cast<const sockaddr_in&>(storage).sin_addr.s_addr ==
           reinterpret_cast<const sockaddr_in&>(other.storage).sin_addr.s_addr;
  }

  sockaddr_storage storage{};
  socklen_t length = sizeof(sockaddr_storage);
};

class Echo {
 public:
  explicit Echo(const HostAddress& address) : address_(address), peer_(address) {
    request_.isV6 = address.isV6;
  }

  EchoAnswer Send(milliseconds limit) {
    const auto end = steady_clock::now() + limit;
    if (!Open()) return EchoAnswer::kRefused;
    if (!Connect() || !FillIn() || !SendRequest()) return EchoAnswer::kFailed;
    return Wait(end);
  }

 private:
  /// Sockets of the first kind are for everybody whom the system's administrator lets have them,
  /// those of the second for privileged processes.
  bool Open() {
    const int family = address_.isV6 ? AF_INET6 : AF_INET;
    const int protocol = address_.isV6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP};
    constexpr int kFlags = SOCK_CLOEXEC | SOCK_NONBLOCK;
    socket_ = UniqueFd(socket(family, SOCK_DGRAM | kFlags, protocol));
    if (socket_) return true;
    isRaw_ = true;
    socket_ = UniqueFd(socket(family, SOCK_RAW | kFlags, protocol));
    const int error = errno;
    if (socket_) {
      TakeRepliesOnly();
      return true;
    }
    LibraryLog().PrintWithNL("The system allows no echo requests to %s: %s", address_.Text(),
                             SystemErrorText(error));
    return false;
  }

  /// A raw socket gets all ICMP messages of its peer; over IPv6 most of them are the
  /// neighbourhood's.
  void TakeRepliesOnly() {
    if (!address_.isV6) return;
    icmp6_filter filter;
    ICMP6_FILTER_SETBLOCKALL(&filter);
    ICMP6_FILTER_SETPASS(ICMP6_ECHO_REPLY, &filter);
    // Without the filter it takes longer, and that is all.
    setsockopt(socket_.Get(), IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter);
  }

  /// From then on the system passes messages of this peer alone.
  bool Connect() {
    if (connect(socket_.Get(), peer_.Get(), peer_.length) != 0) return NotSent();
    // An address that stands for another one, as 0.0.0.0 does, became that one.
    if (getpeername(socket_.Get(), peer_.Get(), &peer_.length) != 0) return NotSent();
    return true;
  }

  bool FillIn() {
    if (getrandom(request_.payload.data(), request_.payload.size(), 0) < 0) return NotSent();
    std::memcpy(&request_.sequence, request_.payload.data(), sizeof request_.sequence);
    if (isRaw_) {
      std::memcpy(&request_.identifier, &request_.payload[2], sizeof request_.identifier);
      return true;
    }
    // The system sets the identifier to what it calls the socket's port.
    SocketAddress own;
    if (getsockname(socket_.Get(), own.Get(), &own.length) != 0) return NotSent();
    const auto port = address_.isV6 ? reinterpret_cast<sockaddr_in6&>(own.storage).sin6_port
                                    : reinterpret_cast<sockaddr_in&>(own.storage).sin_port;
    request_.identifier = ntohs(port);
    return true;
  }

  bool SendRequest() {
    const auto bytes = request_.Bytes();
    const ssize_t sent = send(socket_.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(bytes.size()) || NotSent();
  }

  bool NotSent() const {
    const int error = errno;
    LibraryLog().PrintWithNL("No echo request was sent to %s: %s", address_.Text(),
                             SystemErrorText(error));
    return false;
  }

  EchoAnswer Wait(steady_clock::time_point end) {
    for (;;) {
      const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
      if (left <= 0) return EchoAnswer::kNone;
      pollfd ready{socket_.Get(), POLLIN, 0};
      const int count = poll(&ready, 1, static_cast<int>(std::min<int64_t>(left, 60'000)));
      if (count < 0 && errno != EINTR) return EchoAnswer::kNone;
      if (count <= 0) continue;
      if (Receive()) return EchoAnswer::kCame;
    }
  }

  /// Takes one message, whatever it is; whether it is the answer. An error that somebody on the way
  /// reported is taken, too, and proves nothing.
  bool Receive() {
    std::array<uint8_t, 2048> bytes;
    SocketAddress from;
    const ssize_t length =
        recvfrom(socket_.Get(), bytes.data(), bytes.size(), MSG_TRUNC, from.Get(), &from.length);
    if (length < 0 || static_cast<size_t>(length) > bytes.size()) return false;
    std::span<const uint8_t> message(bytes.data(), static_cast<size_t>(length));
    if (isRaw_ && !address_.isV6) message = BehindIpv4Header(message);
    return from.IsSameHost(peer_) && request_.IsAnsweredBy(message);
  }

  const HostAddress& address_;
  SocketAddress peer_;
  EchoRequest request_;
  UniqueFd socket_;
  bool isRaw_ = false;
};

}  // namespace

EchoAnswer SendEcho(const HostAddress& address, milliseconds limit) {
  return Echo(address).Send(limit);
}
