#include "libZel/ping.h"

#include <algorithm>
#include <chrono>
#include <string>

#include "agent/libZel/boundary.h"
#include "agent/libZel/debug_context.h"
#include "agent/libZel/network/icmp_echo.h"
#include "agent/libZel/network/name_lookup.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kAnswerLimit{4};
constexpr size_t kMaxAddresses = 4;

void AppendAddress(const HostAddress& address, std::string* list) {
  if (!list->empty()) *list += ", ";
  *list += address.Text();
}

}  // namespace

bool PingAny(const ZelString& host, const std::vector<HostAddress>& addresses, milliseconds limit,
             EchoSender send) {
  const auto end = steady_clock::now() + limit;
  const size_t count = std::min(addresses.size(), kMaxAddresses);
  std::string silent;
  for (size_t i = 0; i < count; ++i) {
    const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now());
    const auto share = std::max(left, milliseconds::zero()) / static_cast<int>(count - i);
    const EchoAnswer answer = send(addresses[i], share);
    if (answer == EchoAnswer::kCame) return true;
    if (answer == EchoAnswer::kNone) AppendAddress(addresses[i], &silent);
  }
  // Why there was no address, or nothing to wait for, is in the log already.
  if (!silent.empty()) {
    LibraryLog().PrintWithNL("The host \"%S\" did not answer: no echo reply from %s in time", host,
                             silent);
  }
  return false;
}

bool PingICMP(ZelString host) {
  return Guarded("PingICMP", false, [&] {
    const auto addresses =
        LookUpHost(std::string(host.Utf8()), AddressKind::kAny, kNameLookupLimit);
    return PingAny(host, addresses, kAnswerLimit, SendEcho);
  });
}
