// Owners, permissions, links, read-only and full disks of POSIX systems, for lines that are edited.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "libZel/ini_file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t kOwner = 12345;
constexpr gid_t kGroup = 23456;

struct stat StatOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
  return info;
}

TEST(FileEditOnPosix, KeepsOwnerPermissionsAndAttributes) {
  ASSERT_EQ(geteuid(), 0u) << "needs root";
  const TemporaryDirectory directory;
  const fs::path file = directory.Native("file");
  WriteFile(file, "a\n");
  ASSERT_EQ(chown(file.c_str(), kOwner, kGroup), 0);
  ASSERT_EQ(chmod(file.c_str(), 0640), 0);
  ASSERT_EQ(setxattr(file.c_str(), "trusted.zel", "value", 5, 0), 0);
  EXPECT_EQ(File(directory / "file").InsertLine(1, "x\n"), 1);
  EXPECT_EQ(ReadFile(file), "x\na\n");
  EXPECT_EQ(StatOf(file).st_uid, kOwner);
  EXPECT_EQ(StatOf(file).st_gid, kGroup);
  EXPECT_EQ(StatOf(file).st_mode & 07777, 0640u);
  EXPECT_EQ(getxattr(file.c_str(), "trusted.zel", nullptr, 0), 5);
}

TEST(FileEditOnPosix, ReplacesTheFileAsAWhole) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "a\n");
  fs::create_hard_link(directory.Native("file"), directory.Native("old"));
  EXPECT_EQ(File(directory / "file").DeleteLine(1), 1);
  EXPECT_EQ(ReadFile(directory.Native("old")), "a\n") << "who reads the old file reads all of it";
  EXPECT_EQ(ReadFile(directory.Native("file")), "");
}

TEST(FileEditOnPosix, LeavesLinksInPlace) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("place"));
  WriteFile(directory.Native("place/file"), "a\n");
  fs::create_symlink("place/file", directory.Native("inner"));
  fs::create_symlink("inner", directory.Native("link"));
  EXPECT_EQ(File(directory / "link").InsertLine(2, "b\n"), 1);
  EXPECT_EQ(ReadFile(directory.Native("place/file")), "a\nb\n");
  EXPECT_TRUE(fs::is_symlink(directory.Native("link")));
  EXPECT_TRUE(fs::is_symlink(directory.Native("inner")));
  fs::create_symlink("nowhere", directory.Native("dangling"));
  EXPECT_EQ(File(directory / "dangling").InsertLine(1, "b\n"), 0);
  EXPECT_FALSE(fs::exists(directory.Native("nowhere")));
}

TEST(FileEditOnPosix, RefusesPipesAndDevicesWithoutWaiting) {
  const TemporaryDirectory directory;
  ASSERT_EQ(mkfifo(directory.Native("pipe").c_str(), 0600), 0);
  EXPECT_EQ(IniFile(directory / "pipe").InsertLine(1, "x\n"), 0);
  EXPECT_EQ(IniFile("/dev/zero").InsertLine(1, "x\n"), 0);
}

// A file system of 64 KiB, for the life of the object. Needs root.
class SmallDisk {
 public:
  SmallDisk() {
    fs::create_directory(path_);
    EXPECT_EQ(mount("none", path_.c_str(), "tmpfs", 0, "size=64k"), 0) << "needs root";
  }
  ~SmallDisk() { umount(path_.c_str()); }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  void MakeReadOnly() const {
    EXPECT_EQ(mount("none", path_.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr), 0);
  }
  ZelString operator/(const ZelString& name) const { return FromNativePath(path_) + "/" + name; }
  fs::path Native(const char* name) const { return path_ / name; }
  auto CountEntries() const {
    return std::distance(fs::directory_iterator(path_), fs::directory_iterator());
  }

 private:
  const TemporaryDirectory directory_;
  const fs::path path_ = directory_.Native() / "disk";
};

TEST(FileEditOnFullDisk, LeavesTheFileAsItWas) {
  const SmallDisk disk;
  const std::string content = "[S]\na=" + std::string(40'000, 'x') + "\n[T]\nb=1\n";
  WriteFile(disk.Native("file"), content);
  EXPECT_EQ(IniFile(disk / "file").InsertLine(2, "x\n"), 0);
  EXPECT_EQ(ReadFile(disk.Native("file")), content);
  EXPECT_EQ(disk.CountEntries(), 1);
  EXPECT_EQ(IniFile(disk / "file").FindEntryLine("S", "a"), 0u);
  EXPECT_EQ(IniFile(disk / "file").FindEntryLine("T", "b"), 4u);
}

TEST(FileEditOnReadOnlyDisk, LeavesTheFileAsItWas) {
  const SmallDisk disk;
  WriteFile(disk.Native("file"), "[S]\na=\n");
  disk.MakeReadOnly();
  IniFile file(disk / "file");
  EXPECT_EQ(file.DeleteLine(2), 0);
  EXPECT_EQ(ReadFile(disk.Native("file")), "[S]\na=\n");
  EXPECT_EQ(IniFile(disk / "file").FindEntryLine("S", "a"), 0u);
}

}  // namespace
