#pragma once

#include <functional>

/// Is asked in place of the disk, for the life of the object and on this thread, whenever the
/// library waits until a file or directory (fsync), or all files of a volume (syncfs), are on it.
class DiskWaits {
 public:
  /// Gets the descriptor; returns an error number, or 0.
  using Answer = std::function<int(int file)>;

  explicit DiskWaits(Answer answer);
  ~DiskWaits();
  DiskWaits(const DiskWaits&) = delete;
  DiskWaits& operator=(const DiskWaits&) = delete;
};
