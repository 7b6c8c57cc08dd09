#include "agent/zelctl/interruption.h"

#include <atomic>
#include <csignal>

namespace {

std::atomic<bool> isRequested = false;
static_assert(std::atomic<bool>::is_always_lock_free, "signal handlers may set nothing else");

extern "C" void NoteInterruption(int signal) {
  // Windows forgets a handler when it calls it.
  std::signal(signal, &NoteInterruption);
  isRequested = true;
}

/// Leaves a signal alone that whoever started the program wants to be ignored.
void (*Install(int signal))(int) {
  void (*const before)(int) = std::signal(signal, &NoteInterruption);
  if (before == SIG_IGN) std::signal(signal, SIG_IGN);
  return before;
}

}  // namespace

Interruption::Interruption()
    : beforeInterrupt_(Install(SIGINT)), beforeTerminate_(Install(SIGTERM)) {
  Reset();
}

Interruption::~Interruption() {
  std::signal(SIGINT, beforeInterrupt_);
  std::signal(SIGTERM, beforeTerminate_);
  Reset();
}

bool Interruption::IsRequested() {
  return isRequested;
}

void Interruption::Reset() {
  isRequested = false;
}
