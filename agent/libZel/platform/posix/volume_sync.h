#pragma once

#include <cstdint>
#include <future>

#include "agent/libZel/platform/posix/unique_fd.h"

namespace file_system {

/// Brings the files that a directory gets to the disk: some in the background while others are
/// written, so that at the end there is little to wait for. All that stands on the volume goes with
/// them. For one thread at once.
class VolumeSync {
 public:
  /// From now on files are put into `directory`, which may have been opened without reading
  /// (O_PATH).
  void Follow(int directory);
  /// A file of so many bytes was written.
  void NoteFile(uint64_t bytes);
  /// Returns when everything of the directory followed last is on the disk: an error number, or 0.
  /// What failed in the background counts.
  int Finish();

 private:
  bool IsBusy() const;
  void TakeResult();

  UniqueFd volume_;
  uint64_t notedBytes_ = 0;
  int error_ = 0;
  std::future<int> running_;  ///< the last member: it is waited for before the volume is closed
};

}  // namespace file_system
