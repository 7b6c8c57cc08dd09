// Files without a name on file systems that refuse to name them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "agent/libZel/file_system.h"
#include "libZel/file.h"
#include "tests/agent/posix/size_limit.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

thread_local bool namesAreRefused = false;
thread_local int refusals = 0;

// A file system that makes files without names but never names one, for the life of the object.
class RefusedNames {
 public:
  RefusedNames() {
    namesAreRefused = true;
    refusals = 0;
  }
  ~RefusedNames() { namesAreRefused = false; }
  RefusedNames(const RefusedNames&) = delete;
  RefusedNames& operator=(const RefusedNames&) = delete;
};

}  // namespace

// The library calls this one: the program's own names come before those of the system's library.
extern "C" int linkat(int fromDirectory, const char* from, int toDirectory, const char* to,
                      int flags) noexcept {
  if (namesAreRefused) {
    ++refusals;
    errno = EPERM;
    return -1;
  }
  return static_cast<int>(syscall(SYS_linkat, fromDirectory, from, toDirectory, to, flags));
}

namespace {

TEST(PendingFileOnPosix, IsWrittenWhereTheFileSystemRefusesToNameIt) {
  const TemporaryDirectory directory;
  const fs::path destination = directory.Native("file");
  const RefusedNames refused;

  file_system::PendingFile file;
  ASSERT_EQ(file.Create(destination), 0);
  ASSERT_EQ(file.Write("one\n", 4), 0);
  const fs::path early = file.Path();
  EXPECT_EQ(ReadFile(early), "one\n");
  ASSERT_EQ(file.Write("two\n", 4), 0);
  ASSERT_EQ(file.Commit(false), 0);

  EXPECT_EQ(refusals, 1);
  EXPECT_EQ(ReadFile(destination), "one\ntwo\n");
  EXPECT_EQ(directory.CountEntries(), 1u);
}

TEST(PendingFileOnPosix, KeepsWhatBelongsToTheFileWhereItsNameIsRefused) {
  const TemporaryDirectory directory;
  const fs::path source = directory.Native("source");
  WriteFile(source, "content");
  ASSERT_EQ(chmod(source.c_str(), 0640), 0);
  const struct timespec times[2] = {{0, UTIME_OMIT}, {1234567890, 123456789}};
  ASSERT_EQ(utimensat(AT_FDCWD, source.c_str(), times, 0), 0);

  const RefusedNames refused;
  ASSERT_EQ(FileCopyNet(directory / "source", directory / "copy", 0), 0);

  EXPECT_EQ(refusals, 1);
  struct stat copy {};
  ASSERT_EQ(stat(directory.Native("copy").c_str(), &copy), 0);
  EXPECT_EQ(copy.st_mode & 07777, 0640u);
  EXPECT_EQ(copy.st_mtim.tv_sec, 1234567890);
  EXPECT_EQ(copy.st_mtim.tv_nsec, 123456789);
  EXPECT_EQ(ReadFile(directory.Native("copy")), "content");
}

TEST(PendingFileOnPosix, LeavesNothingWhereNeitherANameNorACopyIsToBeHad) {
  const TemporaryDirectory directory;
  const fs::path destination = directory.Native("file");
  const RefusedNames refused;

  file_system::PendingFile file;
  ASSERT_EQ(file.Create(destination), 0);
  ASSERT_EQ(file.Write("content", 7), 0);
  {
    const SizeLimit limit(3);
    EXPECT_EQ(file.Commit(false), EFBIG);
    EXPECT_EQ(file.Path(), fs::path());
  }
  EXPECT_EQ(directory.CountEntries(), 0u);

  EXPECT_EQ(file.Commit(false), 0) << "the content was still there";
  EXPECT_EQ(ReadFile(destination), "content");
}

}  // namespace
