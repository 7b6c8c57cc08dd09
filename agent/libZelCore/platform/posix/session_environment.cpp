#include "agent/libZelCore/platform/posix/session_environment.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/whole_number.h"

namespace {

namespace fs = std::filesystem;

constexpr size_t kMaxEnvironmentBytes = 128 * 1024;
constexpr size_t kMaxValueLength = 4096;
constexpr const char* kPath = "/usr/local/bin:/usr/bin:/bin:/usr/local/games:/usr/games";

/// Of a session's desktop and language. None of them changes what code a program loads.
bool IsTaken(std::string_view name) {
  constexpr std::string_view kNames[] = {
      "DISPLAY",          "WAYLAND_DISPLAY",     "XAUTHORITY",
      "XDG_SESSION_TYPE", "XDG_SESSION_ID",      "LANG",
      "LANGUAGE",         "XDG_SESSION_DESKTOP", "XDG_CURRENT_DESKTOP",
      "DESKTOP_SESSION"};
  const bool isLocale = name.starts_with("LC_") && name.size() <= 32 &&
                        std::all_of(name.begin(), name.end(),
                                    [](char c) { return (c >= 'A' && c <= 'Z') || c == '_'; });
  return isLocale || std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames);
}

/// The taken ones of a process's environment; none when it cannot be read or is not the user's.
SessionVariables VariablesOf(const fs::path& process, uid_t user) {
  const UniqueFd file(::open((process / "environ").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  struct stat status {};
  if (!file || ::fstat(file.Get(), &status) != 0 || status.st_uid != user) return {};
  std::string content(kMaxEnvironmentBytes, '\0');
  size_t length = 0;
  ReadUpTo(file.Get(), content.data(), content.size(), &length);

  return ReadSessionVariables({content.data(), length});
}

std::string Value(const SessionVariables& variables, std::string_view name) {
  const auto found = variables.find(name);
  return found == variables.end() ? std::string() : found->second;
}

constexpr int kBestRank = 4;

/// How well a process speaks for the session: 0 not at all.
int Rank(const SessionVariables& variables, const UserSession& session) {
  const std::string display = Value(variables, "DISPLAY");
  const std::string id = Value(variables, "XDG_SESSION_ID");
  const bool isOfSession = id == session.id;
  // The compositor of a Wayland session has no DISPLAY, its programs have.
  if (display.empty()) return isOfSession && !Value(variables, "WAYLAND_DISPLAY").empty() ? 1 : 0;
  const bool isDisplayKnown = !session.display.empty();
  if (isOfSession) return !isDisplayKnown || display == session.display ? kBestRank : 3;
  // Recent desktops run their programs as services of the user, which are told no session; a
  // display of this machine is then the session's.
  return isDisplayKnown ? (display == session.display ? 2 : 0)
                        : (id.empty() && display.starts_with(':') ? 2 : 0);
}

/// All processes, oldest first as far as their numbers tell.
std::vector<fs::path> Processes() {
  std::vector<std::pair<pid_t, fs::path>> processes;
  std::error_code error;
  for (fs::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    const auto number = ReadWholeNumber<pid_t>(name);
    if (number) processes.emplace_back(*number, entry->path());
  }
  std::sort(processes.begin(), processes.end());
  std::vector<fs::path> paths;
  for (auto& process : processes) paths.push_back(std::move(process.second));
  return paths;
}

SessionVariables DesktopOf(const UserSession& session) {
  SessionVariables best;
  int bestRank = 0;
  for (const fs::path& process : Processes()) {
    SessionVariables variables = VariablesOf(process, session.userId);
    const int rank = Rank(variables, session);
    if (rank <= bestRank) continue;
    best = std::move(variables);
    bestRank = rank;
    if (rank == kBestRank) break;
  }
  return best;
}

bool IsDirectoryOf(const std::string& path, uid_t user) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == user;
}

bool IsSocketOf(const std::string& path, uid_t user) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) && status.st_uid == user;
}

}  // namespace

SessionVariables ReadSessionVariables(std::string_view environment) {
  SessionVariables variables;
  // What follows the last NUL may be cut off.
  for (size_t end = environment.find('\0'); end != std::string_view::npos;
       end = environment.find('\0')) {
    const std::string_view line = environment.substr(0, end);
    environment.remove_prefix(end + 1);
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos || line.size() - equals > kMaxValueLength) continue;
    const std::string_view name = line.substr(0, equals);
    if (IsTaken(name)) variables.emplace(name, line.substr(equals + 1));
  }
  return variables;
}

bool ReadAccount(uid_t user, Account* account) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found) != 0 || !found) return false;
  account->user = user;
  account->group = found->pw_gid;
  account->name = found->pw_name;
  account->home = found->pw_dir;
  account->shell = found->pw_shell;

  int count = 64;
  account->groups.resize(static_cast<size_t>(count));
  while (::getgrouplist(found->pw_name, found->pw_gid, account->groups.data(), &count) < 0)
    account->groups.resize(static_cast<size_t>(count));
  account->groups.resize(static_cast<size_t>(count));
  return true;
}

std::vector<std::string> SessionEnvironment(const Account& account, const UserSession& session) {
  SessionVariables variables = DesktopOf(session);
  if (!session.display.empty()) variables.emplace("DISPLAY", session.display);
  if (!session.id.empty()) variables.emplace("XDG_SESSION_ID", session.id);
  variables["HOME"] = account.home.empty() ? "/" : account.home;
  variables["USER"] = variables["LOGNAME"] = account.name;
  variables["SHELL"] = account.shell.empty() ? "/bin/sh" : account.shell;
  variables["PATH"] = kPath;
  const std::string runtime = "/run/user/" + std::to_string(account.user);
  if (IsDirectoryOf(runtime, account.user)) {
    variables["XDG_RUNTIME_DIR"] = runtime;
    if (IsSocketOf(runtime + "/bus", account.user))
      variables["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + runtime + "/bus";
  }
  std::vector<std::string> environment;
  for (const auto& [name, value] : variables) environment.push_back(name + "=" + value);
  return environment;
}
