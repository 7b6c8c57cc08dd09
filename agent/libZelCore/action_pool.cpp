#include "agent/libZelCore/action_pool.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <system_error>
#include <utility>

#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"

namespace {

constexpr std::chrono::milliseconds kMemoryIdleTime{500};
constexpr std::chrono::seconds kIdleTime{10};
// About what waking a sleeping thread costs: jobs that follow each other closely are spared it.
constexpr std::chrono::microseconds kSpinTime{50};

void Run(const std::function<void()>& job) {
  try {
    job();
  } catch (const std::exception& error) {
    CoreLog().ErrorWithNL("A job of the action pool failed: %s", error.what());
  } catch (...) {
    CoreLog().ErrorWithNL("A job of the action pool failed with an unknown exception");
  }
}

}  // namespace

ActionPool::ActionPool(size_t maxThreads, size_t maxQueued)
    : keptThreads_(std::max<size_t>(1, std::thread::hardware_concurrency())),
      maxThreads_(std::max<size_t>(1, maxThreads)),
      maxQueued_(maxQueued) {}

ActionPool::~ActionPool() {
  Stop();
}

bool ActionPool::Submit(std::function<void()> job, Patience patience) {
  return Take({std::move(job), patience}, false);
}

bool ActionPool::HandOn(std::function<void()> job, Patience patience) {
  return Take({std::move(job), patience}, true);
}

/// `hasThread`: one will be free for the job soon.
bool ActionPool::Take(Job job, bool hasThread) {
  const bool isForPeople = job.patience == Patience::kForPeople;
  const bool isForNetwork = job.patience == Patience::kForNetwork;
  Threads ended;
  Jobs one;
  one.push_back(std::move(job));
  {
    std::unique_lock lock(mutex_);
    if (stopping_) return false;
    if (isForPeople && jobsForPeople_ >= std::max<size_t>(1, maxThreads_ / 2)) return false;
    if (isForNetwork && jobsForNetwork_ >= std::max<size_t>(1, maxThreads_ / 4)) {
      if (deferred_.size() >= std::min(2 * maxThreads_, maxQueued_)) return false;
      deferred_.splice(deferred_.end(), one);
      return true;
    }

    if (!Enqueue(one, hasThread)) return false;
    if (isForPeople) ++jobsForPeople_;
    if (isForNetwork) ++jobsForNetwork_;
    ended.swap(ended_);
  }
  wake_.notify_one();  // without the lock, or the woken thread would wait for it at once
  for (std::thread& thread : ended) thread.join();
  return true;
}

/// Called with the mutex held. False, with the job not kept, when no thread takes it soon enough.
bool ActionPool::Enqueue(Jobs& job, bool hasThread) {
  // An idle thread may have been woken for a queued job and not run yet, hence the comparison.
  if (queue_.size() >= idle_ && !StartThread()) {
    const bool isFull = !hasThread && queue_.size() >= idle_ + maxQueued_;
    if (isFull || threads_.empty()) return false;
  }
  queue_.splice(queue_.end(), job);
  hasQueued_ = true;
  return true;
}

/// Called with the mutex held, by the thread that ran the job: it looks into the queue next.
void ActionPool::Finish(Patience patience) {
  if (patience == Patience::kForPeople) --jobsForPeople_;
  if (patience != Patience::kForNetwork) return;
  if (deferred_.empty()) {
    --jobsForNetwork_;
    return;
  }
  queue_.splice(queue_.end(), deferred_, deferred_.begin());
  hasQueued_ = true;
}

void ActionPool::Stop() {
  Threads threads;
  Jobs dropped, deferred;
  {
    std::unique_lock lock(mutex_);
    stopping_ = true;
    dropped.swap(queue_);
    deferred.swap(deferred_);
    hasQueued_ = true;  // ends a spin
    threads.splice(threads.end(), threads_);
    threads.splice(threads.end(), ended_);
    wake_.notify_all();
  }
  for (std::thread& thread : threads) thread.join();
}

/// Called with the mutex held. False at the ceiling, or when the system gives no more threads.
bool ActionPool::StartThread() {
  if (threads_.size() >= maxThreads_) return false;
  const auto self = threads_.emplace(threads_.end());
  try {
    *self = std::thread(&ActionPool::Work, this, self);
    lacksThread_ = false;
    return true;
  } catch (const std::system_error& error) {
    threads_.erase(self);
    // Once, however many requests come meanwhile.
    if (!std::exchange(lacksThread_, true))
      CoreLog().WarningWithNL("No further action thread: %s", error.what());
    return false;
  }
}

void ActionPool::Work(Threads::iterator self) {
  std::unique_lock lock(mutex_);
  while (WaitForJob(lock)) {
    Job job = std::move(queue_.front());
    queue_.pop_front();
    hasQueued_ = !queue_.empty();
    lock.unlock();
    Run(job.run);
    job.run = nullptr;  // what the job holds is released before the next wait
    lock.lock();
    Finish(job.patience);
  }
  // When stopping, the thread's handle is in the hands of Stop() already.
  if (!stopping_) ended_.splice(ended_.end(), threads_, self);
}

/// Waits for a job without sleeping for a moment. One thread at a time does.
void ActionPool::Spin(std::unique_lock<std::mutex>& lock) {
  if (isSpinning_ || keptThreads_ == 1) return;
  isSpinning_ = true;
  lock.unlock();
  const auto end = std::chrono::steady_clock::now() + kSpinTime;
  while (!hasQueued_ && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  lock.lock();
  isSpinning_ = false;
}

/// False when this thread is to end: the pool stops, or the thread has had nothing to do for long
/// and is not one of those that are kept.
bool ActionPool::WaitForJob(std::unique_lock<std::mutex>& lock) {
  bool keepsMemory = true;
  while (!stopping_ && queue_.empty()) {
    ++idle_;
    Spin(lock);
    const bool isWoken = wake_.wait_for(lock, keepsMemory ? kMemoryIdleTime : kIdleTime,
                                        [this] { return stopping_ || !queue_.empty(); });
    const bool isOver = !isWoken && !keepsMemory && threads_.size() > keptThreads_;
    // Still idle to others: it takes a moment only.
    if (!isWoken && std::exchange(keepsMemory, false)) ReturnMemory(lock);
    --idle_;
    if (isOver) return false;
  }
  return !stopping_;
}

/// What a large job had belongs to this thread's heap, whoever freed it, and only this thread can
/// give the end of that heap back.
void ActionPool::ReturnMemory(std::unique_lock<std::mutex>& lock) {
  lock.unlock();
  core_platform::ReturnFreeMemoryOfThread();
  lock.lock();
}
