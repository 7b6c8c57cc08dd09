#include "agent/libZelMarlin/interruption.h"

#include <atomic>

namespace {

// Nothing else is told by it, so that it needs no order among other memory.
std::atomic<bool> isInterrupted{false};

}  // namespace

void InterruptScripts() {
  isInterrupted.store(true, std::memory_order_relaxed);
}

void AllowScripts() {
  isInterrupted.store(false, std::memory_order_relaxed);
}

bool ScriptsAreInterrupted() {
  return isInterrupted.load(std::memory_order_relaxed);
}
