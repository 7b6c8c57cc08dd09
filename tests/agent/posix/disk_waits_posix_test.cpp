// What has to be on the disk before the only other copy goes.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "agent/libZel/native_path.h"
#include "agent/libZel/pending_upload.h"
#include "libZel/file.h"
#include "tests/agent/posix/disk_waits.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/test_http_server.h"

namespace fs = std::filesystem;

namespace {

bool IsDirectory(int file) {
  struct stat info {};
  EXPECT_EQ(fstat(file, &info), 0);
  return S_ISDIR(info.st_mode);
}

dev_t VolumeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(stat(path.c_str(), &info), 0) << path;
  return info.st_dev;
}

/// A file, and a place for it on another volume.
class MoveAcrossVolumes : public testing::Test {
 protected:
  void SetUp() override {
    if (!fs::exists("/dev/shm") || VolumeOf("/dev/shm") == VolumeOf(directory_.Native())) {
      GTEST_SKIP() << "no second volume at /dev/shm";
    }
    WriteFile(source_, "content");
  }
  void TearDown() override {
    std::error_code missing;
    fs::remove(destination_, missing);
  }

  int Move() { return FileRenameNet(FromNativePath(source_), FromNativePath(destination_)); }

  TemporaryDirectory directory_;
  const fs::path source_ = directory_.Native("file");
  const fs::path destination_ = fs::path("/dev/shm") / directory_.Native().filename();
};

TEST_F(MoveAcrossVolumes, KeepsTheSourceUntilTheCopyAndItsNameAreOnTheDisk) {
  std::vector<std::string> waits;
  const DiskWaits disk([&](int file) {
    EXPECT_TRUE(fs::exists(source_));
    const std::string name = fs::exists(destination_) ? "named" : "nameless";
    waits.push_back((IsDirectory(file) ? "directory, " : "file, ") + name);
    return 0;
  });
  EXPECT_EQ(Move(), 0);
  EXPECT_EQ(waits, (std::vector<std::string>{"file, nameless", "directory, named"}));
  EXPECT_FALSE(fs::exists(source_));
  EXPECT_EQ(ReadFile(destination_), "content");
}

TEST_F(MoveAcrossVolumes, LeavesEverythingAsItIsWhenTheDiskTakesNothing) {
  const DiskWaits disk([](int) { return EIO; });
  EXPECT_EQ(Move(), EIO);
  EXPECT_EQ(ReadFile(source_), "content");
  EXPECT_FALSE(fs::exists(destination_));
}

TEST_F(MoveAcrossVolumes, LeavesNoSecondFileWhenItsNameDoesNotReachTheDisk) {
  const DiskWaits disk([](int file) { return IsDirectory(file) ? EIO : 0; });
  EXPECT_EQ(Move(), EIO);
  EXPECT_EQ(ReadFile(source_), "content");
  EXPECT_FALSE(fs::exists(destination_));
}

TEST_F(MoveAcrossVolumes, WorksWhereDirectoriesCannotBeWaitedFor) {
  const DiskWaits disk([](int file) { return IsDirectory(file) ? EINVAL : 0; });
  EXPECT_EQ(Move(), 0);
  EXPECT_FALSE(fs::exists(source_));
}

TEST(MoveFromAServer, DeletesTheFileThereOnceTheCopyIsOnTheDisk) {
  const TemporaryDirectory directory;
  std::vector<std::string> steps;
  const TestHttpServer server([&](const TestHttpRequest& request) {
    steps.push_back(request.method);
    return TestHttpAnswer{.body = request.method == "GET" ? "content" : ""};
  });
  const DiskWaits disk([&](int file) {
    steps.push_back(IsDirectory(file) ? "directory" : "file");
    return 0;
  });
  EXPECT_EQ(FileRenameNet(ZelString(server.Url("/file")), directory / "file"), 0);
  EXPECT_EQ(steps, (std::vector<std::string>{"GET", "file", "directory", "DELETE"}));
}

TEST(FileCopyNetOnPosix, WaitsForNoDiskAsTheSourceStays) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "content");
  int waits = 0;
  const DiskWaits disk([&](int) {
    ++waits;
    return 0;
  });
  EXPECT_EQ(FileCopyNet(directory / "file", directory / "copy", 0), 0);
  EXPECT_EQ(waits, 0);
}

/// An upload over a file that has "old" in it.
class UploadOverAFile : public testing::Test {
 protected:
  UploadOverAFile() { WriteFile(path_, "old"); }

  PendingUpload::Result Store() {
    PendingUpload upload;
    PendingUpload::Result result = upload.Create(directory_.Native(), "file", 3);
    if (result) result = upload.Write("new", 3);
    return result ? upload.Commit() : result;
  }

  TemporaryDirectory directory_;
  const fs::path path_ = directory_.Native("file");
};

TEST_F(UploadOverAFile, IsOnTheDiskBeforeItTakesItsPlaceAndIsAnswered) {
  std::vector<std::string> waits;
  const DiskWaits disk([&](int file) {
    waits.push_back((IsDirectory(file) ? "directory, " : "file, ") + ReadFile(path_));
    return 0;
  });
  EXPECT_TRUE(Store());
  EXPECT_EQ(waits, (std::vector<std::string>{"file, old", "directory, new"}));
}

TEST_F(UploadOverAFile, LeavesItAloneWhenTheDiskTakesNothing) {
  const DiskWaits disk([](int) { return ENOSPC; });
  EXPECT_EQ(Store().trouble, PendingUpload::Trouble::kDiskFull);
  EXPECT_EQ(ReadFile(path_), "old");
  EXPECT_EQ(directory_.CountEntries(), 1u);
}

}  // namespace
