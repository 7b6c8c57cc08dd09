// What only POSIX systems have: byte names, links anywhere, pipes, permissions, the drive map.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <thread>

#include "agent/libZel/native_path.h"
#include "libZel/environment.h"
#include "libZel/file.h"
#include "libZel/path.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

struct stat StatOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
  return info;
}

TEST(NativePathOnPosix, KeepsEveryByteOfAName) {
  for (const char* name :
       {"\xFF", "a\x80z", "\xC3(", "\xED\xB2\x80", "\xED\xA0\x80\xED\xB2\x80", "\xF0\x9F\xA6",
        "Gr\xFC\xDF"
        "e"}) {
    const fs::path native = fs::path("/data") / name;
    const NativePath back = ToNativePath(FromNativePath(native));
    ASSERT_TRUE(back) << back.error;
    EXPECT_EQ(back.path, native);
  }
}

TEST(NativePathOnPosix, TellsNamesApartWhoseEscapesLookAlike) {
  EXPECT_NE(FromNativePath("/\x80"), FromNativePath("/\xED\xB2\x80"));
}

TEST(NativePathOnPosix, RefusesASurrogateThatStandsForNoByte) {
  const TCHAR wide[] = {u'/', 0xD800, 0};
  EXPECT_EQ(ToNativePath(ZelString(wide)).error,
            "the path holds a surrogate that stands for no byte");
}

TEST(NativePathOnPosix, LooksDrivesUpInTheMap) {
  SetDriveMap({{'C', "/"}, {'D', "/data/"}});
  EXPECT_EQ(ToNativePath("C:\\etc\\hosts").path, "/etc/hosts");
  EXPECT_EQ(ToNativePath("c:").path, "/");
  EXPECT_EQ(ToNativePath("d:/x").path, "/data/x");
  EXPECT_EQ(ToNativePath("D:\\..\\..\\etc").path, "/data/etc") << "a drive has no parent";
  EXPECT_EQ(ToNativePath("D:").path, "/data");
  EXPECT_EQ(ToNativePath("X:\\a").error, "drive X: is not known");
  EXPECT_EQ(DirDelete("D:\\", 1, 0), 0);
  SetDriveMap({{'C', "/"}});
}

TEST(NativePathOnPosix, ReadsTwoSlashesAsTheRootAndTwoBackslashesAsAShare) {
  EXPECT_EQ(ToNativePath("//etc/hosts").path, "/etc/hosts");
  EXPECT_EQ(ToNativePath("///etc").path, "/etc");
  EXPECT_EQ(ToNativePath("//etc/x/../../tmp").path, "/tmp");
  EXPECT_EQ(ToNativePath("\\\\server\\share\\x").error,
            "shares are not reachable as paths on this system");
}

TEST(NativePathOnPosix, TakesNamesThatWindowsReserves) {
  for (const char* name : {"CON", "nul.txt", "a:b", "a?", "dot.", "blank "}) {
    EXPECT_EQ(ToNativePath(ZelString("/d/") + name).path, fs::path("/d") / name);
  }
}

TEST(FilesOnPosix, HaveNamesThatAreNotUtf8) {
  const TemporaryDirectory directory;
  const fs::path native = directory.Native() / "a\xFF\xFE.txt";
  WriteFile(native, "content");
  const ZelString path = FromNativePath(native);
  EXPECT_EQ(FileExists(path), 1);
  EXPECT_EQ(FileCopyNet(path, FromNativePath(directory.Native() / "b\x80"), 0), 0);
  EXPECT_EQ(ReadFile(directory.Native() / "b\x80"), "content");
  EXPECT_EQ(FileDeleteNet(path, false), 0);
  EXPECT_FALSE(fs::exists(native));
}

TEST(FileCopyNetOnPosix, KeepsPermissionsAndNanosecondsButNotSetUserId) {
  const TemporaryDirectory directory;
  const fs::path source = directory.Native("source");
  WriteFile(source, "content");
  ASSERT_EQ(chmod(source.c_str(), 04751), 0);
  const struct timespec times[2] = {{1, 0}, {1234567890, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, source.c_str(), times, 0), 0);

  ASSERT_EQ(FileCopyNet(directory / "source", directory / "copy", 0), 0);

  const struct stat info = StatOf(directory.Native("copy"));
  EXPECT_EQ(info.st_mode & 07777u, 0751u);
  EXPECT_EQ(info.st_mtim.tv_sec, 1234567890);
  EXPECT_EQ(info.st_mtim.tv_nsec, 123456789);
}

TEST(FileCopyNetOnPosix, RefusesASourceReachedThroughALinkToTheDestination) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "content");
  fs::create_symlink("file", directory.Native("link"));
  EXPECT_NE(FileCopyNet(directory / "link", directory / "file", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", directory / "link", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("file")), "content");
  EXPECT_TRUE(fs::is_symlink(directory.Native("link")));
}

TEST(FileCopyNetOnPosix, ReplacesALinkAndNotItsTarget) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), "new");
  WriteFile(directory.Native("target"), "old");
  fs::create_symlink("target", directory.Native("link"));
  EXPECT_EQ(FileCopyNet(directory / "source", directory / "link", 0), 0);
  EXPECT_EQ(ReadFile(directory.Native("target")), "old");
  EXPECT_EQ(ReadFile(directory.Native("link")), "new");
  fs::create_symlink("nowhere", directory.Native("dangling"));
  EXPECT_EQ(FileCopyNet(directory / "source", directory / "dangling", 1), EEXIST);
}

TEST(FileCopyNetOnPosix, NeverWaitsForAPipe) {
  const TemporaryDirectory directory;
  ASSERT_EQ(mkfifo(directory.Native("pipe").c_str(), 0600), 0);
  WriteFile(directory.Native("file"), "content");
  EXPECT_EQ(FileExists(directory / "pipe"), 1);
  EXPECT_NE(FileCopyNet(directory / "pipe", directory / "copy", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", directory / "pipe", 0), 0);
  EXPECT_NE(FileCopyNet("/dev/zero", directory / "copy", 0), 0);
  EXPECT_NE(FileCopyNet(directory / "file", "/dev/null", 0), 0);
  EXPECT_TRUE(fs::is_fifo(directory.Native("pipe")));
  EXPECT_TRUE(fs::is_character_file("/dev/null"));
  EXPECT_EQ(directory.CountEntries(), 2u);
}

TEST(FileCopyNetOnPosix, ReadsFilesThatTheSystemMakesUp) {
  const TemporaryDirectory directory;
  EXPECT_EQ(FileCopyNet("/proc/self/status", directory / "copy", 0), 0);
  EXPECT_NE(ReadFile(directory.Native("copy")).find("Name:"), std::string::npos);
}

// In a child, so that the limit is the child's alone.
int CopyWithSizeLimit(const ZelString& source, const ZelString& destination, rlim_t limitBytes) {
  const pid_t child = fork();
  if (child == 0) {
    signal(SIGXFSZ, SIG_IGN);
    const struct rlimit limit { limitBytes, limitBytes };
    setrlimit(RLIMIT_FSIZE, &limit);
    _exit(FileCopyNet(source, destination, 0) == EFBIG ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

TEST(FileCopyNetOnPosix, LeavesTheDestinationAloneWhenThereIsNoRoom) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("source"), std::string(1'000'000, 'x'));
  WriteFile(directory.Native("destination"), "old");
  EXPECT_EQ(CopyWithSizeLimit(directory / "source", directory / "destination", 4096), 0);
  EXPECT_EQ(ReadFile(directory.Native("destination")), "old");
  EXPECT_EQ(directory.CountEntries(), 2u) << "the temporary file is gone";
}

TEST(FileRenameNetOnPosix, MovesAcrossVolumes) {
  const TemporaryDirectory directory;
  const fs::path memory = fs::path("/dev/shm") / directory.Native().filename();
  if (!fs::exists("/dev/shm") || StatOf("/dev/shm").st_dev == StatOf(directory.Native()).st_dev) {
    GTEST_SKIP() << "no second volume at /dev/shm";
  }
  WriteFile(directory.Native("file"), "content");
  fs::create_symlink("target", directory.Native("link"));
  const ZelString file = FromNativePath(memory) + "-file";
  const ZelString link = FromNativePath(memory) + "-link";
  EXPECT_EQ(FileRenameNet(directory / "file", file), 0);
  EXPECT_EQ(FileRenameNet(directory / "link", link), 0);
  EXPECT_EQ(ReadFile(ToNativePath(file).path), "content");
  EXPECT_EQ(fs::read_symlink(ToNativePath(link).path), "target");
  EXPECT_EQ(directory.CountEntries(), 0u);
  WriteFile(directory.Native("file"), "another");
  EXPECT_EQ(FileRenameNet(directory / "file", file), EEXIST);
  EXPECT_EQ(FileDeleteNet(file, false), 0);
  EXPECT_EQ(FileDeleteNet(link, false), 0);
}

TEST(FileDeleteNetOnPosix, DeletesALinkAndNotItsTarget) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("sub"));
  WriteFile(directory.Native("sub/file"), "x");
  fs::create_directory_symlink("sub", directory.Native("link"));
  EXPECT_EQ(FileDeleteNet(directory / "link", false), 0);
  EXPECT_FALSE(fs::is_symlink(directory.Native("link")));
  EXPECT_TRUE(fs::exists(directory.Native("sub/file")));
}

TEST(DirRenameOnPosix, RenamesALinkItself) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("sub"));
  fs::create_directory_symlink("sub", directory.Native("link"));
  EXPECT_EQ(DirRename(directory / "link", directory / "other"), 1);
  EXPECT_EQ(DirRename(directory / "link", directory / "other"), 1);
  EXPECT_TRUE(fs::is_symlink(directory.Native("other")));
  EXPECT_TRUE(fs::is_directory(directory.Native("sub")));
}

TEST(DirDeleteOnPosix, NeverFollowsALink) {
  const TemporaryDirectory directory;
  fs::create_directories(directory.Native("outside/deep"));
  WriteFile(directory.Native("outside/file"), "x");
  fs::create_directory(directory.Native("tree"));
  fs::create_directory_symlink("../outside", directory.Native("tree/link"));
  fs::create_symlink("nowhere", directory.Native("tree/dangling"));
  ASSERT_EQ(mkfifo(directory.Native("tree/pipe").c_str(), 0600), 0);
  EXPECT_EQ(DirDelete(directory / "tree", 1, 0), 1);
  EXPECT_TRUE(fs::exists(directory.Native("outside/file")));
  EXPECT_TRUE(fs::exists(directory.Native("outside/deep")));
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(DirDeleteOnPosix, DeletesALinkToADirectoryAlone) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("outside"));
  WriteFile(directory.Native("outside/file"), "x");
  fs::create_directory_symlink("outside", directory.Native("link"));
  EXPECT_EQ(DirDelete(directory / "link/", 1, 1), 0) << "a link has no content to delete";
  EXPECT_EQ(DirDelete(directory / "link/", 1, 0), 1);
  EXPECT_TRUE(fs::exists(directory.Native("outside/file")));
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(DirDeleteOnPosix, StaysInTheTreeWhileDirectoriesTurnIntoLinks) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("outside"));
  WriteFile(directory.Native("outside/precious"), "x");
  const fs::path real = directory.Native("tree/real");
  const fs::path link = directory.Native("tree/link");
  for (int round = 0; round < 200; ++round) {
    fs::create_directories(real / "a");
    fs::create_directory_symlink("../outside", link);
    std::thread swapper([&] {
      for (int i = 0; i < 20; ++i) {
        renameat2(AT_FDCWD, real.c_str(), AT_FDCWD, link.c_str(), RENAME_EXCHANGE);
      }
    });
    DirDelete(directory / "tree", 1, 0);
    swapper.join();
    ASSERT_TRUE(fs::exists(directory.Native("outside/precious"))) << "round " << round;
    fs::remove_all(directory.Native("tree"));
  }
}

TEST(FileCopyNetOnPosix, LeavesHolesOut) {
  const TemporaryDirectory directory;
  const std::string path = directory.Native("sparse").string();
  constexpr off_t kMegabyte = 1 << 20;
  const int file = open(path.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_EQ(pwrite(file, "begin", 5, 0), 5);
  ASSERT_EQ(pwrite(file, "middle", 6, 10 * kMegabyte + 7), 6);
  ASSERT_EQ(ftruncate(file, 30 * kMegabyte), 0);
  close(file);

  ASSERT_EQ(FileCopyNet(directory / "sparse", directory / "copy", 0), 0);

  struct stat copy {};
  ASSERT_EQ(stat(directory.Native("copy").c_str(), &copy), 0);
  EXPECT_EQ(copy.st_size, 30 * kMegabyte);
  EXPECT_LT(copy.st_blocks * 512, kMegabyte);
  EXPECT_EQ(ReadFile(directory.Native("copy")), ReadFile(path));
}

TEST(DirDeleteOnPosix, DeletesATreeOf1000LevelsWithFewDescriptors) {
  const TemporaryDirectory directory;
  constexpr int kLevels = 1000;
  int current = open(directory.Native().c_str(), O_RDONLY | O_DIRECTORY);
  for (int level = 0; level < kLevels; ++level) {
    ASSERT_EQ(mkdirat(current, "d", 0700), 0);
    ASSERT_EQ(mkdirat(current, "beside", 0700), 0);
    const int next = openat(current, "d", O_RDONLY | O_DIRECTORY);
    ASSERT_GE(next, 0);
    close(current);
    current = next;
  }
  close(current);

  struct rlimit before {};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const struct rlimit few { 128, before.rlim_max };
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  const int result = DirDelete(directory / "d", 1, 0);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);

  EXPECT_EQ(result, 1);
  EXPECT_EQ(DirExists(directory / "d"), 0);
}

TEST(SetEnvVariable, SetsWhatGetenvReads) {
  SetEnvVariable(ZelString("ZEL_TEST_VARIABLE").GetTCHAR(), ZelString("Grüße").GetTCHAR());
  EXPECT_STREQ(getenv("ZEL_TEST_VARIABLE"), "Grüße");
}

}  // namespace
