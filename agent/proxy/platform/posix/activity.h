#pragma once

#include <chrono>

/// What the X server tells of the person at it.
struct ServerActivity {
  std::chrono::milliseconds idle{0};
  /// Whether its screen saver covers the screen.
  bool isScreenSaverOn = false;
};

/// On the desktop's thread. Throws std::runtime_error with a sentence when the server has no
/// MIT-SCREEN-SAVER extension.
ServerActivity AskServerForActivity();

/// Whether the session that this process belongs to says that its screen is locked. Takes up to
/// two seconds; any thread.
bool IsSessionLocked();
