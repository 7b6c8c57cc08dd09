#include "agent/libZel/proxy_waits.h"

#include <mutex>

#include "agent/libZel/live_dialogs.h"
#include "agent/proxy_protocol/channel.h"

using proxy_protocol::StopSignal;

namespace {

/// Never destroyed.
struct Waits {
  static Waits& Instance() {
    static Waits& waits = *new Waits;
    return waits;
  }

  std::mutex mutex;
  std::shared_ptr<StopSignal> end = std::make_shared<StopSignal>();
  bool haveEnded = false;
};

}  // namespace

void EndProxyWaits() {
  {
    Waits& waits = Waits::Instance();
    const std::lock_guard lock(waits.mutex);
    waits.haveEnded = true;
    waits.end->Raise();
  }
  // A dialog's connection watches a signal of the dialog's own.
  LiveDialogs::Instance().AbandonAll();
}

void AllowProxyWaits() {
  Waits& waits = Waits::Instance();
  const std::lock_guard lock(waits.mutex);
  if (!waits.haveEnded) return;
  waits.end = std::make_shared<StopSignal>();
  waits.haveEnded = false;
}

std::shared_ptr<StopSignal> ProxyWaitsEnd() {
  Waits& waits = Waits::Instance();
  const std::lock_guard lock(waits.mutex);
  return waits.end;
}

bool HaveProxyWaitsEnded() {
  Waits& waits = Waits::Instance();
  const std::lock_guard lock(waits.mutex);
  return waits.haveEnded;
}
