#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

/// The threads that actions run on. Some actions wait for a person, so the pool grows while all its
/// threads are busy, up to a ceiling; threads above the core count end when they have been idle for
/// a while.
class ActionPool {
 public:
  /// `maxThreads` at least 1; `maxQueued` is how many jobs may wait when all threads are busy, not
  /// counting those that wait for others of their kind.
  ActionPool(size_t maxThreads, size_t maxQueued);
  /// Waits for the running jobs; waiting ones are dropped.
  ~ActionPool();

  /// What a job may wait for. Those that wait for a person have at most half of the threads, so
  /// that a screen full of questions leaves the agent able to answer, and to withdraw them; more
  /// are refused. Those that wait for other machines have at most a quarter, so that silent ones
  /// hold up nobody else; twice as many as there are threads (but no more than `maxQueued`) wait
  /// their turn, and further ones are refused.
  enum class Patience { kOrdinary, kForPeople, kForNetwork };

  /// False when the pool is at capacity or stopping; the job is then not kept.
  bool Submit(std::function<void()> job, Patience patience = Patience::kOrdinary);
  /// The same from a job that is about to end: it is not refused because all threads are busy and
  /// the queue is full, for its thread is free next.
  bool HandOn(std::function<void()> job, Patience patience);
  /// Takes no more jobs, drops waiting ones, waits for running ones. Not to be called from a job.
  void Stop();

 private:
  using Threads = std::list<std::thread>;
  struct Job {
    std::function<void()> run;
    Patience patience;
  };
  /// Jobs move from list to list without an allocation that could fail.
  using Jobs = std::list<Job>;

  bool Take(Job job, bool hasThread);
  bool Enqueue(Jobs& job, bool hasThread);
  void Finish(Patience patience);
  bool StartThread();
  void Work(Threads::iterator self);
  bool WaitForJob(std::unique_lock<std::mutex>& lock);
  void Spin(std::unique_lock<std::mutex>& lock);
  static void ReturnMemory(std::unique_lock<std::mutex>& lock);

  const size_t keptThreads_;  ///< these do not end when idle
  const size_t maxThreads_;
  const size_t maxQueued_;
  std::mutex mutex_;
  std::condition_variable wake_;
  Jobs queue_;
  size_t jobsForPeople_ = 0;   ///< that run or wait to
  size_t jobsForNetwork_ = 0;  ///< that run or stand in `queue_`
  Jobs deferred_;              ///< for the network, until others have ended
  Threads threads_;
  Threads ended_;  ///< threads that have left `threads_` and are to be joined
  size_t idle_ = 0;
  std::atomic<bool> hasQueued_{false};  ///< for the thread that spins
  bool isSpinning_ = false;
  bool lacksThread_ = false;  ///< and the log has told
  bool stopping_ = false;
};
