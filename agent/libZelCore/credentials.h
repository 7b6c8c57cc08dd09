#pragma once

#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

#include "agent/libZelCore/password_hash.h"
#include "agent/libZelCore/user_store.h"

/// Who makes a request.
struct Caller {
  enum class Kind { kConsoleUser, kAgent };
  Kind kind = Kind::kConsoleUser;
  std::string login;    ///< console user's login, or the agent's name
  std::string role;     ///< of a console user
  std::string address;  ///< of the connection, without port
};

/// How a caller is named as owner of something: "agent/NAME", or the login.
std::string OwnerText(const Caller& caller);

/// The role of those who may do everything.
constexpr const char* kAdministrator = "administrator";

/// Agents of one fleet: the password of agent NAME is the hexadecimal HMAC-SHA256 (RFC 2104) of
/// NAME under the fleet secret, so that every agent can check every other one. An agent's login on
/// the wire is "agent/NAME".
std::string FleetPassword(std::string_view secret, std::string_view agentName);

/// Checks HTTP Basic credentials (RFC 7617) of console users and agents. A credential that was
/// checked is remembered for `memory` under a keyed digest; a user's change forgets them all. With
/// an empty fleet secret no agent is accepted.
///
/// Threads: any number may ask at once; only `CheckSlowly` takes long.
class Authenticator {
 public:
  Authenticator(UserStore& users, std::string fleetSecret, std::chrono::milliseconds memory);

  enum class Verdict { kAccepted, kRefused, kNeedsSlowCheck };
  struct Answer {
    Verdict verdict = Verdict::kRefused;
    Caller caller;  ///< without address; a refused one as it called itself
  };

  /// The quick part: remembered credentials and agents. `header` is the value of Authorization.
  Answer CheckQuickly(std::string_view header);
  /// The slow part, for kNeedsSlowCheck: hashes the password, remembers a good one.
  Answer CheckSlowly(std::string_view header);

 private:
  struct Remembered {
    Caller caller;
    std::chrono::steady_clock::time_point until;
  };

  std::string Digest(std::string_view header) const;
  void Remember(std::string_view header, const Caller& caller, uint64_t usersVersion);

  UserStore& users_;
  const std::string fleetSecret_;
  const std::chrono::milliseconds memory_;
  std::string digestKey_;
  std::mutex mutex_;
  uint64_t usersVersion_ = 0;
  std::unordered_map<std::string, Remembered> remembered_;
};
