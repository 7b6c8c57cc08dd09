#include "agent/libZel/platform/posix/volume_sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <utility>

namespace file_system {
namespace {

// So much is worth a round of its own: about a tenth of a second of a fast disk's.
constexpr uint64_t kRoundBytes = 96 << 20;
// What a file takes beside its content, in bytes of content that take as long.
constexpr uint64_t kBytesOfOneFile = 16 << 10;

// An error that the volume had since `volume` was opened is told once.
int SyncVolume(int volume) {
  return syncfs(volume) == 0 ? 0 : errno;
}

}  // namespace

void VolumeSync::Follow(int directory) {
  TakeResult();
  notedBytes_ = 0;
  volume_ = UniqueFd(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

void VolumeSync::NoteFile(uint64_t bytes) {
  notedBytes_ += bytes + kBytesOfOneFile;
  if (!volume_ || notedBytes_ < kRoundBytes || IsBusy()) return;
  TakeResult();
  notedBytes_ = 0;
  try {
    running_ = std::async(std::launch::async, SyncVolume, volume_.Get());
  } catch (const std::exception&) {
    // Without a thread, or memory for one, the end takes longer.
  }
}

int VolumeSync::Finish() {
  TakeResult();
  int error = 0;
  if (volume_) {
    error = SyncVolume(volume_.Get());
  } else {
    // Who may write but not read the directory has all volumes written.
    sync();
  }
  const int earlier = std::exchange(error_, 0);
  return earlier != 0 ? earlier : error;
}

bool VolumeSync::IsBusy() const {
  return running_.valid() &&
         running_.wait_for(std::chrono::seconds(0)) != std::future_status::ready;
}

void VolumeSync::TakeResult() {
  if (!running_.valid()) return;
  const int error = running_.get();
  if (error_ == 0) error_ = error;
}

}  // namespace file_system
