#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

/// An address of IPv4 (the first four bytes) or IPv6, in network byte order.
struct HostAddress {
  bool isV6 = false;
  std::array<uint8_t, 16> bytes{};
  /// Of a link-local IPv6 address: the interface's number.
  uint32_t scope = 0;
};

enum class AddressKind { kAny, kV4 };

/// The addresses that the system finds for a host's name (or for an address as text), in its order;
/// empty when there are none, when the system does not answer within `limit`, and when too many
/// names are being looked up already. A look-up that was given up ends by itself later. Throws
/// nothing but std::bad_alloc; any number of threads may call at once.
std::vector<HostAddress> LookUpHost(const std::string& name, AddressKind kind,
                                    std::chrono::milliseconds limit);
