#include "libZel/ping.h"

#include <algorithm>
#include <chrono>
#include <span>
#include <string>

#include "agent/libZel/boundary.h"
#include "agent/libZel/debug_context.h"
#include "agent/libZel/network/icmp_echo.h"
#include "agent/libZel/network/name_lookup.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kNameLimit{10};
constexpr std::chrono::seconds kAnswerLimit{4};
constexpr size_t kMaxAddresses = 4;

std::string Text(std::span<const HostAddress> addresses) {
  std::string text;
  for (const HostAddress& address : addresses) {
    if (!text.empty()) text += ", ";
    text += address.Text();
  }
  return text;
}

}  // namespace

bool PingAny(const ZelString& host, const std::vector<HostAddress>& addresses, milliseconds limit,
             EchoSender send) {
  const auto end = steady_clock::now() + limit;
  const size_t count = std::min(addresses.size(), kMaxAddresses);
  for (size_t i = 0; i < count; ++i) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    const auto share = std::max(left, milliseconds::zero()) / static_cast<int>(count - i);
    if (send(addresses[i], share) == EchoAnswer::kCame) return true;
  }
  // Without an address the look-up said so.
  if (count > 0) {
    LibraryLog().PrintWithNL("The host \"%S\" did not answer within %s ms: no echo reply from %s",
                             host, std::to_string(limit.count()), Text({addresses.data(), count}));
  }
  return false;
}

bool PingICMP(ZelString host) {
  return Guarded("PingICMP", false, [&] {
    const auto addresses = LookUpHost(std::string(host.Utf8()), AddressKind::kAny, kNameLimit);
    return PingAny(host, addresses, kAnswerLimit, SendEcho);
  });
}
