#include "libZel/socket.h"

#include <utility>

struct NetworkSocket::Implementation {};

NetworkSocket::NetworkSocket(std::unique_ptr<Implementation> implementation)
    : implementation_(std::move(implementation)) {}
NetworkSocket::~NetworkSocket() = default;

bool NetworkSocket::SetOption(int, int) {
  return false;
}
int UncheckedSocket::SendTo(sockaddr_in&, char*, unsigned) {
  return -1;
}
std::unique_ptr<UdpSocket> SocketFactory::CreateUdp() {
  return nullptr;
}
