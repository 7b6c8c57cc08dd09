#include "actions/user/desktop_lock.h"

#include <array>
#include <atomic>

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
  /// Takes no lock: it sends the state as it finds it, beside the others.
  bool RestoreUnguarded() const;

 private:
  const ZelString& Message() const { return messages_[newest_]; }
  void KeepMessage(const ZelString& text);

  /// The newest is the text set last while the desktop was locked; it survives an unlock. The ones
  /// before it stay a while for a `RestoreUnguarded` that is copying one.
  std::array<ZelString, 16> messages_;
  std::atomic<uint32_t> newest_ = 0;
  /// Lock requests that were not undone; 0 means unlocked.
  uint32_t lockCount_ = 0;
};

ZelString PipeName() {
  ZelString pipeName;
  ZelAgentGetProxyPipeName(pipeName);
  return pipeName;
}

/// What stands above the message on the locked screen, in the user's language.
ZelString Title() {
  ZelString title;
  ZelAgentGetTranslation("_MESSAGEBOXTITLE_DEVICELOCKED_", "", title);
  return title;
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

  KeepMessage(text);
  const ZelString pipeName = PipeName();
  const ZelString title = Title();
  return ProxyDesktopLockManager::SetMessage(pipeName, title, text);
}

void DesktopLockState::KeepMessage(const ZelString& text) {
  const uint32_t next = (newest_ + 1) % messages_.size();
  messages_[next] = text;
  newest_ = next;
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

bool DesktopLockState::RestoreUnguarded() const {
  if (lockCount_ == 0) return true;

  const ZelString pipeName = PipeName();
  if (!ProxyDesktopLockManager::Lock(pipeName)) return false;

  const ZelString title = Title();
  const ZelString message = Message();
  return ProxyDesktopLockManager::SetMessage(pipeName, title, message);
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
  return DesktopLockState::Instance().RestoreUnguarded() ? kSuccess : kFailure;
}
