#include <winsock2.h>

#include <ws2tcpip.h>

#include <iphlpapi.h>

#include <cstddef>
#include <vector>

#include "agent/libZelCore/local_address.h"

namespace {

// The answer's list lies in the buffer; empty when the system does not tell.
std::vector<std::byte> Adapters(ULONG family) {
  constexpr ULONG kFlags =
      GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
  constexpr int kAttempts = 3;  // adapters may appear between two calls
  ULONG size = 16 * 1024;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    std::vector<std::byte> buffer(size);
    const ULONG error = GetAdaptersAddresses(
        family, kFlags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
    if (error == ERROR_SUCCESS) return buffer;
    if (error != ERROR_BUFFER_OVERFLOW) break;
  }
  return {};
}

// Empty for what is no address that others could use.
std::string AddressText(const SOCKET_ADDRESS& address) {
  const auto* const v6 = reinterpret_cast<const sockaddr_in6*>(address.lpSockaddr);
  if (v6->sin6_family == AF_INET6 && IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr)) return {};
  char text[NI_MAXHOST] = {};
  const int error = getnameinfo(address.lpSockaddr, address.iSockaddrLength, text, sizeof text,
                                nullptr, 0, NI_NUMERICHOST);
  return error == 0 ? text : "";
}

std::string FirstAddressOf(ULONG family) {
  const std::vector<std::byte> buffer = Adapters(family);
  if (buffer.empty()) return {};
  const auto* adapter = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.data());
  for (; adapter; adapter = adapter->Next) {
    const bool isUsable =
        adapter->OperStatus == IfOperStatusUp && adapter->IfType != IF_TYPE_SOFTWARE_LOOPBACK;
    if (!isUsable) continue;
    for (const auto* one = adapter->FirstUnicastAddress; one; one = one->Next) {
      std::string text = AddressText(one->Address);
      if (!text.empty()) return text;
    }
  }
  return {};
}

}  // namespace

std::string FirstAddress() {
  WSADATA data{};
  if (WSAStartup(MAKEWORD(2, 2), &data) != 0) return {};
  std::string address = FirstAddressOf(AF_INET);
  if (address.empty()) address = FirstAddressOf(AF_INET6);
  WSACleanup();
  return address;
}
