#include "libZel/ping.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "agent/libZel/boundary.h"
#include "agent/libZel/network/icmp_echo.h"
#include "agent/libZel/network/name_lookup.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kNameLimit{10};
constexpr std::chrono::seconds kAnswerLimit{4};
constexpr size_t kMaxAddresses = 4;

}  // namespace

bool PingAny(const std::vector<HostAddress>& addresses, milliseconds limit, EchoSender send) {
  const auto end = steady_clock::now() + limit;
  const size_t count = std::min(addresses.size(), kMaxAddresses);
  for (size_t i = 0; i < count; ++i) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    const auto share = std::max(left, milliseconds::zero()) / static_cast<int>(count - i);
    if (send(addresses[i], share) == EchoAnswer::kCame) return true;
  }
  return false;
}

bool PingICMP(ZelString host) {
  return Guarded("PingICMP", false, [&] {
    const auto addresses = LookUpHost(std::string(host.Utf8()), AddressKind::kAny, kNameLimit);
    return PingAny(addresses, kAnswerLimit, SendEcho);
  });
}
