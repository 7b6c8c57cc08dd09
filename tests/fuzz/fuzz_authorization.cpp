// The field Authorization: only an agent that knows the fleet's secret is accepted at once, a
// user's password is never decided about without being checked, and what a refused one calls itself
// stands in the credential.

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include "agent/libZel/security_context.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/invocation_depth.h"
#include "libZel/base64.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

using Verdict = Authenticator::Verdict;

constexpr const char* kSecret = "0123456789abcdef";

std::string Basic(const std::string& credential) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(credential.data());
  return "Basic " +
         std::string(EncodeBase64(bytes, static_cast<uint32_t>(credential.size())).Utf8());
}

void CheckAnswer(const Authenticator::Answer& answer) {
  const bool isAgent = answer.caller.kind == Caller::Kind::kAgent;
  if (answer.verdict == Verdict::kAccepted) Require(isAgent && !answer.caller.login.empty());
  if (answer.verdict == Verdict::kNeedsSlowCheck) Require(!isAgent);
  Require(answer.caller.role.empty());
}

// Any text as a credential: what it is split into is what was put together.
void CheckCredential(Authenticator& authenticator, const std::string& text) {
  const auto answer = authenticator.CheckQuickly(Basic(text));
  CheckAnswer(answer);
  const size_t colon = text.find(':');
  if (colon == std::string::npos) return Require(answer.verdict == Verdict::kRefused);
  const std::string login = text.substr(0, colon);
  const bool isAgent = login.starts_with(kAgentLoginPrefix);
  Require(OwnerText(answer.caller) == login);
  if (!isAgent) return Require(answer.verdict == Verdict::kNeedsSlowCheck);
  const std::string name = login.substr(std::string_view(kAgentLoginPrefix).size());
  const bool isKnown = !name.empty() && text.substr(colon + 1) == FleetPassword(kSecret, name);
  Require((answer.verdict == Verdict::kAccepted) == isKnown);
}

void CheckAgent(Authenticator& authenticator, const std::string& name) {
  const std::string login = kAgentLoginPrefix + name;
  if (name.empty() || login.find(':') != std::string::npos) return;
  const std::string credential = login + ":" + FleetPassword(kSecret, name);
  const auto answer = authenticator.CheckQuickly(Basic(credential));
  Require(answer.verdict == Verdict::kAccepted && answer.caller.login == name);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch scratch;
  static UserStore users(scratch / "users");
  static Authenticator authenticator(users, kSecret, std::chrono::minutes(5));
  static Authenticator withoutFleet(users, "", std::chrono::minutes(5));

  const std::string text(reinterpret_cast<const char*>(data), size);
  CheckAnswer(authenticator.CheckQuickly(text));
  CheckCredential(authenticator, text);
  CheckAgent(authenticator, text);
  Require(withoutFleet.CheckQuickly(text).verdict != Verdict::kAccepted);
  Require(withoutFleet.CheckQuickly(Basic(text)).verdict != Verdict::kAccepted);
  Require(ParseInvocationDepth(text) <= kMaxInvocationDepth);
  return 0;
}
