#include "agent/libZel/network/name_lookup.h"

std::vector<HostAddress> LookUpHost(const std::string&, AddressKind, std::chrono::milliseconds) {
  return {};
}
