#include "agent/proxy/platform/windows/activity.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agent/libZel/user_sessions.h"

namespace {

// From sending an input until the system has taken it in, at most.
constexpr DWORD kTakenInMs = 100;

// Times of GetTickCount. They count modulo 2^32.
struct OwnInput {
  DWORD sentAt;
  // What the system named as the last input before.
  DWORD lastBefore;
};

std::mutex mutex;
std::optional<OwnInput> ownInput;

// 0: none since the session began, as far as the system knows. Under `mutex`.
DWORD LastInput() {
  LASTINPUTINFO last{sizeof(LASTINPUTINFO), 0};
  if (!GetLastInputInfo(&last)) return 0;
  const bool isOwn = ownInput && last.dwTime - ownInput->sentAt <= kTakenInMs;
  return isOwn ? ownInput->lastBefore : last.dwTime;
}

}  // namespace

std::chrono::milliseconds IdleTime() {
  const std::lock_guard lock(mutex);
  const DWORD last = LastInput();
  // Not that nobody is there.
  if (last == 0) return std::chrono::milliseconds(0);
  // The input's time may be a little ahead of the clock.
  const DWORD idleMs = GetTickCount() - last;
  constexpr DWORD kAheadMs = 60000;
  return std::chrono::milliseconds(idleMs > MAXDWORD - kAheadMs ? 0 : idleMs);
}

void SendOwnInput(ULONG_PTR mark) {
  {
    const std::lock_guard lock(mutex);
    ownInput = OwnInput{GetTickCount(), LastInput()};
  }
  INPUT nothing{};
  nothing.type = INPUT_MOUSE;
  nothing.mi.dwExtraInfo = mark;
  SendInput(1, &nothing, sizeof nothing);
}

bool IsSessionLocked() {
  DWORD number = 0;
  if (!ProcessIdToSessionId(GetCurrentProcessId(), &number)) return false;
  const std::string own = std::to_string(number);
  const std::optional<std::vector<UserSession>> sessions = UserSessions();
  if (!sessions) return false;
  return std::any_of(sessions->begin(), sessions->end(), [&](const UserSession& session) {
    return session.id == own && session.isLocked;
  });
}

bool IsScreenSaverOn() {
  BOOL isRunning = FALSE;
  return SystemParametersInfoW(SPI_GETSCREENSAVERRUNNING, 0, &isRunning, 0) && isRunning;
}
