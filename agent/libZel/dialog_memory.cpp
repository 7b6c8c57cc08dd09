#include "agent/libZel/dialog_memory.h"

#include <mutex>
#include <new>

namespace {

/// In front of each dialog's memory, so that releasing it needs none.
struct alignas(std::max_align_t) Slot {
  size_t size;
  Slot* next;

  void* Memory() { return this + 1; }
  static Slot* Of(void* memory) { return static_cast<Slot*>(memory) - 1; }
};

/// The slots that are free, the one released first in front.
struct FreeSlots {
  std::mutex mutex;
  Slot* first = nullptr;
  Slot* last = nullptr;
  size_t count = 0;

  // Never destroyed: dialogs of other static objects may end later.
  static FreeSlots& Instance() {
    static FreeSlots& slots = *new FreeSlots;
    return slots;
  }

  /// Null when none has rested long enough.
  Slot* Take(size_t size) {
    Slot* before = nullptr;
    Slot* slot = first;
    for (size_t behind = count; behind > DialogMemory::kRestingSlots; --behind) {
      if (slot->size == size) return Unlink(before, slot);
      before = slot;
      slot = slot->next;
    }
    return nullptr;
  }

  Slot* Unlink(Slot* before, Slot* slot) {
    (before ? before->next : first) = slot->next;
    if (last == slot) last = before;
    --count;
    return slot;
  }

  void Append(Slot* slot) {
    slot->next = nullptr;
    (last ? last->next : first) = slot;
    last = slot;
    ++count;
  }
};

}  // namespace

void* DialogMemory::Take(size_t size) {
  FreeSlots& slots = FreeSlots::Instance();
  {
    const std::lock_guard lock(slots.mutex);
    if (Slot* const slot = slots.Take(size)) return slot->Memory();
  }
  return (new (::operator new(sizeof(Slot) + size)) Slot{size, nullptr})->Memory();
}

void DialogMemory::Release(void* memory) noexcept {
  if (!memory) return;
  FreeSlots& slots = FreeSlots::Instance();
  const std::lock_guard lock(slots.mutex);
  slots.Append(Slot::Of(memory));
}
