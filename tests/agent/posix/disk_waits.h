#pragma once

#include <functional>

/// Is asked in place of the disk, for the life of the object, whenever the library waits on any
/// thread until a file or directory (fsync), or all files of a volume (syncfs), are on it. One at a
/// time.
class DiskWaits {
 public:
  /// Gets the descriptor; returns an error number, or 0.
  using Answer = std::function<int(int file)>;

  explicit DiskWaits(Answer answer);
  ~DiskWaits();
  DiskWaits(const DiskWaits&) = delete;
  DiskWaits& operator=(const DiskWaits&) = delete;
};
