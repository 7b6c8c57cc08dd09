#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "agent/libZel/user_sessions.h"

// Which sessions are people's, and which of them comes first: what the system tells, judged.

struct BegunSession {
  UserSession session;
  /// Only compared.
  uint64_t begunAt = 0;
};

/// The order that `UserSessions` promises.
std::vector<UserSession> InOrder(std::vector<BegunSession> sessions);

/// A session in the list of systemd-logind.
struct LogindSession {
  std::string id;
  uint32_t userId = 0;
  std::string userName;
  /// Empty for one without screen and keyboard of this machine.
  std::string seat;
};

/// A session as systemd-logind describes it; `properties` by name, booleans as "yes" and "no". None
/// for a greeter's, a background session, one that is ending, and one that is neither graphical nor
/// at a seat: a login by SSH, or a serial line's, is not a person at this machine.
std::optional<BegunSession> SessionOfLogind(const LogindSession& listed,
                                            const std::map<std::string, std::string>& properties);

/// A user's entry in the system's table of logins.
struct LoginRecord {
  /// "tty1", "pts/3" or ":0".
  std::string line;
  std::string userName;
  uint32_t userId = 0;
  /// Where the user comes from: empty, an X11 display of this machine, or another machine.
  std::string host;
  uint64_t begunAt = 0;
};

/// None for what is neither a terminal nor an X11 display of this machine. `activeTerminal` is the
/// one that the screen shows, "tty2" for example; empty when that is not known.
std::optional<BegunSession> SessionOfLogin(const LoginRecord& record,
                                           const std::string& activeTerminal);
