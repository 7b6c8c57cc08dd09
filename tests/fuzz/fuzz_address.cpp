// Addresses as people write them: of IPv4 as the system reads the one form that is taken, of
// hardware, masks, and of agents.

#include <arpa/inet.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZel/network/name_lookup.h"
#include "agent/libZelCore/remote_invocation.h"
#include "agent/zelctl/network_commands.h"
#include "libZel/ip_address.h"
#include "tests/fuzz/require.h"

namespace {

void CheckIpv4(const std::string& text) {
  const auto address = ParseIpv4(text);
  in_addr known{};
  const bool isKnown =
      text.find('\0') == std::string::npos && inet_pton(AF_INET, text.c_str(), &known) == 1;
  Require(address.has_value() == isKnown);
  if (isKnown) Require(ntohl(known.s_addr) == *address);

  IpAddress object;
  Require(object.SetTo(ZelString(text)) == isKnown);
}

void CheckMac(const std::string& text) {
  const auto digits = ParseMac(text);
  if (!digits) return;
  Require(digits->size() == 12 && text.size() <= 17);
  for (const char c : *digits) Require(std::isxdigit(static_cast<unsigned char>(c)) != 0);
  Require(ParseMac(*digits) == digits);
}

void CheckMask(const std::string& text) {
  const auto mask = ParseMask(text);
  if (!mask) return;
  // Ones, then zeros.
  const uint32_t zeros = ~*mask;
  Require((zeros & (zeros + 1)) == 0);
}

void CheckAgent(const std::string& text) {
  if (!CheckAgentAddress(text).empty()) return;
  Require(text.starts_with("http://") || text.starts_with("https://") ||
          std::isupper(static_cast<unsigned char>(text[0])) != 0 || text.find(':') != text.npos);
  Require(text.find_first_of("@?# ") == std::string::npos);
  Require(WithoutCredentials(text) == text);
}

// Nothing of what stands before the host is shown.
void CheckCredentials(const std::string& text) {
  const std::string shown = WithoutCredentials("http://pc-1:SECRET@" + text);
  Require(shown.find("SECRET") == std::string::npos || text.find("SECRET") != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckIpv4(text);
  CheckMac(text);
  CheckMask(text);
  CheckAgent(text);
  CheckCredentials(text);
  return 0;
}
