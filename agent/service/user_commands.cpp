#include "agent/service/user_commands.h"

#include <cstdio>
#include <optional>
#include <stdexcept>

#include "agent/libZel/file_text.h"
#include "agent/libZel/native_path.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/credentials.h"
#include "agent/service/process.h"

namespace {

namespace fs = std::filesystem;

UserStore OpenUsers(const fs::path& home) {
  core_platform::MakePrivateDirectory(home / "config");
  return UserStore(home / "config" / "users");
}

std::string PasswordFromFile(const fs::path& file) {
  std::optional<std::string> password = FirstLineOfFile(file);
  if (password && !password->empty()) return *std::move(password);
  throw std::runtime_error("cannot read a password from " +
                           std::string(FromNativePath(file).Utf8()));
}

std::string Password(const std::string& login, const fs::path& file) {
  if (!file.empty()) return PasswordFromFile(file);
  const std::optional<std::string> password = ReadPassword("Password for " + login + ": ");
  if (!password) throw std::runtime_error("no password was given");
  return *password;
}

}  // namespace

void AddUser(const fs::path& home, const std::string& login, const std::string& role,
             const fs::path& passwordFile, KnownUser known) {
  UserStore users = OpenUsers(home);
  if (known == KnownUser::kKeep && users.Role(login)) return;
  users.Add(login, role, Password(login, passwordFile));
}

void ChangePassword(const fs::path& home, const std::string& login, const fs::path& passwordFile) {
  OpenUsers(home).SetPassword(login, Password(login, passwordFile));
}

void RemoveUser(const fs::path& home, const std::string& login) {
  OpenUsers(home).Remove(login);
}

void ListUsers(const fs::path& home) {
  UserStore users = OpenUsers(home);
  for (const std::string& login : users.Logins())
    std::printf("%s\t%s\n", login.c_str(), users.Role(login).value_or("").c_str());
}
