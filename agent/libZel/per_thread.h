#pragma once

#include <pthread.h>

#include <new>

/// A `T` of its own for each thread, made at the thread's first use and destroyed when it ends.
///
/// Instead of `thread_local`, whose destructors mingw-w64 runs when the memory of the object is
/// gone already. Both platforms' compilers bring POSIX threads.
template <typename T>
class PerThread {
 public:
  PerThread() {
    if (pthread_key_create(&key_, [](void* value) { delete static_cast<T*>(value); }) != 0)
      throw std::bad_alloc();
  }
  ~PerThread() {
    delete static_cast<T*>(pthread_getspecific(key_));
    pthread_key_delete(key_);
  }
  PerThread(const PerThread&) = delete;
  PerThread& operator=(const PerThread&) = delete;

  T& Get() {
    if (void* const value = pthread_getspecific(key_)) return *static_cast<T*>(value);
    T* const made = new T();
    if (pthread_setspecific(key_, made) != 0) {
      delete made;
      throw std::bad_alloc();
    }
    return *made;
  }

 private:
  pthread_key_t key_;
};
