#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>

#include "agent/proxy/desktop.h"

/// One dialog from its making to its end, which comes once, whoever brings it about. Once it was
/// asked to close no button counts any more.
///
/// Threads: any number at once. The desktop is called without a lock held.
class Dialog : public std::enable_shared_from_this<Dialog> {
 public:
  Dialog(Desktop& desktop, uint32_t number, DialogContent content);
  Dialog(const Dialog&) = delete;
  Dialog& operator=(const Dialog&) = delete;

  /// As `DialogTable::Show`.
  void Show(Desktop::Ended ended);
  /// Returns when it is gone. Throws std::runtime_error when the desktop could not take it down.
  void Close();

  bool HasEnded() const;
  /// How it ended; 0 before.
  ButtonId Button() const;

 private:
  enum class Phase { kMade, kAppearing, kOpen, kEnded };

  /// What is to be done next: the dialog is ended, or the desktop is to show it.
  bool BeginToAppear(Desktop::Ended* ended);
  void Appear();
  void TakeDown();
  void End(ButtonId button);
  void ForgetEnded();

  Desktop& desktop_;
  const uint32_t number_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  DialogContent content_;
  Desktop::Ended ended_;
  Phase phase_ = Phase::kMade;
  bool wasShown_ = false;
  bool isClosing_ = false;
  ButtonId button_ = 0;
};
