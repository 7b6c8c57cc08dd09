#pragma once

#include <mutex>

/// A mutual-exclusion lock; not recursive.
class ZelMutex {
 public:
  void Lock();
  void Unlock();

 private:
  std::mutex mutex_;
};

/// Holds a `ZelMutex` for a scope.
class ZelMutexLock {
 public:
  explicit ZelMutexLock(ZelMutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~ZelMutexLock() { mutex_.Unlock(); }
  ZelMutexLock(const ZelMutexLock&) = delete;
  ZelMutexLock& operator=(const ZelMutexLock&) = delete;

 private:
  ZelMutex& mutex_;
};
