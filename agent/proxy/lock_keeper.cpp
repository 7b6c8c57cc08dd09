#include "agent/proxy/lock_keeper.h"

#include <exception>
#include <stdexcept>
#include <utility>

using std::chrono::steady_clock;

LockKeeper::LockKeeper(Desktop* desktop, std::chrono::milliseconds grace, Log log)
    : desktop_(desktop), grace_(grace), log_(std::move(log)), watcher_([this] { Watch(); }) {}

LockKeeper::~LockKeeper() {
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
  }
  changed_.notify_all();
  watcher_.join();
  if (!isLocked_) return;
  try {
    desktop_->Unlock();
  } catch (const std::exception& error) {
    log_(std::string("the screen could not be unlocked: ") + error.what());
  }
}

void LockKeeper::Lock(Holder holder) {
  Desktop& desktop = NeedDesktop();
  const std::lock_guard lock(mutex_);
  try {
    holders_.insert(holder);
    desktop.Lock();
  } catch (const std::exception&) {
    FreeWhatWasCovered();
    throw;
  }
  isLocked_ = true;
  unlockAt_.reset();
}

void LockKeeper::SetText(const std::string& title, const std::string& text) {
  Desktop& desktop = NeedDesktop();
  const std::lock_guard lock(mutex_);
  if (!isLocked_) throw std::runtime_error("the screen is not locked");
  desktop.SetLockText(title, text);
}

void LockKeeper::Unlock() {
  if (!desktop_) return;
  const std::lock_guard lock(mutex_);
  holders_.clear();
  // Should this fail it is tried again later.
  unlockAt_ = steady_clock::now() + grace_;
  changed_.notify_all();
  desktop_->Unlock();
  Forget();
}

bool LockKeeper::IsHeldBy(Holder holder) const {
  const std::lock_guard lock(mutex_);
  return holders_.contains(holder);
}

void LockKeeper::Release(Holder holder) {
  const std::lock_guard lock(mutex_);
  const bool wasLast = holders_.erase(holder) > 0 && holders_.empty();
  if (!wasLast) return;
  unlockAt_ = steady_clock::now() + grace_;
  changed_.notify_all();
}

Desktop& LockKeeper::NeedDesktop() const {
  if (!desktop_) throw std::runtime_error("there is no display");
  return *desktop_;
}

void LockKeeper::Watch() {
  std::unique_lock lock(mutex_);
  while (!isEnding_) {
    if (!unlockAt_) {
      changed_.wait(lock);
    } else if (steady_clock::now() < *unlockAt_) {
      const steady_clock::time_point then = *unlockAt_;  // a lock meanwhile takes it away
      changed_.wait_until(lock, then);
    } else {
      UnlockInTime();
    }
  }
}

void LockKeeper::UnlockInTime() {
  try {
    desktop_->Unlock();
    Forget();
  } catch (const std::exception& error) {
    unlockAt_ = steady_clock::now() + grace_;
    log_(std::string("the screen could not be unlocked: ") + error.what());
  }
}

// A lock that fails half-way may have covered the screen.
void LockKeeper::FreeWhatWasCovered() {
  holders_.clear();
  isLocked_ = true;
  UnlockInTime();
  changed_.notify_all();
}

void LockKeeper::Forget() {
  holders_.clear();
  isLocked_ = false;
  unlockAt_.reset();
}
