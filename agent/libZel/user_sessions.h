#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// A session of a person at this machine, at its console or by remote desktop.
struct UserSession {
  /// The session's number on Windows, its name at systemd-logind, else the terminal's name.
  std::string id;
  /// UTF-8.
  std::string userName;
  /// Off Windows; on Windows 0.
  uint32_t userId = 0;
  /// Whether it has a desktop that windows can be shown on (X11, Wayland; on Windows every
  /// session).
  bool isGraphical = false;
  /// Whether it is the one that the console's, or a remote user's, screen and keyboard belong to
  /// now.
  bool isActive = false;
  /// Whether it says of itself that its screen is locked.
  bool isLocked = false;
  /// Whether it comes over the network.
  bool isRemote = false;
  /// The X11 display (":0"), where the system tells.
  std::string display;
};

/// The sessions of people who are logged on, without greeters, background sessions and, elsewhere
/// than on Windows, logins over the network without a desktop. The first one is the one whose
/// desktop the agent speaks to: active before inactive, for nobody sees the others' screens, then
/// graphical before textual, at the console before remote, in the order in which they began. On
/// Windows from the terminal services; elsewhere from systemd-logind over the system's bus and,
/// where that does not answer, from the system's table of logins (utmp), with those of terminals
/// and X11 displays of this machine alone. Empty when nobody is logged on, none when the system
/// does not tell, or not all of it within the time. Takes milliseconds; waits at most two seconds.
/// Throws only for want of memory. Any number of threads may call at once.
std::optional<std::vector<UserSession>> UserSessions();
