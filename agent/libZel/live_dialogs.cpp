#include "agent/libZel/live_dialogs.h"

#include "agent/libZel/proxy_waits.h"

LiveDialogs& LiveDialogs::Instance() {
  static LiveDialogs& dialogs = *new LiveDialogs;
  return dialogs;
}

void LiveDialogs::Add(const void* dialog, const std::shared_ptr<DialogWindow>& window) {
  // In this order, and the other way round when the waits end: one of them sees the other.
  {
    const std::lock_guard lock(mutex_);
    windows_[dialog] = window;
  }
  if (HaveProxyWaitsEnded()) window->Abandon();
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

void LiveDialogs::AbandonAll() {
  std::unordered_map<const void*, std::shared_ptr<DialogWindow>> windows;
  {
    const std::lock_guard lock(mutex_);
    windows = windows_;
  }
  for (const auto& [dialog, window] : windows) window->Abandon();
}
