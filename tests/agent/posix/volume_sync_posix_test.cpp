#include "agent/libZel/platform/posix/volume_sync.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <future>

#include "tests/agent/posix/disk_waits.h"
#include "tests/agent/temporary_directory.h"

using file_system::VolumeSync;

namespace {

constexpr uint64_t kMuch = 1 << 30;
constexpr std::chrono::seconds kPatience{20};

class VolumeSyncTest : public testing::Test {
 protected:
  VolumeSyncTest() { sync_.Follow(directory_.Get()); }

  TemporaryDirectory temporary_;
  UniqueFd directory_{open(temporary_.Native(".").c_str(), O_PATH | O_DIRECTORY)};
  VolumeSync sync_;
};

TEST_F(VolumeSyncTest, WaitsForTheDiskOnceWhereLittleWasWritten) {
  int waits = 0;
  const DiskWaits disk([&](int) {
    ++waits;
    return 0;
  });
  sync_.NoteFile(1000);
  EXPECT_EQ(sync_.Finish(), 0);
  EXPECT_EQ(waits, 1);
}

TEST_F(VolumeSyncTest, BeginsWhileMoreIsWritten) {
  std::promise<void> begun;
  std::atomic<int> waits = 0;
  const DiskWaits disk([&](int) {
    if (++waits == 1) begun.set_value();
    return 0;
  });
  sync_.NoteFile(kMuch);
  EXPECT_EQ(begun.get_future().wait_for(kPatience), std::future_status::ready);
  EXPECT_EQ(sync_.Finish(), 0);
  EXPECT_EQ(waits, 2) << "what came meanwhile is waited for at the end";
}

TEST_F(VolumeSyncTest, BeginsOnceAtATime) {
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  std::atomic<int> waits = 0;
  const DiskWaits disk([&](int) {
    ++waits;
    return released.wait_for(kPatience) == std::future_status::ready ? 0 : ETIMEDOUT;
  });
  for (int i = 0; i < 5; ++i) sync_.NoteFile(kMuch);
  release.set_value();
  EXPECT_EQ(sync_.Finish(), 0);
  EXPECT_EQ(waits, 2);
}

TEST_F(VolumeSyncTest, CountsManySmallFiles) {
  std::atomic<int> waits = 0;
  const DiskWaits disk([&](int) {
    ++waits;
    return 0;
  });
  for (int i = 0; i < 10000; ++i) sync_.NoteFile(0);
  EXPECT_EQ(sync_.Finish(), 0);
  EXPECT_GE(waits, 2);
}

TEST_F(VolumeSyncTest, TellsAtTheEndWhatFailedMeanwhile) {
  std::atomic<int> waits = 0;
  const DiskWaits disk([&](int) { return ++waits == 1 ? EIO : 0; });
  sync_.NoteFile(kMuch);
  sync_.Follow(directory_.Get());
  EXPECT_EQ(sync_.Finish(), EIO);
  EXPECT_EQ(sync_.Finish(), 0);
}

TEST_F(VolumeSyncTest, EndsWithoutADirectory) {
  VolumeSync none;
  none.NoteFile(kMuch);
  EXPECT_EQ(none.Finish(), 0);
}

}  // namespace
