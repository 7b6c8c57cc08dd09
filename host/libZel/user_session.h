#pragma once

#include <functional>
#include <utility>

#include "libZel/string.h"

/// Whether somebody is logged on at this machine: has a desktop or a console, here or by remote
/// desktop. False also when the system does not tell. Does not throw.
bool IsUserLogged();

/// Questions to the user-session proxy that listens at `pipeName`.
class ProxyUtils {
 public:
  /// Whether the user is away: has locked the session, or touched neither keyboard nor pointer for
  /// the configured time. False, with the reason in the log, when the proxy cannot be reached: what
  /// asks the user then finds out by itself. Does not throw.
  static bool IsUserAbsent(const ZelString& pipeName);
};

/// The agent's hand on the desktop of the logged-on user. Any number of threads may call at once.
class SysTray {
 public:
  /// `pipeName` tells where the proxy listens, asked anew each time.
  explicit SysTray(std::function<ZelString()> pipeName) : pipeName_(std::move(pipeName)) {}

  /// Starts a command line with the rights and the environment of the logged-on user and does not
  /// wait for its end. What went wrong goes to the log alone. Does not throw.
  void ExecuteAsLoggedUser(const ZelString& command);

 private:
  const std::function<ZelString()> pipeName_;
};
