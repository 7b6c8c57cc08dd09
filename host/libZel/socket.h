#pragma once

#include <memory>

struct sockaddr_in;

/// A socket; closed with the object. Nothing here throws. One thread at a time.
class NetworkSocket {
 public:
  virtual ~NetworkSocket();
  NetworkSocket(const NetworkSocket&) = delete;
  NetworkSocket& operator=(const NetworkSocket&) = delete;

  /// Sets an option of the socket's own level. Options have Winsock's numbers on every platform; 32
  /// (SO_BROADCAST), with `value` 1, allows datagrams to broadcast addresses. False for any other
  /// option and when the system refuses.
  bool SetOption(int option, int value);

 protected:
  struct Implementation;
  explicit NetworkSocket(std::unique_ptr<Implementation> implementation);
  Implementation& GetImplementation() { return *implementation_; }

 private:
  std::unique_ptr<Implementation> implementation_;
};

/// A socket whose peers are not looked at.
class UncheckedSocket : public NetworkSocket {
 public:
  /// Sends `length` bytes as one datagram to an IPv4 address; port and address are in network byte
  /// order. Returns the number of bytes sent, -1 on failure with the reason in the library's log.
  int SendTo(sockaddr_in& to, char* data, unsigned length);

 protected:
  using NetworkSocket::NetworkSocket;
};

/// A UDP socket over IPv4.
class UdpSocket : public UncheckedSocket {
 private:
  friend class SocketFactory;
  using UncheckedSocket::UncheckedSocket;
};

/// Makes sockets.
class SocketFactory {
 public:
  /// A UDP socket bound to nothing yet; null, with the reason in the library's log, when the system
  /// gives none.
  static std::unique_ptr<UdpSocket> CreateUdp();
};
