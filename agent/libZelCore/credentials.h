#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

/// Who makes a request.
struct Caller {
  enum class Kind { kConsoleUser, kAgent };
  Kind kind = Kind::kConsoleUser;
  std::string login;    ///< console user's login, or the agent's name
  std::string address;  ///< of the connection, without port
};

/// Console users: logins, roles and scrypt-hashed passwords (RFC 7914) in config/users. The file is
/// re-read when it changes, so that `zelagent user` needs no restart.
///
/// Threads: any number may ask at once.
class UserStore {
 public:
  explicit UserStore(std::filesystem::path file);

  /// Logins: 1 to 64 of letters, digits, ".", "-", "_", "@". Each throws std::runtime_error that says
  /// what is wrong; the file is then unchanged.
  void Add(const std::string& login, const std::string& role, std::string_view password);
  void Remove(const std::string& login);
  void SetPassword(const std::string& login, std::string_view password);

  /// Costs about 50 ms of processor time and 16 MiB for a known login and for an unknown one alike.
  bool CheckPassword(std::string_view login, std::string_view password);
  /// The role, or nothing for an unknown login.
  std::optional<std::string> Role(std::string_view login);
  /// Counts up whenever the file's content changes.
  uint64_t Version();

 private:
  struct User {
    std::string role;
    std::string hash;  ///< "scrypt$N$r$p$salt$key", hexadecimal
  };
  using Users = std::unordered_map<std::string, User>;

  void Reload();
  void Save(const Users& users);

  const std::filesystem::path file_;
  std::mutex mutex_;
  Users users_;
  uint64_t version_ = 0;
  std::filesystem::file_time_type modified_{};
  uintmax_t sizeBytes_ = 0;
  std::chrono::steady_clock::time_point lastLook_{};
};

/// Agents of one fleet: the password of agent NAME is the hexadecimal HMAC-SHA256 (RFC 2104) of NAME
/// under the fleet secret, so that every agent can check every other one. An agent's login on the
/// wire is "agent/NAME".
std::string FleetPassword(std::string_view secret, std::string_view agentName);

/// Checks HTTP Basic credentials (RFC 7617) of console users and agents. A credential that was
/// checked is remembered for a while under a keyed digest; a user's change forgets them all.
class Authenticator {
 public:
  Authenticator(UserStore& users, std::string fleetSecret, std::chrono::milliseconds memory);

  enum class Verdict { kAccepted, kRefused, kNeedsSlowCheck };
  struct Answer {
    Verdict verdict = Verdict::kRefused;
    Caller caller;  ///< without address
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

  UserStore& users_;
  const std::string fleetSecret_;
  const std::chrono::milliseconds memory_;
  std::string digestKey_;
  std::mutex mutex_;
  uint64_t usersVersion_ = 0;
  std::unordered_map<std::string, Remembered> remembered_;
};
