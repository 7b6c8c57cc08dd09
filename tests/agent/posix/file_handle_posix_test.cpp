// Owners, permissions, links, pipes and full disks of POSIX systems, for files used by handle.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "agent/libZel/open_file.h"
#include "libZel/file.h"
#include "tests/agent/posix/size_limit.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr uid_t kOwner = 12345;
constexpr gid_t kGroup = 23456;

struct stat StatOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
  return info;
}

mode_t ModeOf(const fs::path& path) {
  return StatOf(path).st_mode & 07777;
}

uint32_t Write(int handle, const std::string& text) {
  return FileWrite(handle, text.data(), static_cast<uint32_t>(text.size()));
}

// Deletes and creates a file as those do who write it anew.
void Renew(const ZelString& path) {
  ASSERT_EQ(FileDelete(path, 0), 0);
  const int handle = FileCreate(path, 0);
  ASSERT_NE(handle, -1);
  EXPECT_EQ(Write(handle, "new"), 3u);
  EXPECT_EQ(FileClose(handle), 0);
}

TEST(FileOpenOnPosix, RefusesPipesAndDevicesWithoutWaiting) {
  const TemporaryDirectory directory;
  ASSERT_EQ(mkfifo(directory.Native("pipe").c_str(), 0600), 0);
  EXPECT_EQ(FileOpen(directory / "pipe", 0), -1);
  EXPECT_EQ(FileOpen("/dev/null", 0), -1);
  EXPECT_NE(FileCopy(directory / "pipe", directory / "copy", 0), 0);
}

TEST(FileOpenOnPosix, FollowsLinks) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_symlink("file", directory.Native("link"));
  const int handle = FileOpen(directory / "link", 0);
  char byte = 0;
  EXPECT_EQ(FileRead(handle, &byte, 1), 1u);
  EXPECT_EQ(byte, 'x');
  EXPECT_EQ(FileClose(handle), 0);
}

TEST(FileHandleOnPosix, IsNotInheritedByPrograms) {
  const TemporaryDirectory directory;
  const int handle = FileCreate(directory / "file", 0);
  size_t found = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code error;
    if (fs::read_symlink(entry.path(), error) != directory.Native("file")) continue;
    ++found;
    const int flags = fcntl(std::stoi(entry.path().filename()), F_GETFD);
    EXPECT_EQ(flags & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(std::stoi(entry.path().filename()), F_GETFL) & O_DSYNC, O_DSYNC);
  }
  EXPECT_EQ(found, 1u);
  EXPECT_EQ(FileClose(handle), 0);
}

TEST(FileCreateOnPosix, DoesNotFollowALinkThatLeadsNowhere) {
  const TemporaryDirectory directory;
  fs::create_symlink("target", directory.Native("link"));
  EXPECT_EQ(FileCreate(directory / "link", 0), -1);
  EXPECT_FALSE(fs::exists(directory.Native("target")));
}

TEST(FileCreateOnPosix, GivesPermissionsOfTheDeletedFileToTheNewOne) {
  const TemporaryDirectory directory;
  for (const mode_t mode : {0600u, 0640u, 0755u, 0666u, 04755u, 02770u, 0200u}) {
    WriteFile(directory.Native("file"), "old");
    ASSERT_EQ(chmod(directory.Native("file").c_str(), mode), 0);
    ASSERT_EQ(FileDelete(directory / "file", 0), 0);
    const int handle = FileCreate(directory / "file", 0);
    EXPECT_EQ(ModeOf(directory.Native("file")), mode) << "before anything is written";
    EXPECT_EQ(FileClose(handle), 0);
    EXPECT_EQ(FileDelete(directory / "file", 0), 0);
  }
}

TEST(FileCreateOnPosix, GivesTheOwnerOfTheDeletedFileToTheNewOne) {
  ASSERT_EQ(geteuid(), 0u) << "needs root";
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "old");
  ASSERT_EQ(chown(directory.Native("file").c_str(), kOwner, kGroup), 0);
  ASSERT_EQ(chmod(directory.Native("file").c_str(), 06751), 0);
  Renew(directory / "file");
  EXPECT_EQ(StatOf(directory.Native("file")).st_uid, kOwner);
  EXPECT_EQ(StatOf(directory.Native("file")).st_gid, kGroup);
  EXPECT_EQ(ModeOf(directory.Native("file")), 06751u);
}

TEST(FileCreateOnPosix, GivesExtendedAttributesOfTheDeletedFileToTheNewOne) {
  const TemporaryDirectory directory;
  const fs::path file = directory.Native("file");
  WriteFile(file, "old");
  // trusted.* is what every file system here keeps, and only root may set.
  ASSERT_EQ(setxattr(file.c_str(), "trusted.zel", "v\0w", 3, 0), 0);
  Renew(directory / "file");
  char value[8] = {};
  ASSERT_EQ(getxattr(file.c_str(), "trusted.zel", value, sizeof value), 3);
  EXPECT_EQ(std::string(value, 3), std::string("v\0w", 3));
}

TEST(FileCreateOnPosix, GivesNothingToAFileOfAnotherNameOrThread) {
  const TemporaryDirectory directory;
  const mode_t mask = umask(022);
  for (const char* name : {"private", "other"}) WriteFile(directory.Native(name), "old");
  ASSERT_EQ(chmod(directory.Native("private").c_str(), 0600), 0);

  ASSERT_EQ(FileDelete(directory / "private", 0), 0);
  std::thread([&] { FileClose(FileCreate(directory / "private", 0)); }).join();
  EXPECT_EQ(ModeOf(directory.Native("private")), 0644u) << "another thread";

  FileClose(FileCreate(directory / "new", 0));
  EXPECT_EQ(ModeOf(directory.Native("new")), 0644u) << "another name";
  fs::remove(directory.Native("private"));
  FileClose(FileCreate(directory / "private", 0));
  EXPECT_EQ(ModeOf(directory.Native("private")), 0644u) << "it was the next file that counted";
  umask(mask);
}

TEST(FileCreateOnPosix, KeepsWhatALinkLedToAsPrivateAsItWas) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("target"), "old");
  ASSERT_EQ(chmod(directory.Native("target").c_str(), 0600), 0);
  fs::create_symlink("target", directory.Native("link"));
  Renew(directory / "link");
  EXPECT_EQ(ModeOf(directory.Native("link")), 0600u);
  EXPECT_TRUE(S_ISREG(StatOf(directory.Native("link")).st_mode));
  EXPECT_EQ(ReadFile(directory.Native("target")), "old");
}

TEST(FileDeleteOnPosix, DeletesLinksWhateverTheyLeadTo) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  ASSERT_EQ(chmod(directory.Native("file").c_str(), 0444), 0);
  fs::create_symlink("file", directory.Native("link"));
  fs::create_symlink("missing", directory.Native("dangling"));
  fs::create_symlink(".", directory.Native("directory"));
  EXPECT_EQ(FileDelete(directory / "link", 0), 0);
  EXPECT_EQ(FileDelete(directory / "dangling", 0), 0);
  EXPECT_EQ(FileDelete(directory / "directory", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "x");
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(FileWriteOnPosix, CutsOffWhatAFailedWriteHasAdded) {
  const TemporaryDirectory directory;
  const int handle = FileCreate(directory / "file", 0);
  EXPECT_EQ(Write(handle, "start"), 5u);
  uint32_t answer = 0;
  {
    const SizeLimit limit(1000);
    answer = Write(handle, std::string(5000, 'x'));
  }
  EXPECT_EQ(answer + 5, kFailed) << "the sum of all answers tells the failure";
  EXPECT_EQ(ReadFile(directory.Native("file")), "start");
  EXPECT_EQ(Write(handle, "later"), 0u);
  EXPECT_EQ(ReadFile(directory.Native("file")), "start");
  EXPECT_EQ(FileClose(handle), 0);
}

TEST(FileWriteOnPosix, AnswersMinusOneWhenTheFirstWriteFails) {
  const TemporaryDirectory directory;
  const int handle = FileCreate(directory / "file", 0);
  {
    const SizeLimit limit(1000);
    EXPECT_EQ(Write(handle, std::string(5000, 'x')), kFailed);
  }
  EXPECT_EQ(Write(handle, "later"), 0u);
  EXPECT_EQ(FileClose(handle), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "");
}

TEST(FileCopyOnPosix, TakesOverOwnerPermissionsAndAttributes) {
  ASSERT_EQ(geteuid(), 0u) << "needs root";
  const TemporaryDirectory directory;
  const fs::path source = directory.Native("source");
  WriteFile(source, "x");
  ASSERT_EQ(chown(source.c_str(), kOwner, kGroup), 0);
  ASSERT_EQ(chmod(source.c_str(), 06555), 0);
  ASSERT_EQ(setxattr(source.c_str(), "trusted.zel", "value", 5, 0), 0);
  EXPECT_EQ(FileCopy(directory / "source", directory / "copy", 0), 0);
  const fs::path copy = directory.Native("copy");
  EXPECT_EQ(StatOf(copy).st_uid, kOwner);
  EXPECT_EQ(StatOf(copy).st_gid, kGroup);
  EXPECT_EQ(ModeOf(copy), 06755u) << "a copy can be written";
  EXPECT_EQ(getxattr(copy.c_str(), "trusted.zel", nullptr, 0), 5);
}

// A file system of 256 KiB, for the life of the object. Needs root.
class SmallDisk {
 public:
  SmallDisk() {
    fs::create_directory(path_);
    EXPECT_EQ(mount("none", path_.c_str(), "tmpfs", 0, "size=256k"), 0) << "needs root";
  }
  ~SmallDisk() { umount(path_.c_str()); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  ZelString operator/(const ZelString& name) const { return FromNativePath(path_) + "/" + name; }
  fs::path Native(const char* name) const { return path_ / name; }
  size_t CountEntries() const {
    return static_cast<size_t>(
        std::distance(fs::directory_iterator(path_), fs::directory_iterator()));
  }

 private:
  const TemporaryDirectory directory_;
  const fs::path path_ = directory_.Native() / "disk";
};

const std::string kMoreThanHalfTheDisk(150'000, 'x');

TEST(FileCopyOnFullDisk, IsWhatAQuotaMakesToo) {
  EXPECT_TRUE(file_system::IsDiskFull(ENOSPC));
  EXPECT_TRUE(file_system::IsDiskFull(EDQUOT));
  EXPECT_FALSE(file_system::IsDiskFull(EIO));
}

TEST(FileCopyOnFullDisk, MakesNoNewFile) {
  const SmallDisk disk;
  WriteFile(disk.Native("source"), kMoreThanHalfTheDisk);
  EXPECT_EQ(FileCopy(disk / "source", disk / "copy", 0), ENOSPC);
  EXPECT_EQ(disk.CountEntries(), 1u);
}

TEST(FileCopyOnFullDisk, ReplacesAFileByALink) {
  const SmallDisk disk;
  WriteFile(disk.Native("source"), kMoreThanHalfTheDisk);
  const int open = FileCreate(disk / "target", 0);
  EXPECT_EQ(FileCopy(disk / "source", disk / "target", 0), 0);
  EXPECT_EQ(ReadFile(disk.Native("target")), kMoreThanHalfTheDisk);
  EXPECT_EQ(disk.CountEntries(), 2u);
  EXPECT_EQ(FileDelete(disk / "source", 0), 0);
  EXPECT_EQ(ReadFile(disk.Native("target")), kMoreThanHalfTheDisk);
  EXPECT_EQ(FileClose(open), 0);
}

TEST(FileWriteOnFullDisk, GivesTheRoomBack) {
  const SmallDisk disk;
  const int handle = FileCreate(disk / "file", 0);
  EXPECT_EQ(Write(handle, std::string(300'000, 'x')), kFailed);
  EXPECT_EQ(fs::file_size(disk.Native("file")), 0u);
  WriteFile(disk.Native("other"), kMoreThanHalfTheDisk);
  EXPECT_EQ(ReadFile(disk.Native("other")), kMoreThanHalfTheDisk);
  EXPECT_EQ(FileClose(handle), 0);
}

}  // namespace
