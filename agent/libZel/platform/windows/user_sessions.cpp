#include "agent/libZel/user_sessions.h"

#include <windows.h>

#include <wtsapi32.h>

#include <memory>
#include <optional>
#include <utility>

#include "agent/libZel/session_rules.h"
#include "libZel/string.h"

namespace {

struct WtsFreer {
  void operator()(void* memory) const { WTSFreeMemory(memory); }
};
template <typename T>
using WtsMemory = std::unique_ptr<T, WtsFreer>;

constexpr DWORD kNoSession = 0xFFFFFFFF;
/// What the protocol of the console's own session is.
constexpr USHORT kConsoleProtocol = 0;
/// The system tells it the other way round on Windows 7 and Server 2008 R2, which are not
/// supported.
constexpr LONG kSessionLocked = 0;

/// The first members of WTSINFOEXW, and its class: the compiler's headers lack them.
constexpr auto kSessionInfoEx = static_cast<WTS_INFO_CLASS>(25);
struct SessionInfoEx {
  DWORD level;
  alignas(8) ULONG sessionId;
  WTS_CONNECTSTATE_CLASS state;
  LONG flags;
};

// Null when the system does not tell.
template <typename T>
WtsMemory<T> Query(DWORD session, WTS_INFO_CLASS what) {
  wchar_t* answer = nullptr;
  DWORD size = 0;
  if (!WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, what, &answer, &size))
    return nullptr;
  WtsMemory<T> memory(reinterpret_cast<T*>(answer));
  if (size < sizeof(T)) return nullptr;
  return memory;
}

// None without a user: the services' session, one where nobody has logged on yet.
std::optional<BegunSession> SessionAt(DWORD id) {
  const auto name = Query<wchar_t>(id, WTSUserName);
  if (!name || !*name) return std::nullopt;
  const auto state = Query<WTS_CONNECTSTATE_CLASS>(id, WTSConnectState);
  const auto protocol = Query<USHORT>(id, WTSClientProtocolType);
  const auto info = Query<WTSINFOW>(id, WTSSessionInfo);
  const auto more = Query<SessionInfoEx>(id, kSessionInfoEx);

  BegunSession made;
  made.session.id = std::to_string(id);
  made.session.userName = std::string(ZelString(name.get()).Utf8());
  made.session.isGraphical = true;
  // Wine does not tell; it has the console's session alone.
  made.session.isActive = !state || *state == WTSActive;
  made.session.isRemote = protocol && *protocol != kConsoleProtocol;
  made.session.isLocked = more && more->level == 1 && more->flags == kSessionLocked;
  if (info) made.begunAt = static_cast<uint64_t>(info->LogonTime.QuadPart);
  return made;
}

// None when the system does not tell.
std::optional<std::vector<DWORD>> SessionIds() {
  WTS_SESSION_INFOW* found = nullptr;
  DWORD count = 0;
  if (!WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &found, &count)) return std::nullopt;
  std::vector<DWORD> ids;
  const WtsMemory<WTS_SESSION_INFOW> owner(found);
  for (DWORD i = 0; i < count; ++i) {
    if (found[i].State != WTSListen) ids.push_back(found[i].SessionId);
  }
  return ids;
}

}  // namespace

std::optional<std::vector<UserSession>> UserSessions() {
  std::optional<std::vector<DWORD>> ids = SessionIds();
  // Where the system lists none, which Wine does, there is the console's.
  const DWORD console = WTSGetActiveConsoleSessionId();
  if ((!ids || ids->empty()) && console != kNoSession) ids = {console};
  if (!ids) return std::nullopt;

  std::vector<BegunSession> sessions;
  for (const DWORD id : *ids) {
    if (auto session = SessionAt(id)) sessions.push_back(std::move(*session));
  }
  return InOrder(std::move(sessions));
}
