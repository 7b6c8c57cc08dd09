// What only POSIX systems have: byte names, links anywhere, pipes, permissions, times of any age.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/fsuid.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/platform/posix/unique_fd.h"
#include "libZel/directory.h"
#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kRegular = 0100000;
constexpr uint32_t kDirectory = 0040000;

struct Close {
  void operator()(DIR* directory) const { CloseDirectory(directory); }
};
using Directory = std::unique_ptr<DIR, Close>;

std::vector<ZelString> NamesIn(const TemporaryDirectory& directory) {
  std::vector<ZelString> names;
  const Directory reading(OpenDirectory(directory / ""));
  while (const dirent* entry = ReadDirectory(reading.get())) {
    const ZelString name(entry->name);
    if (name != "." && name != "..") names.push_back(name);
  }
  return names;
}

// A listing that stands on the entry; null when there is none of that name.
Directory StandOn(const TemporaryDirectory& directory, const ZelString& name) {
  Directory reading(OpenDirectory(directory / ""));
  while (const dirent* entry = ReadDirectory(reading.get())) {
    if (ZelString(entry->name) == name) return reading;
  }
  return nullptr;
}

void SetModified(const fs::path& path, int64_t unixSeconds) {
  const timespec times[2] = {{0, UTIME_OMIT}, {static_cast<time_t>(unixSeconds), 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, 0), 0) << path;
}

// Tells whether a file is opened from now on.
class OpenWatch {
 public:
  explicit OpenWatch(const fs::path& path) : fd_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    EXPECT_GE(inotify_add_watch(fd_.Get(), path.c_str(), IN_OPEN), 0);
  }
  bool HasSeen() const {
    char event[4096];
    return read(fd_.Get(), event, sizeof event) > 0;
  }

 private:
  UniqueFd fd_;
};

// Runs `work` as a user that the permissions of files bind, as root is not.
template <typename Work>
void AsOrdinaryUser(Work work) {
  constexpr uid_t kNobody = 65534;
  std::thread([&] {
    // Only this thread changes, and with root's identity go root's rights.
    if (geteuid() == 0) setfsuid(kNobody);
    work();
  }).join();
}

TEST(ReadDirectoryOnPosix, ReturnsEveryByteOfAName) {
  const TemporaryDirectory directory;
  const std::vector<std::string> bytes = {"\xFF", "a\x80z", "Gr\xFC\xDF", "\xED\xB2\x80",
                                          "\xF0\x9F\xA6"};
  for (const std::string& name : bytes) WriteFile(directory.Native() / name, "12345");
  std::vector<std::string> found;
  const Directory reading(OpenDirectory(directory / ""));
  while (const dirent* entry = ReadDirectory(reading.get())) {
    const ZelString name(entry->name);
    if (name == "." || name == "..") continue;
    EXPECT_EQ(FileGetSize64(directory / name), 5) << name.Utf8();
    found.push_back(directory.Native(name).filename().native());
    EXPECT_EQ(FileGetSize64(directory / "./" + name), 5) << "the same file without its listing";
  }
  std::sort(found.begin(), found.end());
  std::vector<std::string> expected = bytes;
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(found, expected);
}

TEST(ReadDirectoryOnPosix, ReturnsNamesThatWindowsHasNot) {
  const TemporaryDirectory directory;
  std::vector<ZelString> names = {
      "a\tb",     "new\nline",           "dot.", "blank ", "...", "CON", "a:b?*",
      "\x7F\x01", std::string(255, 'x'), " "};
  for (const ZelString& name : names) WriteFile(directory.Native() / std::string(name.Utf8()), "x");
  std::vector<ZelString> found = NamesIn(directory);
  std::sort(names.begin(), names.end());
  std::sort(found.begin(), found.end());
  EXPECT_EQ(found, names);
}

TEST(ReadDirectoryOnPosix, ReadsThroughALinkToADirectory) {
  const TemporaryDirectory directory;
  fs::create_directory(directory.Native("target"));
  WriteFile(directory.Native("target/file"), "x");
  fs::create_directory_symlink("target", directory.Native("link"));
  const Directory reading(OpenDirectory(directory / "link"));
  ASSERT_NE(reading, nullptr);
  EXPECT_EQ(fs::path(directory.Native("link/file")).filename(), "file");
  int count = 0;
  while (ReadDirectory(reading.get()) != nullptr) ++count;
  EXPECT_EQ(count, 3);
}

TEST(FileGetAttributesOnPosix, HidesNamesThatStartWithADot) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native(".file"), "x");
  fs::create_directory(directory.Native(".sub"));
  EXPECT_EQ(FileGetAttributes(directory / ".file"), 2u);
  EXPECT_EQ(FileGetAttributes(directory / ".sub"), 18u);
  EXPECT_EQ(FileGetAttributes(directory / ".sub/"), 18u);
  EXPECT_EQ(FileGetAttributes(directory / ".sub/.."), 16u);
  const Directory reading = StandOn(directory, ".sub");
  ASSERT_NE(reading, nullptr);
  EXPECT_EQ(reading->attributes, 18u);
}

TEST(FileGetAttributesOnPosix, AnswersForWhatALinkLeadsTo) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "12345");
  fs::create_directory(directory.Native("sub"));
  fs::create_symlink("file", directory.Native("to file"));
  fs::create_symlink("sub", directory.Native("to sub"));
  for (const char* prefix : {"", "./"}) {
    const Directory first = StandOn(directory, "to file");
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->attributes, 1024u);
    EXPECT_EQ(FileGetAttributes(directory / prefix + "to file"), 1024u);
    EXPECT_EQ(FileGetSize64(directory / prefix + "to file"), 5);
    EXPECT_EQ(FileGetMode(directory / prefix + "to file"), FileGetMode(directory / "file"));
    EXPECT_EQ(FileIsAscii(directory / prefix + "to file"), 1);
    const Directory second = StandOn(directory, "to sub");
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->attributes, 1040u);
    EXPECT_EQ(FileGetAttributes(directory / prefix + "to sub"), 1040u);
    EXPECT_EQ(FileIsAscii(directory / prefix + "to sub"), 0);
  }
}

TEST(FileGetAttributesOnPosix, CallsALinkThatLeadsNowhereAFile) {
  const TemporaryDirectory directory;
  fs::create_symlink("nowhere", directory.Native("link"));
  fs::create_symlink("loop", directory.Native("loop"));
  for (const char* name : {"link", "loop"}) {
    const Directory reading = StandOn(directory, name);
    ASSERT_NE(reading, nullptr);
    for (const ZelString& path : {directory / name, directory / "./" + name}) {
      EXPECT_EQ(FileGetAttributes(path), 1024u) << path.Utf8();
      EXPECT_EQ(FileGetSize64(path), -1) << path.Utf8();
      EXPECT_EQ(FileGetWriteTime(path), 0xFFFFFFFF) << path.Utf8();
      EXPECT_EQ(FileGetMode(path), 0u) << path.Utf8();
      EXPECT_EQ(FileIsAscii(path), 0) << path.Utf8();
    }
  }
}

TEST(EntryFactsOnPosix, AreWhatTheDirectorySaysWhereItCannotBeEntered) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_directory(directory.Native("sub"));
  ASSERT_EQ(chmod(directory.Native().c_str(), 0444), 0);
  AsOrdinaryUser([&] {
    int count = 0;
    const Directory reading(OpenDirectory(directory / ""));
    ASSERT_NE(reading, nullptr);
    while (const dirent* entry = ReadDirectory(reading.get())) {
      const ZelString name(entry->name);
      if (name == "." || name == "..") continue;
      ++count;
      EXPECT_EQ(FileGetAttributes(directory / name), name == "sub" ? 16u : 128u);
      EXPECT_EQ(FileGetSize64(directory / name), -1);
      EXPECT_EQ(FileGetWriteTime(directory / name), 0xFFFFFFFF);
      EXPECT_EQ(FileGetMode(directory / name), 0u);
      EXPECT_EQ(FileIsAscii(directory / name), 0);
      EXPECT_EQ(FileGetAttributes(directory / "./" + name), 0xFFFFFFFF);
    }
    EXPECT_EQ(count, 2);
  });
  fs::permissions(directory.Native(), fs::perms::owner_all);
}

TEST(OpenDirectoryOnPosix, FailsWhereReadingIsForbidden) {
  const TemporaryDirectory directory;
  ASSERT_EQ(chmod(directory.Native().c_str(), 0111), 0);
  AsOrdinaryUser([&] { EXPECT_EQ(OpenDirectory(directory / ""), nullptr); });
  fs::permissions(directory.Native(), fs::perms::owner_all);
}

TEST(FileIsAsciiOnPosix, IsNoForAFileThatMayNotBeRead) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "text");
  fs::permissions(directory.Native("file"), fs::perms::none);
  AsOrdinaryUser([&] {
    EXPECT_EQ(FileIsAscii(directory / "file"), 0);
    EXPECT_EQ(FileMd5(directory / "file"), "");
    EXPECT_EQ(FileGetSize64(directory / "file"), 4);
  });
}

TEST(FileIsAsciiOnPosix, ReadsFilesOfOthers) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "text");
  AsOrdinaryUser([&] { EXPECT_EQ(FileIsAscii(directory / "file"), 1); });
}

TEST(FileIsAsciiOnPosix, OpensNoPipe) {
  const TemporaryDirectory directory;
  ASSERT_EQ(mkfifo(directory.Native("pipe").c_str(), 0600), 0);
  const OpenWatch watch(directory.Native("pipe"));
  EXPECT_EQ(FileIsAscii(directory / "pipe"), 0);
  EXPECT_EQ(FileMd5(directory / "pipe"), "");
  const Directory reading = StandOn(directory, "pipe");
  ASSERT_NE(reading, nullptr);
  EXPECT_EQ(FileIsAscii(directory / "pipe"), 0);
  EXPECT_EQ(FileGetSize64(directory / "pipe"), -1);
  EXPECT_EQ(FileGetMode(directory / "pipe"), 0010600u);
  EXPECT_FALSE(watch.HasSeen());
}

TEST(FileIsAsciiOnPosix, LeavesTheTimeOfAccessAlone) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "text");
  const timespec times[2] = {{1000, 0}, {2000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, directory.Native("file").c_str(), times, 0), 0);
  EXPECT_EQ(FileIsAscii(directory / "file"), 1);
  struct stat info {};
  ASSERT_EQ(stat(directory.Native("file").c_str(), &info), 0);
  EXPECT_EQ(info.st_atime, 1000);
}

TEST(FileIsAsciiOnPosix, ReadsFilesOfProcThatClaimToBeEmpty) {
  EXPECT_EQ(FileGetSize64("/proc/self/status"), 0);
  EXPECT_EQ(FileIsAscii("/proc/self/status"), 1);
  EXPECT_EQ(FileIsAscii("/proc/self/cmdline"), 0) << "its arguments end in NUL";
  EXPECT_EQ(FileIsAscii("/dev/null"), 0);
}

TEST(FileMd5OnPosix, ReadsFilesOfProcThatClaimToBeEmpty) {
  EXPECT_EQ(FileMd5("/proc/self/cmdline").GetLength(), 32u);
  EXPECT_NE(FileMd5("/proc/self/cmdline"), "d41d8cd98f00b204e9800998ecf8427e");
}

TEST(FileGetWriteTimeOnPosix, ClampsTimesThatItCannotTell) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  struct Case {
    int64_t set;
    uint32_t told;
  };
  for (const Case& one :
       {Case{-1, 0}, Case{-86400, 0}, Case{0, 0}, Case{1, 1}, Case{0x7FFFFFFF, 0x7FFFFFFF},
        Case{0x80000000, 0x80000000}, Case{0xFFFFFFFE, 0xFFFFFFFE}, Case{0xFFFFFFFF, 0xFFFFFFFE},
        Case{0x100000000, 0xFFFFFFFE}}) {
    SetModified(directory.Native("file"), one.set);
    EXPECT_EQ(FileGetWriteTime(directory / "file"), one.told) << one.set;
  }
}

TEST(FileGetModeOnPosix, TellsEveryBit) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "x");
  fs::create_directory(directory.Native("sub"));
  for (const mode_t mode : {0u, 0600u, 0644u, 0755u, 01777u, 06711u, 07777u}) {
    ASSERT_EQ(chmod(directory.Native("file").c_str(), mode), 0);
    ASSERT_EQ(chmod(directory.Native("sub").c_str(), mode), 0);
    EXPECT_EQ(FileGetMode(directory / "file"), kRegular | mode);
    EXPECT_EQ(FileGetMode(directory / "sub"), kDirectory | mode);
    EXPECT_EQ((FileGetAttributes(directory / "file") & 1) != 0, (mode & 0222) == 0) << mode;
    EXPECT_EQ(FileGetAttributes(directory / "sub"), 16u);
  }
}

}  // namespace
