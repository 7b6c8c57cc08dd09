#include "libZel/desktop_lock.h"

bool ProxyDesktopLockManager::Lock(const ZelString&) {
  return false;
}
bool ProxyDesktopLockManager::Unlock(const ZelString&) {
  return false;
}
bool ProxyDesktopLockManager::SetMessage(const ZelString&, const ZelString&, const ZelString&) {
  return false;
}
