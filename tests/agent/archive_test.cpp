// Archives packed and unpacked; hostile ones are in hostile_archive_test.cpp.

#include "libZel/archive.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <utility>

#include "agent/libZel/pack_ahead.h"
#include "agent/libZel/progress.h"
#include "agent/libZel/zip_names.h"
#include "tests/agent/archive_files.h"
#include "tests/agent/zip_builder.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class Archive : public testing::Test {
 protected:
  Archive() { fs::create_directory(directory_.Native("tree")); }

  void Put(const ZelString& name, const std::string& content) {
    const fs::path path = directory_.Native("tree/" + name);
    fs::create_directories(path.parent_path());
    WriteFile(path, content);
  }
  void MakeArchive(const std::string& bytes) { WriteFile(directory_.Native("a.zip"), bytes); }
  int Pack(int level = 6) { return ::Pack(directory_ / "tree", directory_ / "a.zip", level); }
  std::vector<ZelString> Extract() { return ExtractAll(directory_ / "a.zip", directory_ / "out"); }
  std::string Out(const ZelString& name) { return ReadFile(directory_.Native("out/" + name)); }

  TemporaryDirectory directory_;
};

TEST_F(Archive, GivesBackWhatWasPacked) {
  const std::string text(100000, 'x');
  Put("a.txt", text);
  Put("empty", "");
  Put("sub/noise.bin", Noise(70000));
  Put("sub/deeper/b", "b");
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(Out("a.txt"), text);
  EXPECT_TRUE(fs::is_regular_file(directory_.Native("out/empty")));
  EXPECT_EQ(Out("empty"), "");
  EXPECT_EQ(Out("sub/noise.bin"), Noise(70000));
  EXPECT_EQ(Out("sub/deeper/b"), "b");
}

TEST_F(Archive, ListsEntriesInTheOrderOfTheirNames) {
  Put("b", "1");
  Put("a/z", "2");
  Put("C", "3");
  fs::create_directory(directory_.Native("tree/nothing"));
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("C", "a/", "a/z", "b", "nothing/"));
}

TEST_F(Archive, KeepsDirectoriesWithNothingInThem) {
  fs::create_directories(directory_.Native("tree/outer/inner"));
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("outer/", "outer/inner/"));
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_TRUE(fs::is_directory(directory_.Native("out/outer/inner")));
}

TEST_F(Archive, OfAnEmptyDirectoryHasNoEntries) {
  ASSERT_EQ(Pack(), 0);
  EXPECT_EQ(GenericArchive(directory_ / "a.zip", kArchiveZip).GetFileCount(), 0u);
}

TEST_F(Archive, KeepsNamesInAnyScript) {
  const std::vector<ZelString> names = {"\u00C4rger.txt", "\u0416\u0443\u043A",
                                        "\u65E5\u672C\u8A9E/\u540D\u524D.txt", "emoji \U0001F600"};
  for (const ZelString& name : names) Put(name, "content");
  ASSERT_EQ(Pack(), 0);
  std::vector<ZelString> entries = names;
  entries.push_back("\u65E5\u672C\u8A9E/");
  EXPECT_THAT(NamesIn(directory_ / "a.zip"), testing::UnorderedElementsAreArray(entries));
  EXPECT_THAT(Extract(), IsEmpty());
  for (const ZelString& name : names) EXPECT_EQ(Out(name), "content");
}

TEST_F(Archive, KeepsTimes) {
  Put("old", "x");
  const auto time = fs::last_write_time(directory_.Native("tree/old")) - std::chrono::hours(50000);
  fs::last_write_time(directory_.Native("tree/old"), time);
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(FileGetWriteTime(directory_ / "out/old"), FileGetWriteTime(directory_ / "tree/old"));
}

TEST_F(Archive, KeepsTheTimesOfDirectories) {
  MakeArchive(ZipBuilder()
                  .Add({.name = "outer/", .mode = 0040755})
                  .Add({.name = "outer/inner/", .mode = 0040755, .dosTime = 9 << 11})
                  .Add("outer/inner/file", "x")
                  .Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  const uint32_t outer = FileGetWriteTime(directory_ / "out/outer");
  const uint32_t inner = FileGetWriteTime(directory_ / "out/outer/inner");
  EXPECT_EQ(outer, FileGetWriteTime(directory_ / "out/outer/inner/file"));
  EXPECT_EQ(inner - outer, 5u * 3600 - 5 * 60 - 6);

  ASSERT_EQ(::Pack(directory_ / "out", directory_ / "b.zip"), 0);
  EXPECT_THAT(ExtractAll(directory_ / "b.zip", directory_ / "again"), IsEmpty());
  EXPECT_EQ(FileGetWriteTime(directory_ / "again/outer"), outer);
  EXPECT_EQ(FileGetWriteTime(directory_ / "again/outer/inner"), inner);
}

TEST_F(Archive, KeepsFilesReadOnly) {
  Put("fixed", "x");
  Put("free", "x");
  const fs::path fixed = directory_.Native("tree/fixed");
  fs::permissions(fixed, fs::perms::owner_read, fs::perm_options::replace);
  ASSERT_EQ(Pack(), 0);
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(FileGetAttributes(directory_ / "out/fixed") & 1, 1u);
  EXPECT_EQ(FileGetAttributes(directory_ / "out/free") & 1, 0u);

  // A second time over the first: what is read-only is replaced all the same.
  EXPECT_THAT(Extract(), IsEmpty());
  for (const char* name : {"tree/fixed", "out/fixed"}) {
    fs::permissions(directory_.Native(name), fs::perms::owner_all);
  }
}

TEST_F(Archive, StreamsLargeFiles) {
  const std::string noise = Noise(10 << 20);
  const std::string text(20 << 20, 'a');
  Put("noise", noise);
  Put("text", text);
  for (const int level : {0, 6}) {
    ASSERT_EQ(Pack(level), 0);
    EXPECT_THAT(Extract(), IsEmpty());
    EXPECT_TRUE(Out("noise") == noise);
    EXPECT_TRUE(Out("text") == text);
  }
  EXPECT_LT(fs::file_size(directory_.Native("a.zip")), noise.size() + (1 << 20));
}

TEST_F(Archive, GivesBackFilesOfAnySize) {
  constexpr size_t kSmall = PackAhead::kSmallBytes;
  constexpr size_t kBlock = PackAhead::kBlockBytes;
  // Half of it becomes smaller.
  std::string content = Noise(4 * kBlock);
  for (size_t at = 0; at < content.size(); at += 2000) content.replace(at, 1000, 1000, 'a');
  const std::vector<size_t> sizes = {
      0, 1, kSmall, kSmall + 1, 3 * kBlock - 1, 3 * kBlock, 3 * kBlock + 1};
  for (const size_t size : sizes) Put(ZelString(std::to_string(size)), content.substr(0, size));
  for (const int level : {0, 1}) {
    ASSERT_EQ(Pack(level), 0);
    EXPECT_THAT(Extract(), IsEmpty());
    for (const size_t size : sizes) {
      EXPECT_TRUE(Out(ZelString(std::to_string(size))) == content.substr(0, size)) << size;
    }
  }
}

TEST_F(Archive, KeepsRoomForAnySizeUntilThatIsKnown) {
  Put("large", "");
  fs::resize_file(directory_.Native("tree/large"), PackAhead::kSmallBytes + 1);
  ASSERT_EQ(Pack(), 0);
  // In the entry's own record, whose second field is the version that is needed to read it.
  EXPECT_EQ(ReadFile(directory_.Native("a.zip")).substr(0, 6), std::string("PK\x03\x04\x2D\0", 6));
}

// What a test does once the packing has come so far.
uint64_t meanwhileAtBytes = 0;
std::function<void()> meanwhile;

int PackWith(const ZelString& tree, const ZelString& archivePath, int level, uint64_t atBytes,
             std::function<void()> action) {
  meanwhileAtBytes = atBytes;
  meanwhile = std::move(action);
  GenericArchive archive(archivePath, kArchiveZip);
  return archive.AddDirectory(tree, 1, 0, "", "", level, [](uint64_t done, uint64_t) {
    if (meanwhile && done >= meanwhileAtBytes) std::exchange(meanwhile, nullptr)();
  });
}

TEST_F(Archive, HoldsFilesAsTheyWereRead) {
  const std::string content = Noise(48 << 20);
  const fs::path file = directory_.Native("tree/file");
  const auto packed = [&](size_t size, size_t changedSize, uint64_t atBytes, int level) {
    Put("file", content.substr(0, size));
    const auto change = [&] {
      if (changedSize < size) return fs::resize_file(file, changedSize);
      std::ofstream(file, std::ios::binary | std::ios::app)
          << std::string_view(content).substr(size, changedSize - size);
    };
    EXPECT_EQ(PackWith(directory_ / "tree", directory_ / "a.zip", level, atBytes, change), 0);
    EXPECT_FALSE(meanwhile);
    EXPECT_THAT(Extract(), IsEmpty());
    return Out("file") == content.substr(0, changedSize);
  };
  constexpr size_t kMiB = 1 << 20;
  // Between the listing and the reading.
  EXPECT_TRUE(packed(10, 20 * kMiB, 0, 6));
  EXPECT_TRUE(packed(9 * kMiB, 10, 0, 6));
  EXPECT_TRUE(packed(9 * kMiB, 0, 0, 0));
  // While it is read, which is at most 32 MiB ahead.
  EXPECT_TRUE(packed(41 * kMiB, 48 * kMiB, 1, 0));
  EXPECT_TRUE(packed(48 * kMiB, 41 * kMiB, 1, 0));
}

TEST_F(Archive, GivesBackLargeFilesOfZeros) {
  Put("zeros", "");
  fs::resize_file(directory_.Native("tree/zeros"), 100 << 20);
  const LibraryLogFile log(directory_.Native("log"));
  ASSERT_EQ(Pack(), 0);
  EXPECT_LT(fs::file_size(directory_.Native("a.zip")), size_t{1} << 20);
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(fs::file_size(directory_.Native("out/zeros")), uint64_t{100} << 20);
  EXPECT_THAT(log.Text(), Not(HasSubstr("unpacked whole")));
}

TEST_F(Archive, WarnsWhenItWouldNotBeUnpackedWhole) {
  Put("a", "12345");
  Put("b", "12345");
  const KeptArchiveLimits kept;
  const std::vector<std::pair<ArchiveLimits, std::string>> cases = {
      {{.maxEntries = 1}, "more entries than the limit allows"},
      {{.maxBytes = 9}, "more would come out of it than the limits allow"}};
  for (const auto& [limits, reason] : cases) {
    SetArchiveLimits(limits);
    const LibraryLogFile log(directory_.Native("log-" + ZelString(reason)));
    ASSERT_EQ(Pack(), 0);
    EXPECT_THAT(log.Text(), HasSubstr(reason));
  }
}

TEST_F(Archive, HoldsThousandsOfFiles) {
  constexpr int kCount = 1000;
  constexpr int kDirectories = 7;
  for (int i = 0; i < kCount; ++i) {
    const std::string number = std::to_string(i);
    Put(ZelString("d" + std::to_string(i % kDirectories) + "/" + number), number);
  }
  ASSERT_EQ(Pack(), 0);
  EXPECT_EQ(NamesIn(directory_ / "a.zip").size(), size_t{kCount + kDirectories});
  EXPECT_THAT(Extract(), IsEmpty());
  for (int i = 0; i < kCount; ++i) {
    const std::string number = std::to_string(i);
    ASSERT_EQ(Out(ZelString("d" + std::to_string(i % kDirectories) + "/" + number)), number);
  }
}

TEST_F(Archive, StoresAtLevelZeroAndWhatDoesNotBecomeSmaller) {
  Put("noise", Noise(50000));
  ASSERT_EQ(Pack(), 0);
  EXPECT_LT(fs::file_size(directory_.Native("a.zip")), 50000u + 200);
  Put("text", std::string(50000, 'a'));
  ASSERT_EQ(Pack(0), 0);
  EXPECT_GT(fs::file_size(directory_.Native("a.zip")), 100000u);
  EXPECT_THAT(Extract(), IsEmpty());
}

TEST_F(Archive, AppearsWhenTheObjectEnds) {
  Put("a", "a");
  {
    GenericArchive archive(directory_ / "a.zip", kArchiveZip);
    ASSERT_EQ(archive.AddDirectory(directory_ / "tree", 1, 0, "", "", 6, nullptr), 0);
    EXPECT_FALSE(fs::exists(directory_.Native("a.zip")));
  }
  EXPECT_TRUE(fs::exists(directory_.Native("a.zip")));
  EXPECT_EQ(directory_.CountEntries(), 2u);
}

TEST_F(Archive, DoesNotAppearWhenTheDirectoryIsMissing) {
  EXPECT_NE(::Pack(directory_ / "missing", directory_ / "a.zip"), 0);
  EXPECT_EQ(directory_.CountEntries(), 1u);
}

TEST_F(Archive, KeepsTheOlderArchiveWhenPackingFails) {
  MakeArchive("older");
  EXPECT_NE(::Pack(directory_ / "missing", directory_ / "a.zip"), 0);
  EXPECT_EQ(ReadFile(directory_.Native("a.zip")), "older");
}

TEST_F(Archive, DoesNotHoldItself) {
  Put("a", "a");
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(::Pack(directory_ / "tree", directory_ / "tree/self.zip"), 0);
    EXPECT_THAT(NamesIn(directory_ / "tree/self.zip"), ElementsAre("a"));
  }
}

TEST_F(Archive, RefusesOptionsThatItDoesNotKnow) {
  Put("a", "a");
  GenericArchive archive(directory_ / "a.zip", kArchiveZip);
  const ZelString tree = directory_ / "tree";
  EXPECT_NE(archive.AddDirectory(tree, 0, 0, "", "", 6, nullptr), 0);
  EXPECT_NE(archive.AddDirectory(tree, 1, 1, "", "", 6, nullptr), 0);
  EXPECT_NE(archive.AddDirectory(tree, 1, 0, "p", "", 6, nullptr), 0);
  EXPECT_NE(archive.AddDirectory(tree, 1, 0, "", "*", 6, nullptr), 0);
}

uint64_t toldDone = 0;
uint64_t toldTotal = 0;

TEST_F(Archive, TellsHowFarPackingIs) {
  Put("a", std::string(1000, 'a'));
  Put("b", std::string(9 << 20, 'b'));
  Put("c", "");
  {
    GenericArchive archive(directory_ / "a.zip", kArchiveZip);
    ASSERT_EQ(archive.AddDirectory(directory_ / "tree", 1, 0, "", "", 6,
                                   [](uint64_t done, uint64_t total) {
                                     EXPECT_GE(done, toldDone);
                                     toldDone = done;
                                     toldTotal = total;
                                   }),
              0);
  }
  EXPECT_EQ(toldTotal, 1000u + (9 << 20));
  EXPECT_EQ(toldDone, toldTotal);
}

TEST_F(Archive, ReportsExtractionAsProgress) {
  MakeArchive(ZipBuilder().Add("a", "12345").Add("b", "678").Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  const std::vector<Progress::Report> reports = Progress::Reports();
  ASSERT_FALSE(reports.empty());
  const Progress::Report& last = reports.back();
  EXPECT_EQ(last.kind, Progress::Kind::kExtract);
  EXPECT_EQ(last.name, directory_ / "a.zip");
  EXPECT_EQ(last.doneBytes, 8u);
  EXPECT_EQ(last.totalBytes, 8u);
  EXPECT_FALSE(last.isRunning);
  EXPECT_EQ(last.failure, "");
}

TEST_F(Archive, TakesThePlaceOfOlderFiles) {
  fs::create_directory(directory_.Native("out"));
  WriteFile(directory_.Native("out/a"), "older and longer");
  MakeArchive(ZipBuilder().Add("a", "new").Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(Out("a"), "new");
}

TEST_F(Archive, TakesSeparatorsOfBothKinds) {
  MakeArchive(ZipBuilder().Add("a\\b\\c.txt", "1").Add("a/d.txt", "2").Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(Out("a/b/c.txt"), "1");
  EXPECT_EQ(Out("a/d.txt"), "2");
}

TEST_F(Archive, IgnoresDotsInNames) {
  MakeArchive(ZipBuilder()
                  .Add({.name = "./", .mode = 0040755})
                  .Add("./a", "1")
                  .Add("./b/././c", "2")
                  .Add({.name = "./d/.", .mode = 0040755})
                  .Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(Out("a"), "1");
  EXPECT_EQ(Out("b/c"), "2");
  EXPECT_TRUE(fs::is_directory(directory_.Native("out/d")));
}

TEST_F(Archive, ReadsNamesInTheEncodingThatTheArchiveTells) {
  ZipRecord dos{.name = "\x84\x94\x81", .content = "1", .system = 0, .mode = 0};
  ZipRecord utf8{.name = "\xC3\xBC", .content = "2", .flags = 0x0800, .system = 0, .mode = 0};
  ZipRecord unixName{.name = "\xC3\xA4", .content = "3"};
  ZipRecord bytes{.name = "\xFF", .content = "4"};
  MakeArchive(ZipBuilder().Add(dos).Add(utf8).Add(unixName).Add(bytes).Bytes());
  EXPECT_THAT(NamesIn(directory_ / "a.zip"),
              ElementsAre("\u00E4\u00F6\u00FC", "\u00FC", "\u00E4", ZelString("\xFF")));
}

TEST_F(Archive, ReadsTheUnicodeNameBesideAnotherEncoding) {
  const std::string name = "\x84";
  const std::string better = "\u0416";
  const uint32_t crc = libdeflate_crc32(0, name.data(), name.size());
  ZipRecord record{.name = name, .system = 0, .mode = 0};
  record.extra = LittleEndian(0x7075, 2) + LittleEndian(5 + better.size(), 2) + "\1" +
                 LittleEndian(crc, 4) + better;
  ZipRecord stale = record;
  stale.name = "\x94";
  MakeArchive(ZipBuilder().Add(record).Add(stale).Bytes());
  EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("\u0416", "\u00F6"));
}

TEST_F(Archive, TakesTheMostPreciseTime) {
  const std::string unixTime =
      LittleEndian(0x5455, 2) + LittleEndian(5, 2) + "\1" + LittleEndian(1500000001, 4);
  const uint64_t ticks = 116444736000000000 + uint64_t{1400000001} * 10000000;
  const std::string ntfsTime = LittleEndian(0x000a, 2) + LittleEndian(32, 2) + LittleEndian(0, 4) +
                               LittleEndian(1, 2) + LittleEndian(24, 2) + LittleEndian(ticks, 8) +
                               LittleEndian(0, 16);
  ZipRecord both{.name = "both"};
  both.extra = ntfsTime + unixTime;
  ZipRecord ntfs{.name = "ntfs"};
  ntfs.extra = ntfsTime;
  MakeArchive(ZipBuilder().Add(both).Add(ntfs).Add("dos", "").Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(FileGetWriteTime(directory_ / "out/both"), 1500000001u);
  EXPECT_EQ(FileGetWriteTime(directory_ / "out/ntfs"), 1400000001u);
  std::tm local{};
  local.tm_year = 124;
  local.tm_mon = 1;
  local.tm_mday = 3;
  local.tm_hour = 4;
  local.tm_min = 5;
  local.tm_sec = 6;
  local.tm_isdst = -1;
  EXPECT_EQ(FileGetWriteTime(directory_ / "out/dos"), static_cast<uint32_t>(std::mktime(&local)));
}

TEST_F(Archive, MayHaveDataDescriptorsAndAComment) {
  const std::string descriptor = "PK\7\x08" + LittleEndian(libdeflate_crc32(0, "abc", 3), 4) +
                                 LittleEndian(3, 4) + LittleEndian(3, 4);
  ZipRecord record{.name = "a", .content = "abc", .flags = 8};
  MakeArchive(ZipBuilder().Add(record).Bytes(descriptor, "a comment"));
  EXPECT_THAT(Extract(), IsEmpty());
  EXPECT_EQ(Out("a"), "abc");
}

TEST_F(Archive, TellsByFileExistsWhatCameOut) {
  MakeArchive(
      ZipBuilder().Add("dir/", "").Add({.name = "bad", .content = "x", .crcError = 1}).Bytes());
  fs::create_directory(directory_.Native("out"));
  WriteFile(directory_.Native("out/bad"), "older");
  const ZelString directoryTarget = directory_ / "out\\dir/\\";
  const ZelString fileTarget = directory_ / "out\\bad";
  {
    GenericArchive archive(directory_ / "a.zip", kArchiveZip);
    EXPECT_EQ(archive.ExtractEntry(1, directoryTarget), 0);
    EXPECT_EQ(FileExists(directoryTarget), 1);
    EXPECT_NE(archive.ExtractEntry(2, fileTarget), 0);
    EXPECT_EQ(FileExists(fileTarget), 0);
    EXPECT_EQ(FileExists(directoryTarget), 0);
    std::thread([&] { EXPECT_EQ(FileExists(fileTarget), 1); }).join();
  }
  EXPECT_EQ(FileExists(fileTarget), 1);
  EXPECT_EQ(Out("bad"), "older");
}

TEST_F(Archive, ThatCannotBeReadHasOneEntryThatNeverComesOut) {
  const ZelString target = directory_ / "out\\";
  fs::create_directory(directory_.Native("out"));
  for (const std::string& bytes : {std::string(), std::string("no archive"), Noise(1000)}) {
    MakeArchive(bytes);
    GenericArchive archive(directory_ / "a.zip", kArchiveZip);
    EXPECT_EQ(archive.GetFileCount(), 1u);
    EXPECT_EQ(archive.GetEntryPath(1), "");
    EXPECT_NE(archive.ExtractEntry(1, target), 0);
    EXPECT_EQ(FileExists(target), 0);
  }
  EXPECT_EQ(GenericArchive(directory_ / "missing.zip", kArchiveZip).GetFileCount(), 1u);
  EXPECT_EQ(GenericArchive(directory_ / "out", kArchiveZip).GetFileCount(), 1u);
}

TEST_F(Archive, HasNoEntriesBesideItsOwn) {
  MakeArchive(ZipBuilder().Add("a", "a").Bytes());
  GenericArchive archive(directory_ / "a.zip", kArchiveZip);
  EXPECT_EQ(archive.GetEntryPath(0), "");
  EXPECT_EQ(archive.GetEntryPath(2), "");
  EXPECT_NE(archive.ExtractEntry(0, directory_ / "out\\a"), 0);
  EXPECT_NE(archive.ExtractEntry(2, directory_ / "out\\a"), 0);
}

TEST_F(Archive, ExtractsOnlyToTargetsThatEndWithTheEntry) {
  MakeArchive(ZipBuilder().Add("dir/a", "a").Bytes());
  GenericArchive archive(directory_ / "a.zip", kArchiveZip);
  EXPECT_NE(archive.ExtractEntry(1, directory_ / "out\\b"), 0);
  EXPECT_NE(archive.ExtractEntry(1, directory_ / "out\\a"), 0);
  EXPECT_NE(archive.ExtractEntry(1, directory_ / "out\\mydir/\\a"), 0);
  EXPECT_EQ(archive.ExtractEntry(1, directory_ / "out/dir\\/a"), 0);
  EXPECT_EQ(Out("dir/a"), "a");
}

TEST_F(Archive, ExtractsEachEntryBelowItsOwnTarget) {
  MakeArchive(ZipBuilder().Add("x", "1").Add("y", "2").Add("dir/z", "3").Add("dir/w", "4").Bytes());
  GenericArchive archive(directory_ / "a.zip", kArchiveZip);
  EXPECT_EQ(archive.ExtractEntry(1, directory_ / "out\\A\\x"), 0);
  EXPECT_EQ(archive.ExtractEntry(2, directory_ / "out\\B\\y"), 0);
  EXPECT_EQ(archive.ExtractEntry(3, directory_ / "out\\A\\dir\\z"), 0);
  EXPECT_EQ(archive.ExtractEntry(4, directory_ / "out\\B\\dir\\w"), 0);
  EXPECT_EQ(Out("A/x") + Out("B/y") + Out("A/dir/z") + Out("B/dir/w"), "1234");
  EXPECT_FALSE(fs::exists(directory_.Native("out/A/y")));
}

TEST_F(Archive, MayHoldManySmallArchives) {
  const std::string inner = ZipBuilder().Add("a", "content").Add("b", "").Bytes();
  ZipBuilder builder;
  for (int i = 0; i < 100; ++i) builder.Add(std::to_string(i) + ".zip", inner);
  MakeArchive(builder.Bytes());
  EXPECT_THAT(ExtractAll(directory_ / "a.zip", directory_ / "out"), IsEmpty());
  EXPECT_EQ(Out("99.zip"), inner);
}

TEST(ZipNames, FindTheRootOfATarget) {
  using zip_names::RootOf;
  EXPECT_EQ(RootOf("C:\\out\\a/\\b", {"a", "b"}), "C:\\out/");
  EXPECT_EQ(RootOf("C:\\a", {"a"}), "C:/");
  EXPECT_EQ(RootOf("/\\a", {"a"}), "/");
  EXPECT_EQ(RootOf("/out/./\\.\\a/./\\b/.", {"a", "b"}), "/out/");
  EXPECT_EQ(RootOf("/out\\./\\", {}), "/out/");
  EXPECT_EQ(RootOf("/\\./\\", {}), "/");
  EXPECT_EQ(RootOf("./a", {"a"}), ".");
  EXPECT_EQ(RootOf("a", {"a"}), ".");
  EXPECT_EQ(RootOf("/out/ba", {"a"}), "");
  EXPECT_EQ(RootOf("/out/b", {"a"}), "");
}

TEST(ZipNames, HaveTheSameKeyWhenOnlyCaseDiffers) {
  using zip_names::Key;
  EXPECT_EQ(Key("Dir\\file", false), Key("dIR/FILE/", false));
  EXPECT_EQ(Key("\u00E4\u0436\u03B1\u0151", false), Key("\u00C4\u0416\u0391\u0150", false));
  EXPECT_NE(Key("a", true), Key("A", true));
  EXPECT_EQ(Key("a\\b", true), "a/b");
  EXPECT_EQ(Key("./a/.\\b/.", true), "a/b");
  EXPECT_EQ(Key("./", true), "");
  EXPECT_NE(Key("a/b", true), Key("/a/b", true));
}

}  // namespace
