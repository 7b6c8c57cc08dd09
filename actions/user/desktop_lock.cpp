#include "actions/user/desktop_lock.h"

#include <atomic>
#include <memory>

namespace {

ZelMutex desktopLockMutex;

/// What the proxy has been told: it is told to lock when the count leaves 0 and to unlock when it
/// comes back to 0.
class DesktopLockState {
 public:
  /// The one of this process, which is never destroyed.
  static DesktopLockState& Instance();

  bool Lock();
  bool SetMessage(const ZelString& text);
  bool Unlock();
  /// Takes no lock, so that it does not wait for a proxy that hangs: it sends the state as it finds
  /// it.
  bool Restore() const;

 private:
  using Text = std::shared_ptr<const ZelString>;

  /// Set last while the desktop was locked; survives an unlock. Shared, so that `Restore` has a
  /// whole text beside a `SetMessage` that replaces it.
  std::atomic<Text> message_ = std::make_shared<const ZelString>();
  /// Lock requests that were not undone; 0 means unlocked.
  uint32_t lockCount_ = 0;
};

ZelString PipeName() {
  ZelString pipeName;
  ZelAgentGetProxyPipeName(pipeName);
  return pipeName;
}

/// Shows the text on the locked screen, below the title in the user's language.
bool SendMessage(const ZelString& pipeName, const ZelString& text) {
  ZelString title;
  ZelAgentGetTranslation("_MESSAGEBOXTITLE_DEVICELOCKED_", "", title);
  return ProxyDesktopLockManager::SetMessage(pipeName, title, text);
}

DesktopLockState& DesktopLockState::Instance() {
  static DesktopLockState* instance = nullptr;
  const ZelMutexLock lock(desktopLockMutex);
  if (!instance) instance = new DesktopLockState;
  return *instance;
}

bool DesktopLockState::Lock() {
  const ZelMutexLock lock(desktopLockMutex);
  const bool isLocked = lockCount_ > 0 || ProxyDesktopLockManager::Lock(PipeName());
  if (isLocked) ++lockCount_;
  return isLocked;
}

bool DesktopLockState::SetMessage(const ZelString& text) {
  const ZelMutexLock lock(desktopLockMutex);
  if (lockCount_ == 0) return false;
  message_ = std::make_shared<const ZelString>(text);
  return SendMessage(PipeName(), text);
}

bool DesktopLockState::Unlock() {
  const ZelMutexLock lock(desktopLockMutex);
  if (lockCount_ == 0) return false;
  if (lockCount_ > 1) {
    --lockCount_;
    return true;
  }
  const bool isUnlocked = ProxyDesktopLockManager::Unlock(PipeName());
  lockCount_ = 0;
  return isUnlocked;
}

bool DesktopLockState::Restore() const {
  if (lockCount_ == 0) return true;
  const ZelString pipeName = PipeName();
  if (!ProxyDesktopLockManager::Lock(pipeName)) return false;
  const Text message = message_;
  return SendMessage(pipeName, *message);
}

}  // namespace

ResultCode CoreUtilsLockDesktop(ZelContainer* params) {
  const ZelString text = ReadString(*params, "LockMessage");

  if (!DesktopLockState::Instance().Lock()) return kFailure;
  // Should this fail, the desktop is locked all the same and the caller owes an unlock.
  return DesktopLockState::Instance().SetMessage(text) ? kSuccess : kFailure;
}

ResultCode CoreUtilsSetLockMessageText(ZelContainer* params) {
  const ZelString text = ReadString(*params, "LockMessage");

  return DesktopLockState::Instance().SetMessage(text) ? kSuccess : kFailure;
}

ResultCode CoreUtilsUnlockDesktop(ZelContainer*) {
  return DesktopLockState::Instance().Unlock() ? kSuccess : kFailure;
}

ResultCode CoreUtilsRestoreDesktopLockState(ZelContainer*) {
  return DesktopLockState::Instance().Restore() ? kSuccess : kFailure;
}
