#include "agent/proxy_protocol/listener_rule.h"

#include <charconv>
#include <string_view>
#include <system_error>

#include "agent/libZel/ascii.h"

namespace proxy_protocol {

namespace {

constexpr std::string_view kSessionPipe = R"(\\.\pipe\zelproxy-)";

}  // namespace

std::optional<uint32_t> SessionOfPipe(const std::string& pipe) {
  const bool begins = pipe.size() > kSessionPipe.size() &&
                      EqualsIgnoringCase(pipe.substr(0, kSessionPipe.size()), kSessionPipe);
  if (!begins) return std::nullopt;
  const char* const end = pipe.data() + pipe.size();
  uint32_t session = 0;
  const auto [rest, error] = std::from_chars(pipe.data() + kSessionPipe.size(), end, session);
  if (error != std::errc() || rest != end) return std::nullopt;
  return session;
}

std::string WhyNotHeard(const std::string& pipe, const PipeOwner& owner) {
  if (owner.isSystem || owner.isOurs) return {};
  if (owner.account.empty()) return "it is not known which account listens";
  const std::optional<uint32_t> session = SessionOfPipe(pipe);
  if (session && *session != owner.session) {
    return "the listener " + owner.account + " is in session " + std::to_string(owner.session) +
           ", not in the pipe's";
  }
  // Both come from the system, which writes one account in one way but for the case.
  if (EqualsIgnoringCase(owner.account, owner.sessionUser)) return {};
  return "the listener " + owner.account + " is not the user of session " +
         std::to_string(owner.session);
}

}  // namespace proxy_protocol
