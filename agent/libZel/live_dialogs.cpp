#include "agent/libZel/live_dialogs.h"

#include <utility>

LiveDialogs& LiveDialogs::Instance() {
  static LiveDialogs& dialogs = *new LiveDialogs;
  return dialogs;
}

void LiveDialogs::Add(const void* dialog, std::shared_ptr<DialogWindow> window) {
  const std::lock_guard lock(mutex_);
  if (isEnding_) window->Abandon();
  windows_[dialog] = std::move(window);
}

void LiveDialogs::Remove(const void* dialog) {
  const std::lock_guard lock(mutex_);
  windows_.erase(dialog);
}

std::shared_ptr<DialogWindow> LiveDialogs::Find(const void* dialog) const {
  const std::lock_guard lock(mutex_);
  const auto found = windows_.find(dialog);
  return found == windows_.end() ? nullptr : found->second;
}

void LiveDialogs::EndWaits() {
  std::unordered_map<const void*, std::shared_ptr<DialogWindow>> windows;
  {
    const std::lock_guard lock(mutex_);
    isEnding_ = true;
    windows = windows_;
  }
  for (const auto& [dialog, window] : windows) window->Abandon();
}

void LiveDialogs::AllowWaits() {
  const std::lock_guard lock(mutex_);
  isEnding_ = false;
}
