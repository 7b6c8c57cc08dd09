#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>

#include "agent/libZelCore/local_address.h"

namespace {

// Empty for what is no address that others could use.
std::string AddressText(const sockaddr* address) {
  char text[INET6_ADDRSTRLEN] = {};
  if (address->sa_family == AF_INET) {
    const auto* const v4 = reinterpret_cast<const sockaddr_in*>(address);
    ::inet_ntop(AF_INET, &v4->sin_addr, text, sizeof text);
  } else if (address->sa_family == AF_INET6) {
    const auto* const v6 = reinterpret_cast<const sockaddr_in6*>(address);
    if (!IN6_IS_ADDR_LINKLOCAL(&v6->sin6_addr))
      ::inet_ntop(AF_INET6, &v6->sin6_addr, text, sizeof text);
  }
  return text;
}

std::string FirstAddressOf(int family, const ifaddrs* interfaces) {
  for (const ifaddrs* one = interfaces; one; one = one->ifa_next) {
    const bool isUsable = one->ifa_addr && one->ifa_addr->sa_family == family &&
                          (one->ifa_flags & IFF_UP) != 0 && (one->ifa_flags & IFF_LOOPBACK) == 0;
    if (!isUsable) continue;
    std::string text = AddressText(one->ifa_addr);
    if (!text.empty()) return text;
  }
  return {};
}

}  // namespace

std::string FirstAddress() {
  ifaddrs* interfaces = nullptr;
  if (::getifaddrs(&interfaces) != 0) return {};
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> owner(interfaces, ::freeifaddrs);
  const std::string v4 = FirstAddressOf(AF_INET, interfaces);
  return v4.empty() ? FirstAddressOf(AF_INET6, interfaces) : v4;
}
