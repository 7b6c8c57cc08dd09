#pragma once

#include <unistd.h>

#include <utility>

/// Owns a file descriptor; -1 is none.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  ~UniqueFd() { Close(); }

  explicit operator bool() const { return fd_ >= 0; }
  int Get() const { return fd_; }
  int Release() { return std::exchange(fd_, -1); }
  void Close() {
    if (fd_ >= 0) close(Release());
  }

 private:
  int fd_ = -1;
};
