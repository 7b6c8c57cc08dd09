#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <filesystem>
#include <string>

#include "agent/libZel/native_path.h"
#include "agent/windows_api/mounts.h"
#include "tests/agent/temporary_directory.h"
#include "windows_api.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kMounts =
    "21 1 8:1 / / rw,relatime shared:1 - ext4 /dev/sda1 rw\n"
    "22 21 0:20 / /run rw - tmpfs tmpfs rw\n"
    "a line that makes no sense\n"
    "23 21 0:50 / /mnt/my\\040share rw shared:2 master:3 - cifs //server/share rw\n"
    "24 21 11:0 / /media/disc ro - iso9660 /dev/sr0 ro\n"
    "25 24 7:0 / /media/disc ro - udf /dev/loop0 ro\n";

std::string FileSystemAt(std::string_view directory) {
  const auto mount = FindMount(kMounts, directory, {});
  return mount ? mount->fileSystem : "none";
}

TEST(Mounts, HoldWhatLiesBelowThem) {
  EXPECT_EQ(FileSystemAt("/"), "ext4");
  EXPECT_EQ(FileSystemAt("/run"), "tmpfs");
  EXPECT_EQ(FileSystemAt("/run/user/1"), "tmpfs");
  EXPECT_EQ(FileSystemAt("/runner"), "ext4");
  EXPECT_EQ(FileSystemAt("/mnt/my share/x"), "cifs");
}

TEST(Mounts, HideEarlierOnesInTheSamePlace) {
  EXPECT_EQ(FileSystemAt("/media/disc"), "udf");
}

TEST(Mounts, AreFoundByTheirNumberWhereTheSystemTellsIt) {
  const auto mount = FindMount(kMounts, "/media/disc", 24);
  ASSERT_TRUE(mount);
  EXPECT_EQ(mount->fileSystem, "iso9660");
  EXPECT_EQ(mount->device, makedev(11, 0));
  EXPECT_EQ(mount->source, "/dev/sr0");
}

TEST(Mounts, MayBeMissing) {
  EXPECT_FALSE(FindMount("", "/", {}));
  EXPECT_FALSE(FindMount("21 1 8:1 / / rw\n21 1 8 / / rw - ext4 x rw\n", "/", {}));
}

TEST(Mounts, TellTheKindOfDrive) {
  const auto typeOf = [](const char* fileSystem, const char* source) {
    return DriveTypeOf({0, 0, "/", fileSystem, source});
  };
  for (const char* remote :
       {"nfs", "nfs4", "cifs", "smb3", "9p", "ceph", "afs", "fuse.sshfs", "fuse.rclone"}) {
    EXPECT_EQ(typeOf(remote, "server:/x"), DRIVE_REMOTE) << remote;
  }
  EXPECT_EQ(typeOf("fuse", "https://server/dav"), DRIVE_REMOTE);
  EXPECT_EQ(typeOf("fuse", "/dev/fuse"), DRIVE_FIXED);
  EXPECT_EQ(typeOf("tmpfs", "tmpfs"), DRIVE_RAMDISK);
  EXPECT_EQ(typeOf("ramfs", "none"), DRIVE_RAMDISK);
  EXPECT_EQ(typeOf("iso9660", "/dev/sr0"), DRIVE_CDROM);
  EXPECT_EQ(typeOf("udf", "/dev/sr0"), DRIVE_CDROM);
  EXPECT_EQ(typeOf("ext4", "/dev/sda1"), DRIVE_FIXED);
  EXPECT_EQ(typeOf("overlay", "overlay"), DRIVE_FIXED);
}

TEST(Labels, AreTheDecodedNamesOfTheLinksToTheDevice) {
  const TemporaryDirectory directory;
  fs::create_symlink("/dev/zero", directory.Native() / "other");
  fs::create_symlink("/none", directory.Native() / "broken");
  fs::create_symlink("/dev/null", directory.Native() / "My\\x20disk\\xc3\\xa4\\x");
  EXPECT_EQ(LabelOf(makedev(1, 3), directory.Native()), "My diskä\\x");
  EXPECT_EQ(LabelOf(makedev(1, 9), directory.Native()), "");
  EXPECT_EQ(LabelOf(makedev(1, 3), directory.Native() / "none"), "");
}

class Drives : public testing::Test {
 protected:
  ~Drives() override { SetDriveMap({{'C', "/"}}); }
};

TEST_F(Drives, AreThoseOfTheDriveMapWhoseDirectoriesExist) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native() / "file", "x");
  SetDriveMap({{'C', "/"},
               {'D', directory.Native()},
               {'E', directory.Native() / "none"},
               {'F', directory.Native() / "file"}});
  EXPECT_NE(GetDriveTypeW(u"C:\\"), DRIVE_NO_ROOT_DIR);
  EXPECT_NE(GetDriveTypeW(u"d:\\"), DRIVE_NO_ROOT_DIR);
  for (const char16_t* none : {u"E:\\", u"F:\\", u"G:\\", u"C", u"C:\\x", u"1:\\", u""})
    EXPECT_EQ(GetDriveTypeW(none), DRIVE_NO_ROOT_DIR);
  EXPECT_EQ(GetDriveTypeW(nullptr), DRIVE_NO_ROOT_DIR);
}

TEST_F(Drives, TellTheFileSystemCutToTheBuffer) {
  SetDriveMap({{'P', "/proc"}});
  EXPECT_EQ(GetDriveTypeW(u"P:\\"), DRIVE_FIXED);
  WCHAR label[4] = {u'x', u'x', u'x', u'x'};
  WCHAR whole[16] = {};
  WCHAR cut[3] = {};
  EXPECT_NE(GetVolumeInformationW(u"P:\\", label, 4, nullptr, nullptr, nullptr, whole, 16), 0);
  EXPECT_EQ(std::u16string(label), u"");
  EXPECT_EQ(std::u16string(whole), u"proc");
  EXPECT_NE(GetVolumeInformationW(u"P:\\", nullptr, 0, nullptr, nullptr, nullptr, cut, 3), 0);
  EXPECT_EQ(std::u16string(cut), u"pr");
}

TEST_F(Drives, ThatAreNotThereTellNothing) {
  WCHAR buffer[4] = {u'x'};
  EXPECT_EQ(GetVolumeInformationW(u"Q:\\", buffer, 4, nullptr, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(buffer[0], u'x');
  DWORD serial = 0;
  EXPECT_EQ(GetVolumeInformationW(u"C:\\", buffer, 4, &serial, nullptr, nullptr, nullptr, 0), 0);
}

}  // namespace
