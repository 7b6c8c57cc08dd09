#include "agent/proxy/platform/posix/activity.h"

#include <gdk/gdkx.h>
#include <unistd.h>

#include <X11/extensions/scrnsaver.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "agent/libZel/user_sessions.h"

namespace {

std::string Variable(const char* name) {
  const char* const value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

ServerActivity AskServerForActivity() {
  Display* const display = ::gdk_x11_get_default_xdisplay();
  int firstEvent = 0;
  int firstError = 0;
  if (!::XScreenSaverQueryExtension(display, &firstEvent, &firstError)) {
    throw std::runtime_error("the display does not tell for how long nothing was touched");
  }

  const std::unique_ptr<XScreenSaverInfo, int (*)(void*)> info(::XScreenSaverAllocInfo(), ::XFree);
  if (!info ||
      !::XScreenSaverQueryInfo(display, ::gdk_x11_get_default_root_xwindow(), info.get())) {
    throw std::runtime_error("the display did not tell for how long nothing was touched");
  }
  return {std::chrono::milliseconds(info->idle), info->state == ScreenSaverOn};
}

bool IsSessionLocked() {
  const std::string id = Variable("XDG_SESSION_ID");
  const std::string display = Variable("DISPLAY");
  const std::vector<UserSession> sessions = UserSessions().value_or(std::vector<UserSession>());
  // A unit of "systemd --user" belongs to the user, not to a session, and is told no session's id.
  const auto own = std::find_if(sessions.begin(), sessions.end(), [&](const UserSession& session) {
    if (!id.empty()) return session.id == id;
    return session.userId == ::geteuid() && !display.empty() && session.display == display;
  });
  return own != sessions.end() && own->isLocked;
}
