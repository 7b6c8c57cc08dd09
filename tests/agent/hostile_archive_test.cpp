// Archives that want more than to be unpacked.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "agent/libZel/zip_names.h"
#include "agent/libZel/zip_rules.h"
#include "tests/agent/archive_files.h"
#include "tests/agent/zip_builder.h"

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class HostileArchive : public testing::Test {
 protected:
  HostileArchive() { fs::create_directory(directory_.Native("out")); }

  void Make(const std::string& bytes) { WriteFile(directory_.Native("a.zip"), bytes); }
  std::vector<ZelString> Extract() { return ExtractAll(directory_ / "a.zip", directory_ / "out"); }
  size_t CountOut() {
    return static_cast<size_t>(
        std::distance(fs::recursive_directory_iterator(directory_.Native("out")), {}));
  }
  // The entry stays inside, and the harmless one behind it comes out.
  void ExpectRefused(const ZipRecord& record) {
    SCOPED_TRACE(record.name);
    Make(ZipBuilder().Add(record).Add("harmless", "x").Bytes());
    EXPECT_EQ(NamesIn(directory_ / "a.zip").size(), 2u);
    EXPECT_EQ(Extract().size(), 1u);
    EXPECT_EQ(ReadFile(directory_.Native("out/harmless")), "x");
    EXPECT_EQ(CountOut(), 1u);
    EXPECT_EQ(directory_.CountEntries(), 2u);
  }
  void ExpectNameRefused(const std::string& name) {
    ExpectRefused({.name = name, .content = "hostile"});
  }
  void ExpectUnreadable(const std::string& bytes) {
    Make(bytes);
    EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre(""));
    EXPECT_THAT(Extract(), ElementsAre(""));
    EXPECT_EQ(CountOut(), 0u);
  }

  TemporaryDirectory directory_;
  KeptArchiveLimits limits_;
};

TEST_F(HostileArchive, CannotClimbOutOfTheDestination) {
  for (const char* name : {"../evil", "..", "a/../../evil", "..\\evil", "a\\..\\..\\evil",
                           "a/../evil", "./../evil", "a/./../evil", "a//evil", ".//evil", "."}) {
    ExpectNameRefused(name);
  }
}

TEST_F(HostileArchive, CannotNameAbsolutePaths) {
  for (const char* name : {"/evil", "\\evil", "//server/share/evil", "\\\\server\\share\\evil",
                           "\\\\?\\C:\\evil", "C:/evil", "C:\\evil", "C:evil", "c:"}) {
    ExpectNameRefused(name);
  }
}

TEST_F(HostileArchive, CannotNameAlternateStreamsAndDevices) {
  for (const char* name : {"file:stream", "file::$DATA", "NUL", "con.txt", "dir/COM1", "lpt9.x.y",
                           "aux .txt", "CONIN$", "CLOCK$", "COM\u00B9"}) {
    ExpectNameRefused(name);
  }
}

TEST_F(HostileArchive, CannotUseNamesThatWindowsChanges) {
  for (const char* name :
       {"dot.", "blank ", "dir./a", "a*", "a?", "a\"", "a<", "a>", "a|b", "a\nb", "a\x01"}) {
    ExpectNameRefused(name);
  }
}

TEST_F(HostileArchive, CannotHideBehindNul) {
  ExpectNameRefused(std::string("good\0evil", 9));
}

TEST_F(HostileArchive, CannotMakeMoreDirectoriesThanTheLimitsCount) {
  std::string deep;
  for (int i = 0; i < 255; ++i) deep += "a/";
  ExpectNameRefused(deep + "b");
  ExpectNameRefused(std::string(4097, 'n'));
  EXPECT_EQ(zip_names::ReasonToRefuse(deep, true), nullptr);
  EXPECT_EQ(zip_names::ReasonToRefuse(std::string(4096, 'n'), true), nullptr);
}

TEST_F(HostileArchive, CannotReplaceItsOwnEntries) {
  for (const char* name : {"Harmless", "HARMLESS", "harmless", "harmless/", "./harmless",
                           "./././Harmless", "harmless/./"}) {
    Make(ZipBuilder().Add("harmless", "x").Add(name, "").Bytes());
    EXPECT_THAT(Extract(), ElementsAre(name));
    EXPECT_EQ(ReadFile(directory_.Native("out/harmless")), "x");
    EXPECT_EQ(CountOut(), 1u);
  }
}

TEST_F(HostileArchive, CannotTakeItsOwnPlace) {
  for (const char* name : {"a.zip", "./a.zip"}) {
    SCOPED_TRACE(name);
    const std::string bytes = ZipBuilder().Add(name, "evil").Add("sub/a.zip", "x").Bytes();
    Make(bytes);
    EXPECT_THAT(ExtractAll(directory_ / "a.zip", directory_ / "."), ElementsAre(name));
    EXPECT_EQ(ReadFile(directory_.Native("a.zip")), bytes);
    EXPECT_EQ(ReadFile(directory_.Native("sub/a.zip")), "x");
  }
}

TEST_F(HostileArchive, CannotTakeItsOwnPlaceWhereCaseDoesNotCount) {
  const std::string bytes = ZipBuilder().Add("A.ZIP", "content").Bytes();
  Make(bytes);
  // Elsewhere that is another file.
  const bool isTheSame = fs::exists(directory_.Native("A.ZIP"));
  EXPECT_EQ(ExtractAll(directory_ / "a.zip", directory_ / ".").size(), isTheSame ? 1u : 0u);
  EXPECT_EQ(ReadFile(directory_.Native("a.zip")), bytes);
}

TEST_F(HostileArchive, CannotTakeItsOwnPlaceFromFurtherUp) {
  const std::string bytes = ZipBuilder().Add("out/\u540D.zip", "evil").Add("out/b", "x").Bytes();
  WriteFile(directory_.Native("out/\u540D.zip"), bytes);
  EXPECT_THAT(ExtractAll(directory_ / "out/\u540D.zip", directory_ / ""),
              ElementsAre("out/\u540D.zip"));
  EXPECT_EQ(ReadFile(directory_.Native("out/\u540D.zip")), bytes);
  EXPECT_EQ(ReadFile(directory_.Native("out/b")), "x");
}

TEST_F(HostileArchive, CannotMakeLinksOrSpecialFiles) {
  for (const uint32_t type : {0120000u, 0010000u, 0020000u, 0060000u, 0140000u}) {
    ExpectRefused({.name = "link", .content = "/etc/passwd", .mode = type | 0777});
  }
}

TEST_F(HostileArchive, CannotPassEncryptedContent) {
  ExpectRefused({.name = "secret", .content = "0123456789abcdef", .flags = 1});
}

TEST_F(HostileArchive, CannotUseUnknownCompression) {
  for (const uint16_t method : {1, 9, 12, 14, 93, 95}) {
    ExpectRefused({.name = "packed", .content = "content", .method = method});
  }
}

TEST_F(HostileArchive, CannotPassAWrongChecksum) {
  for (const uint16_t method : {0, 8}) {
    ExpectRefused({.name = "bad", .content = "content", .method = method, .crcError = 1});
    ExpectRefused(
        {.name = "bad", .content = std::string(9 << 20, 'x'), .method = method, .crcError = 1});
  }
}

TEST_F(HostileArchive, CannotLieAboutSizes) {
  for (const int64_t error : {-1, 1, -50, 1000}) {
    ExpectRefused(
        {.name = "bad", .content = std::string(100, 'x'), .method = 8, .sizeError = error});
  }
  ExpectRefused({.name = "bad",
                 .content = std::string(20 << 20, 'x'),
                 .method = 8,
                 .sizeError = -(10 << 20)});
  ExpectRefused({.name = "bad", .content = std::string(9 << 20, 'x'), .method = 8, .sizeError = 1});
  ExpectRefused({.name = "bad", .content = "content", .sizeError = 1});
}

TEST_F(HostileArchive, CannotPassContentThatIsNotCompressed) {
  ZipRecord stored{.name = "bad", .content = Noise(1000)};
  std::string bytes = ZipBuilder().Add(stored).Bytes();
  // The method in both records.
  bytes[8] = 8;
  bytes[bytes.rfind("PK\1\2") + 10] = 8;
  Make(bytes);
  EXPECT_THAT(Extract(), ElementsAre("bad"));
  EXPECT_EQ(CountOut(), 0u);
}

TEST_F(HostileArchive, CannotHideContentInDirectories) {
  ExpectRefused({.name = "dir/", .content = "content"});
  ExpectRefused({.name = "dir/", .content = "content", .sizeError = -7});
}

TEST_F(HostileArchive, CannotFillTheDiskByItsDeclaredSize) {
  // Four gigabytes of zeros, as it says.
  ZipRecord bomb{.name = "bomb", .content = std::string(1 << 20, '\0'), .method = 8};
  bomb.sizeError = (int64_t{4000} << 20) - (1 << 20);
  ExpectRefused(bomb);
}

TEST_F(HostileArchive, CannotExceedTheLimitsWithManyEntries) {
  ArchiveLimits limits;
  limits.maxBytes = 70 << 20;
  SetArchiveLimits(limits);
  const std::string zeros(30 << 20, '\0');
  ZipBuilder builder;
  for (const char* name : {"a", "b", "c"}) {
    builder.Add({.name = name, .content = zeros, .method = 8});
  }
  Make(builder.Bytes());
  EXPECT_THAT(Extract(), ElementsAre("c"));
  EXPECT_EQ(CountOut(), 2u);
}

TEST(ArchiveLimits, AllowSomeTimesTheArchivesSizeAboveAFloor) {
  constexpr uint64_t kGiB = uint64_t{1} << 30;
  ArchiveLimits limits;
  limits.maxRatio = 200;
  EXPECT_EQ(AllowedBytes(limits, 0), kGiB);
  EXPECT_EQ(AllowedBytes(limits, 1 << 20), kGiB);
  EXPECT_EQ(AllowedBytes(limits, 10 << 20), uint64_t{2000} << 20);
  EXPECT_EQ(AllowedBytes(limits, UINT64_MAX / 2), limits.maxBytes);
  limits.maxBytes = 1000;
  EXPECT_EQ(AllowedBytes(limits, 0), 1000u);
}

TEST_F(HostileArchive, CannotExceedTheLimitOfBytes) {
  ArchiveLimits limits;
  limits.maxBytes = 10;
  SetArchiveLimits(limits);
  Make(ZipBuilder().Add("a", "123456").Add("b", "12345").Add("c", "1234").Bytes());
  EXPECT_THAT(Extract(), ElementsAre("b"));
}

TEST_F(HostileArchive, CannotExceedTheLimitOfEntries) {
  ArchiveLimits limits;
  limits.maxEntries = 2;
  SetArchiveLimits(limits);
  Make(ZipBuilder().Add("a", "").Add("b", "").Bytes());
  EXPECT_THAT(Extract(), IsEmpty());
  fs::remove_all(directory_.Native("out"));
  fs::create_directory(directory_.Native("out"));
  ExpectUnreadable(ZipBuilder().Add("a", "").Add("b", "").Add("c", "").Bytes());
}

TEST_F(HostileArchive, IsUnreadableWhenTruncatedAnywhere) {
  const std::string whole = ZipBuilder().Add("a", "content").Add("b", "more").Bytes();
  for (size_t size = 0; size < whole.size(); ++size) {
    Make(whole.substr(0, size));
    ASSERT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("")) << size;
  }
  for (size_t from = 1; from < whole.size(); ++from) {
    Make(whole.substr(from));
    ASSERT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("")) << from;
  }
}

TEST_F(HostileArchive, IsUnreadableWhenTwoStandBehindEachOther) {
  const std::string first = ZipBuilder().Add("a", "1").Bytes();
  const std::string second = ZipBuilder().Add("b", "2").Bytes();
  ExpectUnreadable(first + second);
  // The second's places corrected, as if the first were a program in front of it.
  std::string corrected = second;
  corrected[corrected.rfind("PK\1\2") + 42] = static_cast<char>(first.size());
  const size_t end = corrected.rfind("PK\5\6");
  corrected[end + 16] = static_cast<char>(corrected[end + 16] + static_cast<char>(first.size()));
  ExpectUnreadable(first + corrected);
}

TEST_F(HostileArchive, IsUnreadableWithSomethingAroundOrBetweenItsEntries) {
  const ZipBuilder builder = ZipBuilder().Add("a", "1");
  ExpectUnreadable("x" + builder.Bytes());
  ExpectUnreadable(builder.Bytes() + "x");
  ExpectUnreadable(builder.Bytes("hidden"));
  ExpectUnreadable(builder.Bytes("", "comment with PK\5\6 in it and more behind"));
}

TEST_F(HostileArchive, IsUnreadableWithManyEndsOfALargeDirectory) {
  const auto withEnds = [](const std::string& end, int count) {
    std::string ends;
    for (int i = 0; i < count; ++i) ends += end;
    return ZipBuilder().Add("ends", ends).Bytes();
  };
  const std::string bySize = "PK\5\6" + LittleEndian(0, 8) + LittleEndian(1 << 20, 8) + "..";
  const std::string byCount = "PK\5\6" + LittleEndian(0, 4) + LittleEndian(0xFFFFFFFF, 14);
  const std::string zip64 = "PK\6\7" + LittleEndian(0, 16) + "PK\5\6" + LittleEndian(0, 18);
  for (const std::string& end : {bySize, byCount, zip64}) {
    ExpectUnreadable(withEnds(end, 9));
    ExpectUnreadable(withEnds(end, 1000));
    Make(withEnds(end, 8));
    EXPECT_THAT(NamesIn(directory_ / "a.zip"), ElementsAre("ends"));
  }
}

TEST_F(HostileArchive, IsUnreadableWhenEntriesOverlap) {
  std::string bytes = ZipBuilder().Add("a", "1").Add("a", "1").Bytes();
  // The second entry is told to stand where the first does.
  bytes[bytes.rfind("PK\1\2") + 42] = 0;
  ExpectUnreadable(bytes);
}

TEST_F(HostileArchive, IsUnreadableWhenItsRecordsDisagree) {
  std::string bytes = ZipBuilder().Add("good", "1").Bytes();
  bytes[bytes.find("good")] = 'f';
  ExpectUnreadable(bytes);
}

TEST_F(HostileArchive, NeverBreaksTheReaderWhateverByteIsChanged) {
  ZipRecord packed{.name = "dir/b", .content = std::string(300, 'b'), .method = 8};
  const std::string whole = ZipBuilder().Add("a", "content").Add(packed).Bytes();
  for (size_t i = 0; i < whole.size(); ++i) {
    std::string bytes = whole;
    bytes[i] = static_cast<char>(bytes[i] ^ 0x55);
    Make(bytes);
    Extract();
    EXPECT_EQ(directory_.CountEntries(), 2u) << i;
  }
}

TEST_F(HostileArchive, LeavesOlderFilesAlone) {
  WriteFile(directory_.Native("out/bad"), "older");
  Make(ZipBuilder().Add({.name = "bad", .content = "content", .crcError = 1}).Bytes());
  EXPECT_THAT(Extract(), ElementsAre("bad"));
  EXPECT_EQ(ReadFile(directory_.Native("out/bad")), "older");
  EXPECT_EQ(CountOut(), 1u);
}

TEST_F(HostileArchive, CannotTakeThePlaceOfADirectory) {
  fs::create_directory(directory_.Native("out/dir"));
  WriteFile(directory_.Native("out/file"), "older");
  Make(ZipBuilder().Add("dir", "content").Add("file/below", "content").Bytes());
  EXPECT_THAT(Extract(), ElementsAre("dir", "file/below"));
  EXPECT_EQ(ReadFile(directory_.Native("out/file")), "older");
  EXPECT_EQ(CountOut(), 2u);
}

}  // namespace
