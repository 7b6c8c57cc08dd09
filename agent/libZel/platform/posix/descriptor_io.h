#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>

// Reading and writing by file descriptors, whatever signals arrive meanwhile.

/// What a system call, which answers -1 and sets `errno` when it fails, answers in the end: it is
/// made again as often as a signal interrupts it.
template <typename Call>
auto Uninterrupted(Call call) {
  auto answer = call();
  while (answer == -1 && errno == EINTR) answer = call();
  return answer;
}

/// Calls `transfer(done)`, which moves some of the bytes behind the first `done` ones, until all
/// `count` are moved or it moves none. Returns an error number, or 0, and how far it came.
template <typename Transfer>
int TransferAll(size_t count, size_t* done, Transfer transfer) {
  *done = 0;
  while (*done < count) {
    const ssize_t moved = Uninterrupted([&] { return transfer(*done); });
    if (moved < 0) return errno;
    if (moved == 0) return 0;
    *done += static_cast<size_t>(moved);
  }
  return 0;
}

/// Reads `count` bytes from where the file stands, or as many as there are. Returns an error
/// number, or 0; `*done` is set in any case.
inline int ReadUpTo(int fd, void* buffer, size_t count, size_t* done) {
  auto* const bytes = static_cast<char*>(buffer);
  return TransferAll(count, done,
                     [&](size_t begin) { return read(fd, bytes + begin, count - begin); });
}

/// The same from another place in the file.
inline int ReadUpToAt(int fd, uint64_t offset, void* buffer, size_t count, size_t* done) {
  auto* const bytes = static_cast<char*>(buffer);
  return TransferAll(count, done, [&](size_t begin) {
    return pread(fd, bytes + begin, count - begin, static_cast<off_t>(offset + begin));
  });
}

/// Writes all the bytes from where the file stands. Returns an error number, or 0.
inline int WriteAll(int fd, const void* bytes, size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t written = Uninterrupted([&] { return write(fd, next, count); });
    if (written < 0) return errno;
    next += written;
    count -= static_cast<size_t>(written);
  }
  return 0;
}

/// The same to another place in the file.
inline int WriteAllAt(int fd, uint64_t offset, const void* bytes, size_t count) {
  const auto* next = static_cast<const char*>(bytes);
  while (count > 0) {
    const ssize_t written =
        Uninterrupted([&] { return pwrite(fd, next, count, static_cast<off_t>(offset)); });
    if (written < 0) return errno;
    next += written;
    offset += static_cast<uint64_t>(written);
    count -= static_cast<size_t>(written);
  }
  return 0;
}
