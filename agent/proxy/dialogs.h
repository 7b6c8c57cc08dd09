#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>

#include "agent/proxy/desktop.h"

class Dialog;

struct DialogLimits {
  /// Of one owner, at once.
  size_t perOwner = 16;
  /// That have not ended, of all owners.
  size_t open = 64;
};

struct DialogState {
  /// Whether it has not ended yet, on the screen or before.
  bool isOpen = false;
  /// How it ended; 0 before.
  ButtonId button = 0;
};

/// The dialogs of all connections, by number. Each has an owner, a connection, and goes with it.
///
/// Threads: any number at once, but for the calls of one owner for itself, which come one at a
/// time. Failures are std::runtime_error with a sentence.
class DialogTable {
 public:
  /// Whatever tells owners apart.
  using Owner = const void*;

  /// `desktop` lives longer than the table; null where there is no display.
  explicit DialogTable(Desktop* desktop, const DialogLimits& limits = {});
  ~DialogTable();

  /// The number of a new dialog, which is not on the screen yet. Throws without a display and when
  /// there are too many; of an owner's dialogs that have ended the oldest then makes room.
  uint32_t Create(Owner owner, DialogContent content);
  /// Puts it on the screen and returns when it is there; `ended` is called when it has ended, from
  /// any thread, perhaps before this returns: at once for one that was closed before. Throws, and
  /// does not call `ended`, when the owner has no such dialog, when it was shown before and when
  /// the desktop cannot show it, which ends it.
  void Show(Owner owner, uint32_t number, Desktop::Ended ended);
  /// Ends a dialog of any owner, also before it is shown, and returns when it is gone from the
  /// screen. Does nothing without such a dialog.
  void Close(uint32_t number);
  /// Throws without such a dialog.
  DialogState State(uint32_t number) const;

  bool HasAny(Owner owner) const;
  /// Closes and forgets what the owner has. Does not throw.
  void Release(Owner owner);

 private:
  struct Entry {
    Owner owner;
    std::shared_ptr<Dialog> dialog;
  };
  using Entries = std::map<uint32_t, Entry>;

  std::shared_ptr<Dialog> Find(uint32_t number) const;
  size_t CountOpen() const;
  /// What a new dialog of the owner takes the place of: nothing (the end) while it may have more.
  Entries::const_iterator FindOneToReplace(Owner owner) const;

  Desktop* const desktop_;
  const DialogLimits limits_;
  mutable std::mutex mutex_;
  Entries entries_;
  uint32_t lastNumber_ = 0;
};
