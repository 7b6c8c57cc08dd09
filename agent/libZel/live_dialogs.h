#pragma once

#include <memory>
#include <mutex>
#include <unordered_map>

#include "agent/libZel/dialog_window.h"

/// The dialogs of this process that have not been deleted. Any number of threads may call at once.
class LiveDialogs {
 public:
  /// The one of this process, which is never destroyed.
  static LiveDialogs& Instance();

  /// When proxies cannot be asked any more the window is abandoned at once.
  void Add(const void* dialog, const std::shared_ptr<DialogWindow>& window);
  void Remove(const void* dialog);
  /// Null for a dialog that is not alive.
  std::shared_ptr<DialogWindow> Find(const void* dialog) const;

  /// Those that come meanwhile may be left out.
  void AbandonAll();

 private:
  mutable std::mutex mutex_;
  std::unordered_map<const void*, std::shared_ptr<DialogWindow>> windows_;
};
