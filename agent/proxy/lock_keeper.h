#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>

#include "agent/proxy/desktop.h"

/// Knows who wants the screen to be locked, and frees it a while after the last of them has gone:
/// an agent that has ended leaves nobody locked out.
///
/// Threads: any number at once. Failures are std::runtime_error with a sentence.
class LockKeeper {
 public:
  /// Whatever tells holders apart.
  using Holder = const void*;
  /// From any thread.
  using Log = std::function<void(const std::string& line)>;

  /// `desktop` lives longer than the keeper; null where there is no display. `grace` is how long
  /// the screen stays locked without a holder.
  LockKeeper(Desktop* desktop, std::chrono::milliseconds grace, Log log);
  /// Frees the screen.
  ~LockKeeper();
  LockKeeper(const LockKeeper&) = delete;
  LockKeeper& operator=(const LockKeeper&) = delete;

  /// Locks and returns when the screen is covered; a locked one gets one more holder. When this
  /// throws nobody holds it and the screen is free; one that the desktop does not free is tried
  /// again after each `grace`.
  void Lock(Holder holder);
  /// Throws when the screen is not locked.
  void SetText(const std::string& title, const std::string& text);
  /// Frees the screen, whoever holds it.
  void Unlock();

  bool IsHeldBy(Holder holder) const;
  /// The holder has gone. Does not throw.
  void Release(Holder holder);

 private:
  Desktop& NeedDesktop() const;
  void Watch();
  void UnlockInTime();
  void FreeWhatWasCovered();
  void Forget();

  Desktop* const desktop_;
  const std::chrono::milliseconds grace_;
  const Log log_;
  // Held while the desktop works, so that locks and unlocks happen one after the other.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::set<Holder> holders_;
  bool isLocked_ = false;
  std::optional<std::chrono::steady_clock::time_point> unlockAt_;
  bool isEnding_ = false;
  std::thread watcher_;
};
