#pragma once

#include <signal.h>
#include <sys/resource.h>

/// The largest file that this process may write, for the life of the object.
class SizeLimit {
 public:
  explicit SizeLimit(rlim_t bytes) {
    handler_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &old_);
    rlimit limit = old_;
    limit.rlim_cur = bytes;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~SizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, handler_);
  }
  SizeLimit(const SizeLimit&) = delete;
  SizeLimit& operator=(const SizeLimit&) = delete;

 private:
  rlimit old_{};
  void (*handler_)(int) = SIG_DFL;
};
