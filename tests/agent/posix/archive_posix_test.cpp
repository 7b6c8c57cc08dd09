// What archives have to do with links, permissions and names of this system, and with other
// programs that make and read them.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>

#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/source_tree.h"
#include "tests/agent/archive_files.h"
#include "tests/agent/posix/disk_waits.h"
#include "tests/agent/zip_builder.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// Runs what follows with the rights of a user who is not root, to whom the directory belongs then.
class OrdinaryUser {
 public:
  explicit OrdinaryUser(const fs::path& directory) {
    if (geteuid() != 0) return;
    constexpr uid_t kNobody = 65534;
    const fs::recursive_directory_iterator entries(directory);
    for (const fs::directory_entry& entry : entries) Give(entry.path(), kNobody);
    Give(directory, kNobody);
    EXPECT_EQ(seteuid(kNobody), 0);
  }
  ~OrdinaryUser() { EXPECT_EQ(seteuid(getuid()), 0); }
  OrdinaryUser(const OrdinaryUser&) = delete;
  OrdinaryUser& operator=(const OrdinaryUser&) = delete;

 private:
  static void Give(const fs::path& path, uid_t user) {
    EXPECT_EQ(lchown(path.c_str(), user, static_cast<gid_t>(-1)), 0);
  }
};

class ArchiveOnPosix : public testing::Test {
 protected:
  ArchiveOnPosix() {
    fs::create_directory(directory_.Native("tree"));
    fs::create_directory(directory_.Native("out"));
  }

  fs::path At(const ZelString& name) { return directory_.Native(name); }
  void Make(const std::string& bytes) { WriteFile(At("a.zip"), bytes); }
  int Pack() { return ::Pack(directory_ / "tree", directory_ / "a.zip"); }
  std::vector<ZelString> Extract() { return ExtractAll(directory_ / "a.zip", directory_ / "out"); }
  mode_t ModeOf(const ZelString& name) {
    struct stat info;
    return stat(At(name).c_str(), &info) == 0 ? info.st_mode & 07777 : 0;
  }
  // A tree of all sorts of names, contents and permissions.
  void FillTree() {
    fs::create_directories(At("tree/sub/empty"));
    WriteFile(At("tree/text.txt"), std::string(50000, 't'));
    WriteFile(At("tree/sub/noise"), Noise(50000));
    WriteFile(At("tree/nothing"), "");
    WriteFile(At("tree/large"), Noise(100) + std::string(9 << 20, 'l'));
    // Of three blocks, the last of which is empty.
    WriteFile(At("tree/blocks"), Noise(9 << 20) + std::string(3 << 20, 'b'));
    WriteFile(At("tree/sub/\u00C4\u0416\u540D"), "names");
    fs::permissions(At("tree/text.txt"), fs::perms(0750));
  }
  // Runs a shell's command in the directory.
  int Run(const std::string& command) {
    const std::string line = "cd '" + directory_.Native().native() +
                             "' && LC_ALL=C.UTF-8 && export LC_ALL && { " + command +
                             " ; } >log 2>&1 </dev/null";
    const int status = std::system(line.c_str());
    EXPECT_EQ(status, 0) << command << "\n" << ReadFile(At("log"));
    return status;
  }

  TemporaryDirectory directory_;
  KeptArchiveLimits limits_;
};

TEST_F(ArchiveOnPosix, NeverFollowsLinksBelowTheDestination) {
  fs::create_directory(At("outside"));
  fs::create_directory_symlink(At("outside"), At("out/link"));
  fs::create_symlink(At("outside/target"), At("out/file"));
  Make(ZipBuilder().Add("link/evil", "x").Add("link/", "").Add("file", "new").Bytes());
  EXPECT_THAT(Extract(), ElementsAre("link/evil", "link/"));
  EXPECT_TRUE(fs::is_empty(At("outside")));
  EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(At("out/file"))));
  EXPECT_EQ(ReadFile(At("out/file")), "new");
}

TEST_F(ArchiveOnPosix, MayBeUnpackedWhereALinkLeads) {
  fs::create_directory(At("real"));
  fs::create_directory_symlink(At("real"), At("link"));
  Make(ZipBuilder().Add("a/b", "x").Bytes());
  EXPECT_THAT(ExtractAll(directory_ / "a.zip", directory_ / "link"), IsEmpty());
  EXPECT_EQ(ReadFile(At("real/a/b")), "x");
}

TEST_F(ArchiveOnPosix, KeepsPermissionsWithoutSetIdBits) {
  Make(ZipBuilder()
           .Add({.name = "run", .mode = 0106755})
           .Add({.name = "private", .mode = 0100600})
           .Add({.name = "dir/", .mode = 0040700})
           .Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(ModeOf("out/run"), 0755u);
  EXPECT_EQ(ModeOf("out/private"), 0600u);
  EXPECT_EQ(ModeOf("out/dir"), 0700u);
}

TEST_F(ArchiveOnPosix, KeepsThePermissionsOfDirectories) {
  fs::create_directories(At("tree/closed/inner"));
  for (const char* name : {"locked/inner", "private", "open"}) {
    fs::create_directories(At("tree/" + ZelString(name)));
  }
  WriteFile(At("tree/closed/inner/file"), "closed");
  WriteFile(At("tree/private/file"), "private");
  WriteFile(At("tree/open/file"), "open");
  const std::vector<std::pair<ZelString, mode_t>> modes = {{"closed/inner", 0500}, {"closed", 0500},
                                                           {"locked/inner", 0500}, {"locked", 0600},
                                                           {"private", 0700},      {"open", 0777}};
  for (const auto& [name, mode] : modes) fs::permissions(At("tree/" + name), fs::perms(mode));
  ASSERT_EQ(Pack(), 0);
  {
    // Root could fill a directory that must not be written.
    const OrdinaryUser user(directory_.Native());
    EXPECT_THAT(Extract(), IsEmpty());
  }
  Run("unzip -q a.zip -d u && 7z x -os a.zip");
  for (const auto& [name, mode] : modes) {
    SCOPED_TRACE(name.GetString(kEncodingUtf8));
    EXPECT_EQ(ModeOf("out/" + name), mode);
    EXPECT_EQ(ModeOf("u/" + name), mode);
  }
  Run("diff -r tree out && diff -r tree u && diff -r tree s && chmod -R u+w .");
}

TEST_F(ArchiveOnPosix, KeepsOthersOutOfADirectoryFromItsBeginning) {
  Make(ZipBuilder().Add({.name = "dir/", .mode = 0040500}).Add("dir/file", "x").Bytes());
  GenericArchive archive(directory_ / "a.zip", kArchiveZip);
  ASSERT_EQ(archive.ExtractEntry(1, directory_ / "out\\dir\\"), 0);
  EXPECT_EQ(ModeOf("out/dir"), 0700u);
  ASSERT_EQ(archive.ExtractEntry(2, directory_ / "out\\dir\\file"), 0);
  EXPECT_EQ(ModeOf("out/dir"), 0500u);
}

TEST_F(ArchiveOnPosix, FinishesDirectoriesAlsoWhenEntriesDoNotComeOut) {
  Make(ZipBuilder().Add({.name = "dir/", .mode = 0040500}).Add("../evil", "x").Bytes());
  EXPECT_THAT(Extract(), ElementsAre("../evil"));
  EXPECT_EQ(ModeOf("out/dir"), 0500u);
}

TEST_F(ArchiveOnPosix, LeavesADirectoryThatWasThereAsItIs) {
  fs::create_directory(At("out/dir"));
  fs::permissions(At("out/dir"), fs::perms(0711));
  fs::permissions(At("out"), fs::perms(0711));
  Make(ZipBuilder()
           .Add({.name = "./", .mode = 0040777})
           .Add({.name = "dir/", .mode = 0040777})
           .Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(ModeOf("out/dir"), 0711u);
  EXPECT_EQ(ModeOf("out"), 0711u);
}

TEST_F(ArchiveOnPosix, DoesNotOpenADirectoryThatSomebodyPutInThePlaceOfItsOwn) {
  fs::create_directory(At("secret"));
  fs::permissions(At("secret"), fs::perms(0700));
  Make(ZipBuilder().Add({.name = "dir/", .mode = 0040777}).Add("file", "x").Bytes());
  GenericArchive archive(directory_ / "a.zip", kArchiveZip);
  ASSERT_EQ(archive.ExtractEntry(1, directory_ / "out\\dir\\"), 0);
  fs::rename(At("out/dir"), At("out/elsewhere"));
  fs::rename(At("secret"), At("out/dir"));
  EXPECT_EQ(archive.ExtractEntry(2, directory_ / "out\\file"), ENOENT);
  EXPECT_EQ(ModeOf("out/dir"), 0700u);
}

TEST_F(ArchiveOnPosix, MayHoldAnyNameWhereTheSettingsSaySo) {
  ArchiveLimits limits;
  limits.windowsNames = false;
  SetArchiveLimits(limits);
  Make(ZipBuilder()
           .Add("NUL", "1")
           .Add("ab:c", "2")
           .Add("dot.", "3")
           .Add("A", "4")
           .Add("a", "5")
           .Add("../evil", "")
           .Add("/evil", "")
           .Add("C:/evil", "")
           .Add("a", "twice")
           .Bytes());
  EXPECT_THAT(Extract(), ElementsAre("../evil", "/evil", "C:/evil", "a"));
  EXPECT_EQ(ReadFile(At("out/NUL")), "1");
  EXPECT_EQ(ReadFile(At("out/ab:c")), "2");
  EXPECT_EQ(ReadFile(At("out/dot.")), "3");
  EXPECT_EQ(ReadFile(At("out/A")), "4");
  EXPECT_EQ(ReadFile(At("out/a")), "5");
}

TEST_F(ArchiveOnPosix, KeepsNamesThatAreNoText) {
  WriteFile(At("tree") / "\xFF\xFE.txt", "bytes");
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre(ZelString("\xFF\xFE.txt")));
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(ReadFile(At("out") / "\xFF\xFE.txt"), "bytes");
}

TEST_F(ArchiveOnPosix, LeavesLinksAndPipesOut) {
  WriteFile(At("tree/file"), "x");
  fs::create_symlink("/etc/passwd", At("tree/link"));
  fs::create_directory_symlink("/etc", At("tree/dirlink"));
  ASSERT_EQ(mkfifo(At("tree/pipe").c_str(), 0600), 0);
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("file"));
}

// Stands for a full disk: writing beyond some bytes fails.
class LimitedFileSize {
 public:
  explicit LimitedFileSize(rlim_t bytes) {
    handler_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &before_);
    const struct rlimit limit = {bytes, before_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~LimitedFileSize() {
    setrlimit(RLIMIT_FSIZE, &before_);
    signal(SIGXFSZ, handler_);
  }
  LimitedFileSize(const LimitedFileSize&) = delete;
  LimitedFileSize& operator=(const LimitedFileSize&) = delete;

 private:
  struct rlimit before_ = {};
  void (*handler_)(int) = nullptr;
};

TEST_F(ArchiveOnPosix, DoesNotAppearWhenItCannotBeWritten) {
  for (const size_t size : {size_t{50000}, size_t{20} << 20}) {
    WriteFile(At("tree/file"), Noise(size));
    {
      const LimitedFileSize limit(10000);
      const LibraryLogFile log(At("log"));
      EXPECT_EQ(Pack(), EFBIG);
      EXPECT_THAT(log.Text(), HasSubstr(std::strerror(EFBIG)));
    }
    fs::remove(At("log"));
    EXPECT_EQ(directory_.CountEntries(), 2u);
  }
}

// Makes reading from the file fail, for those too who have opened it.
void BreakFile(const fs::path& file) {
  const UniqueFd directory(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code closedMeanwhile;
    if (fs::read_symlink(entry.path(), closedMeanwhile) != file) continue;
    dup3(directory.Get(), std::stoi(entry.path().filename()), O_CLOEXEC);
  }
}

TEST_F(ArchiveOnPosix, DoesNotAppearWhenAFileCannotBeReadToItsEnd) {
  static fs::path file;
  for (const int level : {0, 6}) {
    file = At("tree/file");
    WriteFile(file, Noise(48 << 20));
    {
      const LibraryLogFile log(At("log"));
      GenericArchive archive(directory_ / "a.zip", kArchiveZip);
      const auto breakFile = [](uint64_t done, uint64_t) {
        if (done > 0) BreakFile(file);
      };
      EXPECT_EQ(archive.AddDirectory(directory_ / "tree", 1, 0, "", "", level, breakFile), EISDIR);
      EXPECT_THAT(log.Text(), HasSubstr("file: " + std::string(std::strerror(EISDIR))));
    }
    fs::remove(At("log"));
    EXPECT_EQ(directory_.CountEntries(), 2u) << "the tree and where it would be unpacked";
  }
}

TEST_F(ArchiveOnPosix, LeavesNothingPartialWhenAFileCannotBeWritten) {
  Make(ZipBuilder()
           .Add("large", Noise(50000))
           .Add("huge", Noise(9 << 20))
           .Add("small", "x")
           .Bytes());
  WriteFile(At("out/large"), "older");
  {
    const LibraryLogFile log(At("log"));
    const LimitedFileSize limit(10000);
    EXPECT_THAT(Extract(), ElementsAre("large", "huge"));
    EXPECT_EQ(
        GenericArchive(directory_ / "a.zip", kArchiveZip).ExtractEntry(2, directory_ / "out\\huge"),
        EFBIG);
    EXPECT_THAT(log.Text(), HasSubstr(std::string("\"large\" of ")));
    EXPECT_THAT(log.Text(), HasSubstr(std::strerror(EFBIG)));
  }
  EXPECT_EQ(ReadFile(At("out/large")), "older");
  EXPECT_EQ(ReadFile(At("out/small")), "x");
  EXPECT_EQ(std::distance(fs::directory_iterator(At("out")), fs::directory_iterator()), 2);
}

TEST_F(ArchiveOnPosix, TellsTheSystemsReasonWhenNothingCanBePacked) {
  WriteFile(At("tree/file"), "x");
  const LibraryLogFile log(At("log"));
  EXPECT_EQ(::Pack(directory_ / "tree/file", directory_ / "a.zip"), ENOTDIR);
  EXPECT_THAT(log.Text(), HasSubstr(std::strerror(ENOTDIR)));
}

TEST_F(ArchiveOnPosix, TakesTimesThatAreTooLateForTheLatestThereIs) {
  WriteFile(At("tree/late"), "");
  // In the year 2400; some file systems keep only what is earlier.
  const struct timespec late[2] = {{0, UTIME_OMIT}, {13'569'465'600, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, At("tree/late").c_str(), late, 0), 0);
  std::vector<file_system::SourceEntry> entries;
  ASSERT_EQ(file_system::ListSource(At("tree"), &entries), 0);
  ASSERT_EQ(entries.size(), 1u);
  EXPECT_GT(entries[0].modifiedNs, 2'000'000'000 * int64_t{1'000'000'000});
}

TEST_F(ArchiveOnPosix, IsUnpackedOnceEverythingIsOnTheDisk) {
  Make(ZipBuilder().Add("dir/", "").Add("dir/first", "1").Add("last", "2").Bytes());
  int waits = 0;
  const DiskWaits disk([&](int) {
    ++waits;
    return ReadFile(At("out/dir/first")) + ReadFile(At("out/last")) == "12" ? 0 : EIO;
  });
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(waits, 1) << "one for all files: each for itself would take far longer";
}

TEST_F(ArchiveOnPosix, IsNotUnpackedWhenTheDiskTakesNothing) {
  Make(ZipBuilder().Add("first", "1").Add("last", "2").Bytes());
  const LibraryLogFile log(At("log"));
  const DiskWaits disk([](int) { return EIO; });
  EXPECT_THAT(Extract(), ElementsAre("last")) << "nobody may delete the archive";
  EXPECT_THAT(log.Text(), HasSubstr(std::strerror(EIO)));
}

TEST_F(ArchiveOnPosix, DoesNotWaitForTheDiskWhenItStaysAnyway) {
  Make(ZipBuilder().Add("../evil", "").Add("last", "2").Bytes());
  int waits = 0;
  const DiskWaits disk([&](int) {
    ++waits;
    return 0;
  });
  EXPECT_THAT(Extract(), ElementsAre("../evil"));
  EXPECT_EQ(waits, 0);
}

TEST_F(ArchiveOnPosix, CannotTakeItsOwnPlaceThroughALink) {
  const std::string bytes = ZipBuilder().Add("link.zip", "evil").Bytes();
  Make(bytes);
  fs::create_symlink("../a.zip", At("out/link.zip"));
  EXPECT_THAT(ExtractAll(directory_ / "out/link.zip", directory_ / "out"), ElementsAre("link.zip"));
  EXPECT_EQ(ReadFile(At("a.zip")), bytes);
  EXPECT_TRUE(fs::is_symlink(At("out/link.zip")));
}

TEST_F(ArchiveOnPosix, WarnsOfNamesThatWindowsCannotStore) {
  WriteFile(At("tree/nul.txt"), "x");
  const LibraryLogFile log(At("log"));
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(log.Text(), HasSubstr("\"nul.txt\": its name is reserved for a device"));
}

TEST_F(ArchiveOnPosix, HoldsMoreEntriesThanTheOldFormat) {
  constexpr int kCount = 66000;
  constexpr int kDirectories = kCount / 1000;
  for (int i = 0; i < kCount; ++i) {
    const fs::path folder = At("tree") / std::to_string(i / 1000);
    if (i % 1000 == 0) fs::create_directory(folder);
    WriteFile(folder / std::to_string(i), "");
  }
  ASSERT_EQ(Pack(), 0);
  EXPECT_EQ(GenericArchive(directory_ / "a.zip", kArchiveZip).GetFileCount(),
            uint32_t{kCount + kDirectories});
  Run("unzip -tq a.zip");
}

constexpr uint64_t kBeyond32Bits = (uint64_t{4} << 30) + 5;

TEST_F(ArchiveOnPosix, HoldsAFileOfMoreThanFourGibibytes) {
  ArchiveLimits limits;
  limits.maxRatio = 2000;
  SetArchiveLimits(limits);
  WriteFile(At("tree/large"), "begin");
  fs::resize_file(At("tree/large"), kBeyond32Bits - 3);
  std::ofstream(At("tree/large"), std::ios::app | std::ios::binary) << "end";
  WriteFile(At("tree/small"), "behind it");
  ASSERT_EQ(::Pack(directory_ / "tree", directory_ / "a.zip", 1), 0);

  // Checksums tell both whether the content is right; one at a time they would take too long.
  const std::future<void> test = std::async(std::launch::async, [&] { Run("unzip -tq a.zip"); });
  EXPECT_THAT(Extract(), IsEmpty());
  test.wait();
  EXPECT_EQ(fs::file_size(At("out/large")), kBeyond32Bits);
  Run("test \"$(tail -c 3 out/large)\" = end");
  EXPECT_EQ(ReadFile(At("out/small")), "behind it");
}

TEST_F(ArchiveOnPosix, FindsEntriesBehindFourGibibytes) {
  const auto field = [](const std::string& content) {
    return LittleEndian(1, 2) + LittleEndian(content.size(), 2) + content;
  };
  const auto facts = [](uint32_t crc, uint64_t size, const std::string& name) {
    return LittleEndian(45, 2) + LittleEndian(0, 8) + LittleEndian(crc, 4) + LittleEndian(size, 4) +
           LittleEndian(size, 4) + LittleEndian(name.size(), 2);
  };
  const auto record = [&](const std::string& theFacts, const std::string& name,
                          const std::string& extra, uint64_t offset) {
    return "PK\1\2" + LittleEndian(45 | 3 << 8, 2) + theFacts + LittleEndian(extra.size(), 2) +
           LittleEndian(0, 6) + LittleEndian(uint64_t{0100644} << 16, 4) + LittleEndian(offset, 4) +
           name + extra;
  };
  const std::string content = "found";
  const std::string largeFacts = facts(0, UINT32_MAX, "large");
  const std::string smallFacts =
      facts(libdeflate_crc32(0, content.data(), content.size()), content.size(), "small");
  const std::string sizes = field(LittleEndian(kBeyond32Bits, 8) + LittleEndian(kBeyond32Bits, 8));
  const std::string head = "PK\3\4" + largeFacts + LittleEndian(sizes.size(), 2) + "large" + sizes;
  const uint64_t offset = head.size() + kBeyond32Bits;
  const std::string small = "PK\3\4" + smallFacts + LittleEndian(0, 2) + "small" + content;
  const std::string directory =
      record(largeFacts, "large", sizes, 0) +
      record(smallFacts, "small", field(LittleEndian(offset, 8)), UINT32_MAX);
  const uint64_t directoryAt = offset + small.size();
  const uint64_t endAt = directoryAt + directory.size();
  const std::string end =
      "PK\6\6" + LittleEndian(44, 8) + LittleEndian(45, 2) + LittleEndian(45, 2) +
      LittleEndian(0, 8) + LittleEndian(2, 8) + LittleEndian(2, 8) +
      LittleEndian(directory.size(), 8) + LittleEndian(directoryAt, 8) + "PK\6\7" +
      LittleEndian(0, 4) + LittleEndian(endAt, 8) + LittleEndian(1, 4) + "PK\5\6" +
      LittleEndian(0, 4) + LittleEndian(2, 2) + LittleEndian(2, 2) +
      LittleEndian(directory.size(), 4) + LittleEndian(UINT32_MAX, 4) + LittleEndian(0, 2);
  Make(head);
  // What is between takes no place on the disk.
  fs::resize_file(At("a.zip"), offset);
  std::ofstream(At("a.zip"), std::ios::app | std::ios::binary) << small << directory << end;

  EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("large", "small"));
  EXPECT_EQ(
      GenericArchive(directory_ / "a.zip", kArchiveZip).ExtractEntry(2, directory_ / "out\\small"),
      0);
  EXPECT_EQ(ReadFile(At("out/small")), content);
  Run("test \"$(unzip -p a.zip small)\" = found");
}

TEST_F(ArchiveOnPosix, DoesNotWaitForPipes) {
  ASSERT_EQ(mkfifo(At("pipe").c_str(), 0600), 0);
  EXPECT_EQ(GenericArchive(directory_ / "pipe", kArchiveZip).GetFileCount(), 1u);
}

TEST_F(ArchiveOnPosix, IsReadByOtherPrograms) {
  FillTree();
  ASSERT_EQ(Pack(), 0);
  Run("unzip -tq a.zip");
  Run("7z t a.zip");
  Run("python3 -c \"import zipfile; assert zipfile.ZipFile('a.zip').testzip() is None\"");
  Run("mkdir u && unzip -q a.zip -d u && diff -r tree u");
  Run("mkdir p && python3 -m zipfile -e a.zip p && diff -r tree p");
  Run("7z x -os a.zip && diff -r tree s");
  Run("mkdir b && bsdtar -xf a.zip -C b && diff -r tree b");
  EXPECT_EQ(ModeOf("u/text.txt"), 0750u);
}

TEST_F(ArchiveOnPosix, ReadsWhatOtherProgramsMake) {
  FillTree();
  Run("cd tree && zip -q -r ../info.zip .");
  Run("cd tree && zip -q -0 -r ../stored.zip .");
  Run("cd tree && 7z a -tzip ../seven.zip .");
  Run("cd tree && python3 -m zipfile -c ../python.zip *");
  Run("cd tree && bsdtar -a -cf ../bsdtar.zip .");
  Run("cd tree && zip -q -fd -r - . >../streamed.zip");
  for (const char* name : {"info", "stored", "seven", "python", "bsdtar", "streamed"}) {
    SCOPED_TRACE(name);
    const ZelString out = directory_ / (ZelString("from-") + name);
    EXPECT_THAT(ExtractAll(directory_ / (ZelString(name) + ".zip"), out), IsEmpty());
    Run(std::string("diff -r tree from-") + name);
  }
  EXPECT_EQ(ModeOf("from-info/text.txt"), 0750u);
  EXPECT_EQ(FileGetWriteTime(directory_ / "from-seven/text.txt"),
            FileGetWriteTime(directory_ / "tree/text.txt"));
}

TEST_F(ArchiveOnPosix, RefusesWhatOtherProgramsEncrypt) {
  WriteFile(At("tree/secret"), "secret");
  Run("cd tree && zip -q -P password ../a.zip secret");
  EXPECT_THAT(Extract(), ElementsAre("secret"));
}

}  // namespace
