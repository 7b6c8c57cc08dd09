// The same calls with the same answers, once against the fake host and once against the real
// library on real files: what the contract tests script is what the host says.

#include "tests/contract/host_agreement.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

#include "libZel.h"

namespace {

namespace fs = std::filesystem;

class HostAgreement : public ::testing::Test {
 protected:
  HostAgreement() {
    static std::atomic<unsigned> number{0};
    const auto now = std::chrono::steady_clock::now().time_since_epoch().count();
    directory_ = fs::temp_directory_path() /
                 ("zel_agreement_" + std::to_string(now) + "_" + std::to_string(number++));
    fs::create_directory(directory_);
    SetUpHost();
  }
  ~HostAgreement() override {
    TearDownHost();
    std::error_code ignored;
    fs::remove_all(directory_, ignored);
  }

  ZelString In(const std::string& name) const {
    return ZelString((directory_ / name).generic_string());
  }
  void WriteFile(const std::string& name, const std::string& content) const {
    std::ofstream(directory_ / name, std::ios::binary) << content;
  }
  void MakeDirectory(const std::string& name) const { fs::create_directory(directory_ / name); }

  template <typename Call>
  void ExpectAnswer(const char* function, int64_t answer, Call call) {
    ScriptAnswer(function, answer);
    EXPECT_EQ(static_cast<int64_t>(call()), answer) << function;
  }
  /// For errors whose number is the system's.
  template <typename Call>
  void ExpectError(const char* function, Call call) {
    ScriptAnswer(function, -1);
    EXPECT_NE(call(), 0) << function;
  }

 private:
  fs::path directory_;
};

TEST_F(HostAgreement, OnFilesThatExist) {
  WriteFile("a.txt", "hello");
  MakeDirectory("d");

  ExpectAnswer("FileExists", 1, [&] { return FileExists(In("a.txt")); });
  ExpectAnswer("FileExists", 0, [&] { return FileExists(In("b.txt")); });
  ExpectAnswer("FileExists", 0, [&] { return FileExists(In("d")); });
  ExpectAnswer("FileExists", 0, [&] { return FileExists(""); });
}

TEST_F(HostAgreement, OnDirectoriesThatExist) {
  WriteFile("a.txt", "hello");
  MakeDirectory("d");

  ExpectAnswer("DirExists", 1, [&] { return DirExists(In("d")); });
  ExpectAnswer("DirExists", 0, [&] { return DirExists(In("e")); });
  ExpectAnswer("DirExists", 0, [&] { return DirExists(In("a.txt")); });
  ExpectAnswer("DirExists", 0, [&] { return DirExists(""); });
}

TEST_F(HostAgreement, OnSizes) {
  WriteFile("a.txt", "hello");

  ExpectAnswer("FileGetSize", 5, [&] { return FileGetSize(In("a.txt")); });
  ExpectAnswer("FileGetSize", 0, [&] { return FileGetSize(In("b.txt")); });
}

TEST_F(HostAgreement, OnCopies) {
  WriteFile("a.txt", "hello");

  ExpectAnswer("FileCopyNet", 0, [&] { return FileCopyNet(In("a.txt"), In("b.txt"), 0); });
  ExpectAnswer("FileCopyNet", 0, [&] { return FileCopyNet(In("a.txt"), In("b.txt"), 0); });
  ExpectAnswer("FileExists", 1, [&] { return FileExists(In("b.txt")); });
  ExpectAnswer("FileGetSize", 5, [&] { return FileGetSize(In("b.txt")); });
  ExpectError("FileCopyNet", [&] { return FileCopyNet(In("c.txt"), In("d.txt"), 0); });
}

TEST_F(HostAgreement, OnRenamedFiles) {
  WriteFile("a.txt", "hello");
  WriteFile("b.txt", "there");

  ExpectError("FileRenameNet", [&] { return FileRenameNet(In("a.txt"), In("b.txt")); });
  ExpectAnswer("FileRenameNet", 0, [&] { return FileRenameNet(In("a.txt"), In("c.txt")); });
  ExpectAnswer("FileExists", 0, [&] { return FileExists(In("a.txt")); });
  ExpectAnswer("FileExists", 1, [&] { return FileExists(In("c.txt")); });
  ExpectError("FileRenameNet", [&] { return FileRenameNet(In("a.txt"), In("d.txt")); });
}

TEST_F(HostAgreement, OnDeletedFiles) {
  WriteFile("a.txt", "hello");

  ExpectAnswer("FileDeleteNet", 0, [&] { return FileDeleteNet(In("a.txt"), false); });
  ExpectAnswer("FileExists", 0, [&] { return FileExists(In("a.txt")); });
  ExpectError("FileDeleteNet", [&] { return FileDeleteNet(In("a.txt"), false); });
}

TEST_F(HostAgreement, OnCreatedDirectories) {
  ExpectAnswer("DirCreate", 1, [&] { return DirCreate(In("d")); });
  ExpectAnswer("DirExists", 1, [&] { return DirExists(In("d")); });
  ExpectAnswer("DirCreate", 0, [&] { return DirCreate(In("d")); });
  ExpectAnswer("DirCreate", 0, [&] { return DirCreate(In("no/d")); });
  ExpectAnswer("PathCreate", 1, [&] { return PathCreate(In("p/q/r")); });
  ExpectAnswer("DirExists", 1, [&] { return DirExists(In("p/q/r")); });
}

TEST_F(HostAgreement, OnARenameThatIsAskedForTwice) {
  MakeDirectory("d");

  ExpectAnswer("DirRename", 1, [&] { return DirRename(In("d"), In("e")); });
  ExpectAnswer("DirRename", 1, [&] { return DirRename(In("d"), In("e")); });
  ExpectAnswer("DirExists", 1, [&] { return DirExists(In("e")); });
  ExpectAnswer("DirExists", 0, [&] { return DirExists(In("d")); });
  ExpectAnswer("DirRename", 0, [&] { return DirRename(In("no"), In("f")); });
  ExpectAnswer("DirRename", 0, [&] { return DirRename(In("no"), In("f")); });
}

TEST_F(HostAgreement, OnDeletedDirectories) {
  MakeDirectory("d");
  WriteFile("d/a.txt", "hello");

  ExpectAnswer("DirDelete", 1, [&] { return DirDelete(In("d"), 1, 0); });
  ExpectAnswer("DirExists", 0, [&] { return DirExists(In("d")); });
  ExpectAnswer("DirDelete", 0, [&] { return DirDelete(In("d"), 1, 0); });
}

}  // namespace
