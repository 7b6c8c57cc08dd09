#include "agent/libZelCore/proxy_supervisor.h"

#include <exception>
#include <utility>

#include "agent/libZelCore/core_log.h"

namespace {

/// Between two looks at a proxy that somebody waits for.
constexpr std::chrono::milliseconds kStartingInterval{50};

}  // namespace

ProxySupervisor::ProxySupervisor(ProxySystem system, std::chrono::milliseconds interval)
    : keeper_(std::move(system)), interval_(interval), thread_([this] { Work(); }) {}

ProxySupervisor::~ProxySupervisor() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  looked_.notify_all();
  thread_.join();
}

bool ProxySupervisor::Ensure(const std::string& pipe, std::chrono::milliseconds patience) {
  using State = ProxyKeeper::State;
  const auto deadline = std::chrono::steady_clock::now() + patience;
  std::unique_lock lock(mutex_);
  for (;;) {
    if (stopping_) return false;
    const auto state = states_.find(pipe);
    if (state != states_.end() && state->second == State::kListening) return true;

    // The look under way may have passed this session already.
    const uint64_t look = looksBegun_ + 1;
    looksWanted_ = look;
    wake_.notify_all();
    const auto isDone = [&] { return stopping_ || looksDone_ >= look; };
    if (!looked_.wait_until(lock, deadline, isDone)) return false;
    const auto now = states_.find(pipe);
    if (now == states_.end() || now->second == State::kPaused) return false;
    if (now->second == State::kListening) return true;
    // It starts.
    const auto next = std::min(deadline, std::chrono::steady_clock::now() + kStartingInterval);
    looked_.wait_until(lock, next, [this] { return stopping_; });
    if (std::chrono::steady_clock::now() >= deadline) return false;
  }
}

void ProxySupervisor::Work() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    ++looksBegun_;
    lock.unlock();
    std::map<std::string, ProxyKeeper::State> states;
    try {
      states = keeper_.Look(ProxyKeeper::Clock::now());
    } catch (const std::exception& error) {
      CoreLog().ErrorWithNL("Looking after the proxies failed: %s", error.what());
    }
    lock.lock();
    states_ = std::move(states);
    looksDone_ = looksBegun_;
    looked_.notify_all();
    wake_.wait_for(lock, interval_, [this] { return stopping_ || looksWanted_ > looksBegun_; });
  }
  lock.unlock();
  keeper_.EndAll();
}
