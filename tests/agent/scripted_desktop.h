#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "agent/proxy/desktop.h"

/// A desktop without windows: remembers what it is told, and a test plays the person in front of
/// it. One call at a time, as if all were done by the desktop's thread. Waits end after ten
/// seconds, with false or 0.
class ScriptedDesktop : public Desktop {
 public:
  void ShowDialog(uint32_t id, const DialogContent& content, Ended ended) override {
    const std::lock_guard turn(turn_);
    const std::function<void(uint32_t)> whenAsked = WhenShown();
    if (whenAsked) whenAsked(id);
    Change([&] {
      ThrowIfBroken();
      shown_.emplace_back(id, content);
      open_[id] = std::move(ended);
    });
  }

  void CloseDialog(uint32_t id) override {
    const std::lock_guard turn(turn_);
    Change([&] { closed_.push_back(id); });
    End(id, 0);
  }

  void Lock() override {
    const std::lock_guard turn(turn_);
    Change([&] {
      ThrowIfBroken();
      isLocked_ = true;
      if (!lockFailure_.empty()) throw std::runtime_error(lockFailure_);
      ++locks_;
    });
  }

  void SetLockText(const std::string& title, const std::string& text) override {
    const std::lock_guard turn(turn_);
    Change([&] {
      ThrowIfBroken();
      lockText_ = {title, text};
    });
  }

  void Unlock() override {
    const std::lock_guard turn(turn_);
    Change([&] {
      ThrowIfBroken();
      if (!unlockFailure_.empty()) throw std::runtime_error(unlockFailure_);
      isLocked_ = false;
    });
  }

  UserActivity Activity() override {
    const std::lock_guard lock(mutex_);
    ThrowIfBroken();
    return activity_;
  }

  void Run() override {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return hasQuit_; });
  }
  void Quit() override {
    Change([&] { hasQuit_ = true; });
  }

  // What a test does.

  /// The person uses a button (or the time is up: 0). False when there is no such dialog.
  bool Press(uint32_t id, ButtonId button) {
    const std::lock_guard turn(turn_);
    return End(id, button);
  }
  /// From now on everything fails with this sentence; an empty one mends it.
  void Break(const std::string& sentence) {
    Change([&] { failure_ = sentence; });
  }
  /// From now on `Lock` covers the screen and fails then; an empty sentence mends it.
  void BreakLockHalfWay(const std::string& sentence) {
    Change([&] { lockFailure_ = sentence; });
  }
  /// From now on `Unlock` alone fails; an empty sentence mends it.
  void BreakUnlock(const std::string& sentence) {
    Change([&] { unlockFailure_ = sentence; });
  }
  /// Called in each `ShowDialog` before anything else, in the desktop's turn.
  void SetWhenShown(std::function<void(uint32_t id)> action) {
    Change([&] { whenShown_ = std::move(action); });
  }
  void SetActivity(const UserActivity& activity) {
    Change([&] { activity_ = activity; });
  }

  // What a test sees.

  /// Waits until so many dialogs have been shown in all; the last one's identifier.
  uint32_t WaitForDialog(size_t count = 1) {
    std::unique_lock lock(mutex_);
    const bool isThere = WaitUntil(lock, [&] { return shown_.size() >= count; });
    return isThere ? shown_[count - 1].first : 0;
  }
  bool WaitUntilNoneIsOpen() {
    std::unique_lock lock(mutex_);
    return WaitUntil(lock, [&] { return open_.empty(); });
  }
  bool WaitUntilLocked(bool isLocked) {
    std::unique_lock lock(mutex_);
    return WaitUntil(lock, [&] { return isLocked_ == isLocked; });
  }
  bool IsOpen(uint32_t id) const {
    const std::lock_guard lock(mutex_);
    return open_.contains(id);
  }
  size_t CountOpen() const {
    const std::lock_guard lock(mutex_);
    return open_.size();
  }
  bool IsLocked() const {
    const std::lock_guard lock(mutex_);
    return isLocked_;
  }
  /// How often `Lock` succeeded.
  size_t CountLocks() const {
    const std::lock_guard lock(mutex_);
    return locks_;
  }
  /// Title and text.
  std::pair<std::string, std::string> LockText() const {
    const std::lock_guard lock(mutex_);
    return lockText_;
  }
  std::optional<DialogContent> Content(uint32_t id) const {
    const std::lock_guard lock(mutex_);
    for (const auto& [shownId, content] : shown_) {
      if (shownId == id) return content;
    }
    return std::nullopt;
  }
  size_t CountShown() const {
    const std::lock_guard lock(mutex_);
    return shown_.size();
  }
  /// What `CloseDialog` was called for, in its order.
  std::vector<uint32_t> Closed() const {
    const std::lock_guard lock(mutex_);
    return closed_;
  }

 private:
  template <typename Condition>
  bool WaitUntil(std::unique_lock<std::mutex>& lock, Condition condition) {
    return changed_.wait_for(lock, std::chrono::seconds(10), condition);
  }

  template <typename Step>
  void Change(Step step) {
    const std::lock_guard lock(mutex_);
    step();
    changed_.notify_all();
  }

  // With the turn held; the dialog is gone before `ended` is called.
  bool End(uint32_t id, ButtonId button) {
    Ended ended;
    Change([&] {
      const auto found = open_.find(id);
      if (found == open_.end()) return;
      ended = std::move(found->second);
      open_.erase(found);
    });
    if (!ended) return false;
    ended(button);
    return true;
  }

  std::function<void(uint32_t)> WhenShown() const {
    const std::lock_guard lock(mutex_);
    return whenShown_;
  }

  void ThrowIfBroken() const {
    if (!failure_.empty()) throw std::runtime_error(failure_);
  }

  std::mutex turn_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::pair<uint32_t, DialogContent>> shown_;
  std::map<uint32_t, Ended> open_;
  std::vector<uint32_t> closed_;
  std::function<void(uint32_t)> whenShown_;
  bool isLocked_ = false;
  size_t locks_ = 0;
  std::pair<std::string, std::string> lockText_;
  UserActivity activity_;
  std::string failure_;
  std::string lockFailure_;
  std::string unlockFailure_;
  bool hasQuit_ = false;
};
