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

/// Console users: logins, roles and scrypt-hashed passwords (RFC 7914) in config/users. One line
/// for each user, "login:role:scrypt$N$r$p$salt$key" with salt and key in hexadecimal; lines that
/// start with "#" and empty ones are kept as they are. The file is looked at a few times a second
/// at most and re-read when it changed, so that `zelagent user` needs no restart. A line that
/// cannot be read is logged and grants nothing.
///
/// Threads: any number may ask at once.
class UserStore {
 public:
  explicit UserStore(std::filesystem::path file);

  /// Logins: 1 to 64 of letters, digits, ".", "-", "_", "@". Roles: 1 to 32 of "a" to "z", digits
  /// and "-". Passwords: `kMinPasswordCharacters` to 1024 bytes of UTF-8 without control
  /// characters. Each throws std::runtime_error that says what is wrong; the file is then
  /// unchanged. It is replaced as a whole and readable by its owner alone.
  void Add(const std::string& login, const std::string& role, std::string_view password);
  void Remove(const std::string& login);
  void SetPassword(const std::string& login, std::string_view password);

  /// The logins, sorted.
  std::vector<std::string> Logins();

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

  void ReloadIfChanged();
  void Load();
  /// Replaces the line of `login` (adds one when it has none), or removes it when `line` is null.
  void SaveLine(const std::string& login, const std::string* line);
  std::optional<User> Find(std::string_view login);

  const std::filesystem::path file_;
  std::mutex mutex_;
  Users users_;
  uint64_t version_ = 0;
  std::string stamp_;  ///< of the file as it was last read
  std::chrono::steady_clock::time_point nextLook_{};
};
