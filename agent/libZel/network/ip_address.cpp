#include "libZel/ip_address.h"

#include "agent/libZel/boundary.h"
#include "agent/libZel/network/name_lookup.h"

bool IpAddress::SetTo(const ZelString& text) {
  const auto address = ParseIpv4(text.Utf8());
  if (address) address_ = *address;
  return address.has_value();
}

bool IpAddress::SetToHostName(const ZelString& name) {
  return Guarded("SetToHostName", false, [&] {
    const auto found = LookUpHost(std::string(name.Utf8()), AddressKind::kV4, kNameLookupLimit);
    if (found.empty()) return false;
    address_ = found[0].AsIpv4();
    return true;
  });
}
