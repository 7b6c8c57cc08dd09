#include "agent/libZelCore/credentials.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/hexadecimal.h"
#include "agent/libZel/hmac_sha256.h"
#include "agent/libZel/security_context.h"
#include "libZel/base64.h"

namespace {

using std::chrono::steady_clock;

constexpr size_t kMostRemembered = 1024;
constexpr size_t kDigestKeyBytes = 32;
constexpr std::string_view kAgentPrefix = kAgentLoginPrefix;

struct FreeMemory {
  void operator()(char* bytes) const { std::free(bytes); }
};

/// The strict alphabet and padding of RFC 4648 section 4; nothing for any other text.
std::optional<std::string> Decoded(std::string_view text) {
  // DecodeBase64 skips them.
  if (text.find_first_of(" \t\r\n") != text.npos) return std::nullopt;
  auto length = static_cast<uint32_t>(text.size());
  const std::unique_ptr<char, FreeMemory> bytes(
      DecodeBase64(reinterpret_cast<const unsigned char*>(text.data()), &length));
  if (!bytes) return std::nullopt;
  return std::string(bytes.get(), length);
}

struct BasicCredential {
  std::string login;
  std::string password;
};

/// Takes the value of an Authorization header apart; nothing when it is not Basic.
std::optional<BasicCredential> ParseBasic(std::string_view header) {
  constexpr std::string_view kScheme = "basic ";
  if (header.size() <= kScheme.size()) return std::nullopt;
  if (!EqualsIgnoringCase(header.substr(0, kScheme.size()), kScheme)) return std::nullopt;
  header.remove_prefix(std::min(header.find_first_not_of(' ', kScheme.size()), header.size()));
  const auto decoded = Decoded(header);
  if (!decoded) return std::nullopt;
  const size_t colon = decoded->find(':');
  if (colon == std::string::npos) return std::nullopt;
  return BasicCredential{decoded->substr(0, colon), decoded->substr(colon + 1)};
}

}  // namespace

std::string OwnerText(const Caller& caller) {
  const bool isAgent = caller.kind == Caller::Kind::kAgent;
  return isAgent ? std::string(kAgentPrefix) + caller.login : caller.login;
}

std::string FleetPassword(std::string_view secret, std::string_view agentName) {
  const auto mac = HmacSha256(secret, agentName);
  return Hexadecimal(mac.data(), mac.size());
}

Authenticator::Authenticator(UserStore& users, std::string fleetSecret,
                             std::chrono::milliseconds memory)
    : users_(users),
      fleetSecret_(std::move(fleetSecret)),
      memory_(memory),
      digestKey_(RandomBytes(kDigestKeyBytes)) {}

Authenticator::Answer Authenticator::CheckQuickly(std::string_view header) {
  const uint64_t usersVersion = users_.Version();
  {
    const std::string digest = Digest(header);
    std::lock_guard lock(mutex_);
    if (usersVersion != usersVersion_) {
      remembered_.clear();
      usersVersion_ = usersVersion;
    }
    const auto found = remembered_.find(digest);
    if (found != remembered_.end()) {
      if (steady_clock::now() < found->second.until) {
        return {Verdict::kAccepted, found->second.caller};
      }
      remembered_.erase(found);
    }
  }
  const auto credential = ParseBasic(header);
  if (!credential) return {};
  Answer answer;
  if (!credential->login.starts_with(kAgentPrefix)) {
    answer.verdict = Verdict::kNeedsSlowCheck;
    answer.caller.login = credential->login;
    return answer;
  }
  answer.caller.kind = Caller::Kind::kAgent;
  answer.caller.login = credential->login.substr(kAgentPrefix.size());
  const bool isAccepted =
      !fleetSecret_.empty() && !answer.caller.login.empty() &&
      EqualInConstantTime(FleetPassword(fleetSecret_, answer.caller.login), credential->password);
  if (!isAccepted) return answer;
  answer.verdict = Verdict::kAccepted;
  Remember(header, answer.caller, usersVersion);
  return answer;
}

Authenticator::Answer Authenticator::CheckSlowly(std::string_view header) {
  const uint64_t usersVersion = users_.Version();
  const auto credential = ParseBasic(header);
  if (!credential) return {};
  Answer answer;
  answer.caller.login = credential->login;
  if (credential->login.starts_with(kAgentPrefix)) return answer;
  if (!users_.CheckPassword(credential->login, credential->password)) return answer;
  answer.verdict = Verdict::kAccepted;
  answer.caller.role = users_.Role(credential->login).value_or("");
  Remember(header, answer.caller, usersVersion);
  return answer;
}

std::string Authenticator::Digest(std::string_view header) const {
  const auto mac = HmacSha256(digestKey_, header);
  return {mac.begin(), mac.end()};
}

void Authenticator::Remember(std::string_view header, const Caller& caller, uint64_t usersVersion) {
  const auto now = steady_clock::now();
  const std::string digest = Digest(header);
  std::lock_guard lock(mutex_);
  // The users changed while the password was being checked: the next request checks again.
  if (usersVersion != usersVersion_) return;
  if (remembered_.size() >= kMostRemembered) {
    std::erase_if(remembered_, [now](const auto& entry) { return entry.second.until <= now; });
  }
  if (remembered_.size() >= kMostRemembered) remembered_.erase(remembered_.begin());
  remembered_[digest] = {caller, now + memory_};
}
