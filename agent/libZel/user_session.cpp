#include "libZel/user_session.h"

#include <cstdint>
#include <string>

#include "agent/libZel/absence_limit.h"
#include "agent/libZel/boundary.h"
#include "agent/libZel/proxy_connection.h"
#include "agent/libZel/proxy_session.h"
#include "agent/libZel/user_sessions.h"
#include "agent/libZel/whole_number.h"

namespace {

bool NotKnown(const ZelString& pipe, const std::string& why) {
  LibraryLog().WarningWithNL("whether the user at \"%S\" is absent is not known: %S", pipe, why);
  return false;
}

bool AskWhetherAbsent(const ZelString& pipe) {
  const auto connection = OpenProxyConnection(pipe, kProxyTimeoutMs);
  if (!connection) return NotKnown(pipe, "the proxy cannot be reached");
  const auto answer = connection->Ask("absence", {});
  if (const std::string why = WhyFailed(answer); !why.empty()) return NotKnown(pipe, why);

  const std::string* const idle = answer.reply->Find("idleMs");
  const std::string* const locked = answer.reply->Find("screenLocked");
  const auto idleMs = idle ? ReadWholeNumber<uint64_t>(*idle) : std::nullopt;
  if (!idleMs || !locked || (*locked != "yes" && *locked != "no"))
    return NotKnown(pipe, "the proxy does not tell");
  // A limit below 0 is 0.
  const auto limitMs = GetAbsenceLimit().count();
  return *locked == "yes" || limitMs <= 0 || *idleMs >= static_cast<uint64_t>(limitMs);
}

}  // namespace

bool IsUserLogged() {
  return Guarded("looking for sessions", false, [] {
    const auto sessions = UserSessions();
    return sessions && !sessions->empty();
  });
}

bool ProxyUtils::IsUserAbsent(const ZelString& pipeName) {
  return Guarded("asking whether the user is absent", false,
                 [&] { return AskWhetherAbsent(pipeName); });
}

void SysTray::ExecuteAsLoggedUser(const ZelString& command) {
  Guarded("starting a program for the user", false, [&] {
    XmlProxyClient proxy;
    if (!proxy.Initialise(pipeName_(), kProxyTimeoutMs, XmlProxyClient::kUserSession)) return false;
    const Outcome outcome = RunInSession(proxy, command);
    if (!outcome)
      LibraryLog().WarningWithNL("a program for the user did not start: %S", outcome.reason);
    return static_cast<bool>(outcome);
  });
}
