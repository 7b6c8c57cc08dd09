#include <gtest/gtest.h>

#include <string>

#include "libZel/file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

struct Case {
  const char* content;
  const char* digest;
};

// RFC 1321, A.5.
constexpr Case kCases[] = {
    {"", "d41d8cd98f00b204e9800998ecf8427e"},
    {"a", "0cc175b9c0f1b6a831c399e269772661"},
    {"abc", "900150983cd24fb0d6963f7d28e17f72"},
    {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
    {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
     "d174ab98d277d9f5a5611c2c9f419d9f"},
    {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
     "57edf4a22be3c955ac49da2e2107b67a"},
};

TEST(FileMd5, AnswersTheDigestsOfTheStandard) {
  const TemporaryDirectory directory;
  for (const Case& one : kCases) {
    WriteFile(directory.Native("file"), one.content);
    EXPECT_EQ(FileMd5(directory / "file"), one.digest) << one.content;
  }
}

TEST(FileMd5, ReadsFilesOfSeveralPieces) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), std::string(1'000'000, 'a'));
  EXPECT_EQ(FileMd5(directory / "file"), "7707d6ae4e027c70eea2a935c2296f21");
  WriteFile(directory.Native("file"), "");
  fs::resize_file(directory.Native("file"), (4 << 20) + 1);
  EXPECT_EQ(FileMd5(directory / "file"), "0512b81efac65efad48880543d4d60af");
}

TEST(FileMd5, IsEmptyForWhatIsNoRegularFile) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "abc");
  EXPECT_EQ(FileMd5(directory / "missing"), "");
  EXPECT_EQ(FileMd5(directory / ""), "");
  EXPECT_EQ(FileMd5(FromNativePath(directory.Native())), "");
  EXPECT_EQ(FileMd5(directory / "file/"), "");
  EXPECT_EQ(FileMd5(""), "");
  EXPECT_EQ(FileMd5("http://localhost:1/file"), "");
  EXPECT_EQ(FileMd5(ZelString(std::string_view("/\0", 2))), "");
}

}  // namespace
