#include "agent/libZel/user_sessions.h"

#include <pwd.h>
#include <signal.h>
#include <unistd.h>
#include <utmpx.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <utility>

#include "agent/libZel/platform/posix/system_bus.h"
#include "agent/libZel/session_rules.h"

namespace {

constexpr std::chrono::milliseconds kTime = std::chrono::seconds(2);
const char* const kLogind = "org.freedesktop.login1";

struct ListedSession {
  LogindSession session;
  std::string path;
};

using Sessions = std::optional<std::vector<BegunSession>>;

std::optional<ListedSession> ReadListed(BusReply& list) {
  const auto id = list.ReadText();
  const auto userId = list.ReadNumber();
  const auto userName = list.ReadText();
  const auto seat = list.ReadText();
  const auto path = list.ReadText('o');
  if (!id || !userId || !userName || !seat || !path) return std::nullopt;
  return ListedSession{{*id, *userId, *userName, *seat}, *path};
}

std::optional<std::vector<ListedSession>> ReadList(BusReply& list) {
  if (!list.Enter('a', "(susso)")) return std::nullopt;
  std::vector<ListedSession> sessions;
  while (list.Enter('r', "susso")) {
    const auto session = ReadListed(list);
    if (!session || !list.Exit()) return std::nullopt;
    sessions.push_back(*session);
  }
  // Only an array that was read to its end can be left.
  if (!list.Exit()) return std::nullopt;
  return sessions;
}

bool HasVanished(const BusReply& reply) {
  return reply.ErrorName() == "org.freedesktop.login1.NoSuchSession" ||
         reply.ErrorName() == "org.freedesktop.DBus.Error.UnknownObject";
}

// A list that lacks somebody is none: the next one in it would be taken for the first.
Sessions ReadSessions(SystemBus& bus, BusReply& list) {
  const auto listed = ReadList(list);
  if (!listed) return std::nullopt;
  std::vector<BegunSession> sessions;
  for (const ListedSession& one : *listed) {
    BusReply reply = bus.GetProperties(kLogind, one.path, std::string(kLogind) + ".Session");
    if (HasVanished(reply)) continue;
    const auto properties = reply.ReadProperties();
    if (!properties) return std::nullopt;
    auto session = SessionOfLogind(one.session, *properties);
    if (session) sessions.push_back(std::move(*session));
  }
  return sessions;
}

std::string ActiveTerminal() {
  std::string name;
  std::getline(std::ifstream("/sys/class/tty/tty0/active"), name);
  return name;
}

// The fields need not be terminated.
template <size_t size>
std::string FieldText(const char (&field)[size]) {
  return {field, ::strnlen(field, size)};
}

std::optional<uint32_t> UserIdOf(const std::string& name) {
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 || !found)
    return std::nullopt;
  return entry.pw_uid;
}

// Who logs off without being seen, with the machine's power for example, leaves an entry behind.
bool IsAlive(pid_t process) {
  return process > 0 && (::kill(process, 0) == 0 || errno == EPERM);
}

// None where nobody keeps the table, which else tells at least when the machine was started.
Sessions ReadLoginTable() {
  // The system's functions share one place in the table.
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  const std::string activeTerminal = ActiveTerminal();
  std::vector<BegunSession> sessions;
  bool isKept = false;
  ::setutxent();
  while (const utmpx* const entry = ::getutxent()) {
    isKept = true;
    if (entry->ut_type != USER_PROCESS || !IsAlive(entry->ut_pid)) continue;
    const std::string userName = FieldText(entry->ut_user);
    const auto userId = UserIdOf(userName);
    if (!userId) continue;
    auto session =
        SessionOfLogin({FieldText(entry->ut_line), userName, *userId, FieldText(entry->ut_host),
                        static_cast<uint64_t>(entry->ut_tv.tv_sec)},
                       activeTerminal);
    if (session) sessions.push_back(std::move(*session));
  }
  ::endutxent();
  if (!isKept) return std::nullopt;
  return sessions;
}

}  // namespace

std::optional<std::vector<UserSession>> UserSessions() {
  SystemBus bus(kTime);
  BusReply list = bus.Call(
      {kLogind, "/org/freedesktop/login1", std::string(kLogind) + ".Manager", "ListSessions"});
  Sessions sessions = list ? ReadSessions(bus, list) : ReadLoginTable();
  if (!sessions) return std::nullopt;
  return InOrder(std::move(*sessions));
}
