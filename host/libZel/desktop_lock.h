#pragma once

#include "libZel/string.h"

/// Locks the desktop of the logged-on user by way of the user-session proxy that listens at
/// `pipeName`: a screen over all monitors that shows a message and takes no input. It is not the
/// system's own lock and asks for no password. The proxy takes it down 30 seconds after this
/// process has ended.
///
/// Any number of threads may call at once. False, with the reason in the log, when the proxy cannot
/// be reached or cannot do it. Nothing here throws.
class ProxyDesktopLockManager {
 public:
  /// Locks; a desktop that this process has locked stays so.
  static bool Lock(const ZelString& pipeName);
  /// Unlocks; one that is not locked stays so.
  static bool Unlock(const ZelString& pipeName);
  /// Shows `title` and `text` on the locked screen. False when it is not locked.
  static bool SetMessage(const ZelString& pipeName, const ZelString& title, const ZelString& text);
};
