#include "agent/libZelCore/user_store.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/file_text.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/password_hash.h"
#include "agent/libZelCore/private_file.h"
#include "agent/libZelCore/split_text.h"

namespace {

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds kLookInterval{250};
constexpr size_t kLongestLogin = 64;
constexpr size_t kLongestRole = 32;

bool AllOf(std::string_view text, std::string_view extra, bool allowUpper) {
  return std::all_of(text.begin(), text.end(), [&](char c) {
    const bool isTaken = IsAsciiAlphanumeric(c) && (allowUpper || c == AsciiLower(c));
    return isTaken || extra.find(c) != std::string_view::npos;
  });
}

bool IsLogin(std::string_view login) {
  return !login.empty() && login.size() <= kLongestLogin && AllOf(login, ".-_@", true);
}

bool IsRole(std::string_view role) {
  return !role.empty() && role.size() <= kLongestRole && AllOf(role, "-", false);
}

void CheckLogin(std::string_view login) {
  if (IsLogin(login)) return;
  throw std::runtime_error("the login \"" + std::string(login) +
                           "\" must be 1 to 64 letters, digits, \".\", \"-\", \"_\" or \"@\"");
}

/// Empty when there is no such file. Throws when there is one that cannot be read.
std::string ReadUsers(const std::filesystem::path& file) {
  std::error_code ec;
  if (!std::filesystem::exists(file, ec) && !ec) return {};
  std::optional<std::string> content = ReadFileText(file);
  if (!content) throw std::runtime_error("cannot read " + file.string());
  return *std::move(content);
}

}  // namespace

UserStore::UserStore(std::filesystem::path file) : file_(std::move(file)) {}

void UserStore::Add(const std::string& login, const std::string& role, std::string_view password) {
  CheckLogin(login);
  if (!IsRole(role)) {
    throw std::runtime_error("the role \"" + role +
                             "\" must be 1 to 32 lower-case letters, digits or \"-\"");
  }
  CheckPasswordText(password);
  const std::string line = login + ":" + role + ":" + HashPassword(password);

  const PrivateFileLock fileLock(file_);
  std::lock_guard lock(mutex_);
  Load();
  if (users_.contains(login)) throw std::runtime_error("the user " + login + " exists already");
  SaveLine(login, &line);
}

void UserStore::Remove(const std::string& login) {
  const PrivateFileLock fileLock(file_);
  std::lock_guard lock(mutex_);
  Load();
  if (!users_.contains(login)) throw std::runtime_error("there is no user " + login);
  SaveLine(login, nullptr);
}

void UserStore::SetPassword(const std::string& login, std::string_view password) {
  CheckPasswordText(password);
  const std::string hash = HashPassword(password);

  const PrivateFileLock fileLock(file_);
  std::lock_guard lock(mutex_);
  Load();
  const auto user = users_.find(login);
  if (user == users_.end()) throw std::runtime_error("there is no user " + login);
  const std::string line = login + ":" + user->second.role + ":" + hash;
  SaveLine(login, &line);
}

std::vector<std::string> UserStore::Logins() {
  std::lock_guard lock(mutex_);
  ReloadIfChanged();
  std::vector<std::string> logins;
  for (const auto& [login, user] : users_) logins.push_back(login);
  std::sort(logins.begin(), logins.end());
  return logins;
}

bool UserStore::CheckPassword(std::string_view login, std::string_view password) {
  const auto user = Find(login);
  return IsPasswordOf(password, user ? std::optional(user->hash) : std::nullopt);
}

std::optional<std::string> UserStore::Role(std::string_view login) {
  const auto user = Find(login);
  return user ? std::optional(user->role) : std::nullopt;
}

uint64_t UserStore::Version() {
  std::lock_guard lock(mutex_);
  ReloadIfChanged();
  return version_;
}

std::optional<UserStore::User> UserStore::Find(std::string_view login) {
  std::lock_guard lock(mutex_);
  ReloadIfChanged();
  const auto found = users_.find(std::string(login));
  return found == users_.end() ? std::nullopt : std::optional(found->second);
}

void UserStore::ReloadIfChanged() {
  const auto now = steady_clock::now();
  if (now < nextLook_) return;
  nextLook_ = now + kLookInterval;
  if (FileStamp(file_) == stamp_) return;
  try {
    Load();
  } catch (const std::exception& error) {
    CoreLog().ErrorWithNL("No console user is known: %s", error.what());
  }
}

void UserStore::Load() {
  std::string stamp = FileStamp(file_);  // before: a write in between shows at the next look
  users_.clear();
  ++version_;
  // No file has this stamp: what cannot be read now, for lack of a handle say, is read again.
  stamp_ = "unread";
  std::istringstream lines(ReadUsers(file_));
  stamp_ = std::move(stamp);
  size_t lineNumber = 0;
  for (std::string line; std::getline(lines, line);) {
    ++lineNumber;
    if (line.ends_with('\r')) line.pop_back();
    if (line.empty() || line[0] == '#') continue;
    const auto parts = SplitAt(line, ':');
    const bool isUsable = parts.size() == 3 && IsLogin(parts[0]) && IsRole(parts[1]) &&
                          IsPasswordHash(parts[2]) && !users_.contains(std::string(parts[0]));
    if (isUsable) {
      users_[std::string(parts[0])] = {std::string(parts[1]), std::string(parts[2])};
    } else {
      CoreLog().ErrorWithNL(
          "%s, line %u: not \"login:role:hash\" of a new user; the line is ignored",
          file_.string().c_str(), static_cast<uint32_t>(lineNumber));
    }
  }
}

void UserStore::SaveLine(const std::string& login, const std::string* line) {
  std::string content;
  bool isDone = line == nullptr;
  std::istringstream lines(ReadUsers(file_));
  for (std::string old; std::getline(lines, old);) {
    if (!old.starts_with(login + ":")) {
      content += old + "\n";
    } else if (!isDone) {
      content += *line + "\n";
      isDone = true;
    }
  }
  if (!isDone) content += *line + "\n";
  WritePrivateFile(file_, content);
  Load();
}
