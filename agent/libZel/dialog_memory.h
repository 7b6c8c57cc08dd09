#pragma once

#include <cstddef>

/// Memory for dialogs that may be called when they have been deleted already: it is never given
/// back, is used for dialogs of the same size alone, keeps its content after `Release`, and is used
/// again only when `kRestingSlots` others have been released after it. Any number of threads may
/// call at once.
class DialogMemory {
 public:
  static constexpr size_t kRestingSlots = 64;

  /// Throws std::bad_alloc.
  static void* Take(size_t size);
  static void Release(void* memory) noexcept;
};
