#include <algorithm>
#include <climits>
#include <random>
#include <string>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

using ::testing::AllOf;
using ::testing::Each;
using ::testing::SizeIs;

constexpr uint32_t kHidden = 2;
constexpr uint32_t kSystem = 4;
constexpr uint32_t kDirectory = 16;
constexpr uint32_t kNormal = 128;

/// What the host tells of one entry.
struct Listed {
  std::string name;
  uint32_t attributes = kNormal;
  int64_t size = 0;
  uint32_t time = 0;
  uint32_t mode = 0;
  int isText = 0;
  /// As the directory itself tells them.
  uint32_t directoryAttributes = 0;

  bool IsFile() const { return (attributes & kDirectory) == 0; }
};

ZelContainer ListParameters(const char* path) {
  return Texts({{"Path", path}, {"DACurrentConsoleUser", "maria"}});
}

ZelContainer Page(int32_t offset, int32_t count) {
  ZelContainer params = ListParameters("C:/d/");
  params.SetInt32("Offset", offset, kNoIndex);
  params.SetInt32("Count", count, kNoIndex);
  return params;
}

ZelContainer Ordered(const char* column, const char* direction) {
  ZelContainer params = ListParameters("C:/d/");
  params.SetString("SortAttr", column, kNoIndex);
  params.SetString("SortOrder", direction, kNoIndex);
  return params;
}

class GetDirList : public ModuleTest {
 protected:
  void Script(const std::vector<Listed>& entries, bool withDetails = true) {
    std::vector<FakeHost::DirectoryEntry> found;
    for (const Listed& entry : entries) {
      found.push_back({ZelString(entry.name), entry.directoryAttributes});
    }
    AnswerVerdict(host, kReadable);
    host.AnswerDirectory(std::move(found));
    for (const Listed& entry : entries) ScriptEntry(entry, withDetails);
  }

  void ScriptEntry(const Listed& entry, bool withDetails) {
    host.Answer("FileGetAttributes", entry.attributes);
    host.Answer("FileGetAttributes", entry.attributes);
    if (!withDetails) return;
    if (entry.IsFile()) host.Answer("FileGetSize64", entry.size);
    host.Answer("FileGetWriteTime", entry.time);
    host.Answer("FileGetMode", entry.mode);
    host.Answer("FileIsAscii", entry.isText);
  }

  /// Lists and gives the rows; the code must be success.
  std::vector<ZelContainer> Rows(ZelContainer params) {
    for (const FakeHost::Registration& row : host.Registrations()) {
      if (!row.signature.starts_with("CoreUtilsGetDirList ")) continue;
      EXPECT_EQ(row.handler(&params), kSuccess);
    }
    std::vector<ZelContainer> rows;
    ZelContainer row;
    while (params.GetContainer("Values", &row, static_cast<uint32_t>(rows.size()))) {
      rows.push_back(row);
    }
    total = -1;
    params.GetInt32("Total", &total, kNoIndex);
    return rows;
  }

  std::vector<std::string> Names(const ZelContainer& params) {
    std::vector<std::string> names;
    for (const ZelContainer& row : Rows(params)) {
      names.emplace_back(ReadString(row, "Name").Utf8());
    }
    return names;
  }

  /// `Total` of the last listing; -1 when there was none.
  int32_t total = -1;
};

std::vector<Listed> Numbered(int count) {
  std::vector<Listed> entries;
  for (int i = 0; i < count; ++i) entries.push_back({.name = std::to_string(i)});
  return entries;
}

// ---- Gathering ----

TEST_F(GetDirList, AsksForEveryEntryInThisOrder) {
  Script({{.name = "a.txt", .size = 5, .time = 1000, .mode = 0100644, .isText = 1},
          {.name = "sub", .attributes = kDirectory, .time = 2000, .mode = 040755}});

  EXPECT_EQ(Run("CoreUtilsGetDirList", ListParameters("C:\\d")),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"sub\", IsDirectory: Bool true, Size: Int64 0, "
                     "ModifyDate: Int32 2000, Mode: Int32 16877, IsText: Bool false, "
                     "IsHidden: Bool false}, {Name: String \"a.txt\", IsDirectory: Bool false, "
                     "Size: Int64 5, ModifyDate: Int32 1000, Mode: Int32 33188, IsText: Bool true, "
                     "IsHidden: Bool false}]}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(PrivacyCheck("C:/d/", "maria", "Read"), "OpenDirectory(\"C:/d/\")",
                          "ReadDirectory", "FileGetAttributes(\"C:/d/a.txt\")",
                          "FileGetAttributes(\"C:/d/a.txt\")", "FileGetSize64(\"C:/d/a.txt\")",
                          "FileGetWriteTime(\"C:/d/a.txt\")", "FileGetMode(\"C:/d/a.txt\")",
                          "FileIsAscii(\"C:/d/a.txt\")", "ReadDirectory",
                          "FileGetAttributes(\"C:/d/sub\")", "FileGetAttributes(\"C:/d/sub\")",
                          "FileGetWriteTime(\"C:/d/sub\")", "FileGetMode(\"C:/d/sub\")",
                          "FileIsAscii(\"C:/d/sub\")", "ReadDirectory", "CloseDirectory"));
}

TEST_F(GetDirList, GathersNamesAloneWithoutParameters) {
  Script({{.name = "b"}, {.name = "a", .attributes = kDirectory}}, false);
  ZelContainer params = ListParameters("C:/d/");
  params.SetBool("Parameters", false, kNoIndex);

  EXPECT_EQ(Run("CoreUtilsGetDirList", params),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"a\", IsDirectory: Bool true}, "
                     "{Name: String \"b\", IsDirectory: Bool false}]}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(PrivacyCheck("C:/d/", "maria", "Read"), "OpenDirectory(\"C:/d/\")",
                  "ReadDirectory", "FileGetAttributes(\"C:/d/b\")", "FileGetAttributes(\"C:/d/b\")",
                  "ReadDirectory", "FileGetAttributes(\"C:/d/a\")", "FileGetAttributes(\"C:/d/a\")",
                  "ReadDirectory", "CloseDirectory"));
}

TEST_F(GetDirList, OrdersByNameWhereNoDetailsWereGathered) {
  for (const char* column : {"_COLNAME_SIZE_", "_COLNAME_ACCESS_", "_COLNAME_MODIFIED_"}) {
    Script({{.name = "b"}, {.name = "c"}, {.name = "a"}}, false);
    ZelContainer params = Ordered(column, "Desc");
    params.SetBool("Parameters", false, kNoIndex);

    EXPECT_THAT(Names(params), ElementsAre("c", "b", "a"));
  }
}

TEST_F(GetDirList, EndsThePathInOneSlash) {
  const std::pair<const char*, const char*> paths[] = {
      {"C:\\Temp", "C:/Temp/"},
      {"C:\\Temp\\", "C:/Temp/"},
      {"C:/Temp/", "C:/Temp/"},
      {"\\\\host\\s", "//host/s/"},
      {"/", "/"},
      {"", "/"},
  };
  for (const auto& [path, listed] : paths) {
    host.ForgetTranscript();
    AnswerVerdict(host, kReadable);
    host.AnswerDirectory({});

    EXPECT_EQ(Run("CoreUtilsGetDirList", ListParameters(path)), (Outcome{kSuccess, "{}"}));

    EXPECT_THAT(host.Transcript(), ElementsAre(PrivacyCheck(listed, "maria", "Read"),
                                               "OpenDirectory(\"" + std::string(listed) + "\")",
                                               "ReadDirectory", "CloseDirectory"));
  }
}

TEST_F(GetDirList, IsRefusedWithoutThePermissionToRead) {
  AnswerVerdict(host, kForbidden);

  EXPECT_EQ(Run("CoreUtilsGetDirList", Page(0, 10)), (Outcome{kAccessRefused, "{}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre(PrivacyCheck("C:/d/", "maria", "Read")));
}

TEST_F(GetDirList, IsRefusedWhenThePolicyCannotBeAsked) {
  host.AnswerInvocation(kInvokeUnknownAction);

  EXPECT_EQ(Run("CoreUtilsGetDirList", Page(0, 10)), (Outcome{kAccessRefused, "{}"}));
}

TEST_F(GetDirList, TakesTheParametersOutBeforeItsFirstCallAndAnswersAfterItsLast) {
  Script({{.name = "a", .size = 5}});

  EXPECT_THAT(KeysAtEachCall("CoreUtilsGetDirList", Page(0, 10)), AllOf(SizeIs(11), Each(0)));
}

TEST_F(GetDirList, ReadsAbsentParametersAsTheRootOfAllWithDetails) {
  AnswerVerdict(host, kReadable);
  host.AnswerDirectory({{"a", 0}});
  ScriptEntry({.name = "a", .size = 5}, true);

  EXPECT_EQ(Run("CoreUtilsGetDirList", {}),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"a\", IsDirectory: Bool false, Size: Int64 5, "
                     "ModifyDate: Int32 0, Mode: Int32 0, IsText: Bool false, "
                     "IsHidden: Bool false}]}"}));

  EXPECT_EQ(host.Transcript()[0], PrivacyCheck("/", "", "Read"));
}

TEST_F(GetDirList, TakesParametersOfOtherTypesForAbsent) {
  std::vector<ZelContainer> odd = ListsAndNumbers(
      {"Path", "DACurrentConsoleUser", "SortAttr", "SortOrder", "Parameters", "Offset", "Count"});
  odd[1].SetBool("Offset", true, kNoIndex);
  odd[1].SetBool("Count", true, kNoIndex);
  for (const ZelContainer& params : odd) {
    host.ForgetTranscript();
    Script({{.name = "b", .size = 1}, {.name = "a", .size = 2}});

    EXPECT_THAT(Names(params), ElementsAre("a", "b"));

    EXPECT_EQ(total, -1);
    EXPECT_EQ(host.Transcript()[0], PrivacyCheck("/", "", "Read"));
  }
}

TEST_F(GetDirList, AsksNoPrivacyPolicyAboutUrls) {
  host.Answer("OpenDirectory", 0);

  EXPECT_EQ(Run("CoreUtilsGetDirList", ListParameters("http://files.example\\d")),
            (Outcome{kFailure, "{}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre("OpenDirectory(\"http://files.example/d/\")"));
}

TEST_F(GetDirList, FailsWhenTheDirectoryCannotBeOpened) {
  AnswerVerdict(host, kReadable);
  host.Answer("OpenDirectory", 0);

  EXPECT_EQ(Run("CoreUtilsGetDirList", Page(0, 10)), (Outcome{kFailure, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(PrivacyCheck("C:/d/", "maria", "Read"), "OpenDirectory(\"C:/d/\")"));
}

TEST_F(GetDirList, LeavesOutItselfItsParentAndTheVolumesFolder) {
  AnswerVerdict(host, kReadable);
  host.AnswerDirectory({{".", kDirectory},
                        {"..", kDirectory},
                        {"System Volume Information", kDirectory},
                        {"system volume information", kDirectory},
                        {"...", 0},
                        {".a", 0}});
  for (int i = 0; i < 3; ++i) ScriptEntry({}, true);

  EXPECT_THAT(Names(ListParameters("C:/d")), ElementsAre("...", ".a", "system volume information"));
}

TEST_F(GetDirList, ListsNamesThatOnlyContainTheVolumesFolder) {
  Script({{.name = "My System Volume Information"}, {.name = "System Volume Information 2"}});

  EXPECT_THAT(Names(ListParameters("C:/d")),
              ElementsAre("My System Volume Information", "System Volume Information 2"));
}

TEST_F(GetDirList, TakesEntriesWithoutAttributesForDirectoriesUnlessTheyEndInSys) {
  constexpr uint32_t kNoAttributes = 0xFFFFFFFF;
  Script({{.name = "gone.sys", .attributes = kNoAttributes},
          {.name = "gone", .attributes = kNoAttributes}},
         false);
  ZelContainer params = ListParameters("C:/d");
  params.SetBool("Parameters", false, kNoIndex);

  EXPECT_EQ(Run("CoreUtilsGetDirList", params),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"gone\", IsDirectory: Bool true}, "
                     "{Name: String \"gone.sys\", IsDirectory: Bool false}]}"}));
}

TEST_F(GetDirList, TakesSystemFilesThatLookLikeDirectoriesForFiles) {
  const uint32_t both = kSystem | kDirectory;
  AnswerVerdict(host, kReadable);
  host.AnswerDirectory(
      {{"pagefile.sys", 0}, {"HIBER.SYS", 0}, {"a.sysx", 0}, {"b.sys", 0}, {"c.sys", 0}});
  ZelContainer params = ListParameters("C:/d");
  params.SetBool("Parameters", false, kNoIndex);
  // A directory has any attribute but that of the system, a file any but that of directories.
  for (const uint32_t attributes : {both, both, both, ~kSystem, ~kDirectory}) {
    host.Answer("FileGetAttributes", attributes);
    host.Answer("FileGetAttributes", attributes);
  }

  const std::vector<ZelContainer> rows = Rows(params);

  ASSERT_EQ(rows.size(), 5u);
  const std::pair<const char*, bool> expected[] = {{"a.sysx", true},
                                                   {"b.sys", true},
                                                   {"HIBER.SYS", false},
                                                   {"c.sys", false},
                                                   {"pagefile.sys", false}};
  for (size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(ReadString(rows[i], "Name"), expected[i].first);
    EXPECT_EQ(ReadBool(rows[i], "IsDirectory"), expected[i].second) << expected[i].first;
  }
}

TEST_F(GetDirList, TellsTheSizeOfASystemFileThatLooksLikeADirectory) {
  AnswerVerdict(host, kReadable);
  host.AnswerDirectory({{"pagefile.sys", kHidden | kSystem}});
  for (int i = 0; i < 2; ++i) host.Answer("FileGetAttributes", kSystem | kDirectory);
  host.Answer("FileGetSize64", 1LL << 33);
  host.Answer("FileGetWriteTime", 7);
  host.Answer("FileGetMode", 0);
  host.Answer("FileIsAscii", 0);

  EXPECT_EQ(Run("CoreUtilsGetDirList", ListParameters("C:/")),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"pagefile.sys\", IsDirectory: Bool false, "
                     "Size: Int64 8589934592, ModifyDate: Int32 7, Mode: Int32 0, "
                     "IsText: Bool false, IsHidden: Bool true}]}"}));
}

TEST_F(GetDirList, LooksAtTheSecondAnswerForTheSystemBit) {
  AnswerVerdict(host, kReadable);
  host.AnswerDirectory({{"a.sys", 0}, {"b.sys", 0}});
  for (const uint32_t attributes : {kDirectory, kSystem, kDirectory | kSystem, 0U}) {
    host.Answer("FileGetAttributes", attributes);
  }
  ZelContainer params = ListParameters("C:/d");
  params.SetBool("Parameters", false, kNoIndex);

  const std::vector<ZelContainer> rows = Rows(params);

  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(ReadString(rows[0], "Name"), "b.sys");
  EXPECT_EQ(ReadString(rows[1], "Name"), "a.sys");
}

TEST_F(GetDirList, LooksAtOneAttributeForEachQuestion) {
  constexpr uint32_t kAll = 0xFFFFFFFF;
  Script({{.name = "a", .attributes = kAll & ~kDirectory, .directoryAttributes = kAll & ~kHidden},
          {.name = "b.sys", .attributes = kAll & ~kSystem}});

  const std::vector<ZelContainer> rows = Rows(ListParameters("C:/d"));

  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(ReadString(rows[0], "Name"), "b.sys");
  EXPECT_TRUE(ReadBool(rows[0], "IsDirectory"));
  EXPECT_FALSE(ReadBool(rows[1], "IsDirectory"));
  EXPECT_FALSE(ReadBool(rows[1], "IsHidden"));
}

TEST_F(GetDirList, TakesSizesAndTimesThatCannotBeToldForZero) {
  Script({{.name = "a", .size = -1, .time = 0xFFFFFFFF, .mode = 0xFFFFFFFF}});

  EXPECT_EQ(Run("CoreUtilsGetDirList", ListParameters("C:/d")),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"a\", IsDirectory: Bool false, "
                     "Size: Int64 0, ModifyDate: Int32 0, Mode: Int32 -1, "
                     "IsText: Bool false, IsHidden: Bool false}]}"}));
}

TEST_F(GetDirList, PassesLargeSizesAndLateTimesOn) {
  Script({{.name = "a", .size = 1LL << 40, .time = 0xFFFFFFFE, .isText = 7}});

  EXPECT_EQ(Run("CoreUtilsGetDirList", ListParameters("C:/d")),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"a\", IsDirectory: Bool false, "
                     "Size: Int64 1099511627776, ModifyDate: Int32 -2, Mode: Int32 0, "
                     "IsText: Bool true, IsHidden: Bool false}]}"}));
}

TEST_F(GetDirList, AsksTheDirectoryWhatIsHidden) {
  Script({{.name = "a", .attributes = kHidden, .directoryAttributes = ~kHidden},
          {.name = "b", .attributes = kNormal, .directoryAttributes = kHidden | kSystem}});

  const std::vector<ZelContainer> rows = Rows(ListParameters("C:/d"));

  ASSERT_EQ(rows.size(), 2u);
  EXPECT_FALSE(ReadBool(rows[0], "IsHidden"));
  EXPECT_TRUE(ReadBool(rows[1], "IsHidden"));
}

TEST_F(GetDirList, KeepsNamesThatAreNoValidText) {
  const std::string odd = "a\xED\xB3\xBF\n%S";
  Script({{.name = odd}});

  EXPECT_THAT(Names(ListParameters("C:/d")), ElementsAre(odd));
}

// ---- Order ----

TEST_F(GetDirList, PutsDirectoriesFirstInBothDirections) {
  for (const char* direction : {"Asc", "Desc"}) {
    Script({{.name = "a"}, {.name = "z", .attributes = kDirectory}, {.name = "m"}});
    EXPECT_EQ(Names(Ordered("_COLNAME_FILE_", direction)).front(), "z") << direction;
  }
}

TEST_F(GetDirList, OrdersByNameUnlessAColumnIsNamed) {
  const std::vector<Listed> entries = {{.name = "b", .size = 1, .time = 1, .mode = 1},
                                       {.name = "B", .size = 3, .time = 3, .mode = 3},
                                       {.name = "a", .size = 2, .time = 2, .mode = 2}};
  for (const char* column : {"", "_COLNAME_FILE_", "_colname_size_", "Size", "_COLNAME_SIZE_ "}) {
    Script(entries);
    EXPECT_THAT(Names(Ordered(column, "")), ElementsAre("B", "a", "b")) << column;
  }
}

TEST_F(GetDirList, OrdersByTheNamedColumn) {
  const std::vector<Listed> entries = {
      {.name = "a", .size = 2, .time = 0x80000000, .mode = 1},
      {.name = "b", .size = 1LL << 40, .time = 1, .mode = 0x80000000},
      {.name = "c", .size = 1, .time = 2, .mode = 2}};
  const std::pair<const char*, std::vector<std::string>> orders[] = {
      {"_COLNAME_SIZE_", {"c", "a", "b"}},
      {"_COLNAME_ACCESS_", {"a", "c", "b"}},
      {"_COLNAME_MODIFIED_", {"b", "c", "a"}},
  };
  for (const auto& [column, order] : orders) {
    Script(entries);
    EXPECT_EQ(Names(Ordered(column, "Asc")), order) << column;
    Script(entries);
    EXPECT_EQ(Names(Ordered(column, "Desc")), std::vector(order.rbegin(), order.rend())) << column;
  }
}

TEST_F(GetDirList, OrdersSizesAsSignedNumbers) {
  const std::vector<Listed> entries = {
      {.name = "a", .size = 5}, {.name = "b", .size = -2}, {.name = "c", .size = -1}};
  Script(entries);
  const std::vector<ZelContainer> rows = Rows(Ordered("_COLNAME_SIZE_", "Asc"));

  const std::pair<const char*, int64_t> expected[] = {{"b", -2}, {"c", 0}, {"a", 5}};
  ASSERT_EQ(rows.size(), std::size(expected));
  for (size_t i = 0; i < rows.size(); ++i) {
    int64_t size = INT_MAX;
    rows[i].GetInt64("Size", &size, kNoIndex);
    EXPECT_EQ(ReadString(rows[i], "Name"), expected[i].first);
    EXPECT_EQ(size, expected[i].second) << expected[i].first;
  }

  Script(entries);
  EXPECT_THAT(Names(Ordered("_COLNAME_SIZE_", "Desc")), ElementsAre("a", "c", "b"));
}

TEST_F(GetDirList, SettlesTiesByNameInTheSameDirection) {
  const std::vector<Listed> entries = {{.name = "d", .attributes = kDirectory},
                                       {.name = "b", .size = 5},
                                       {.name = "c", .size = 5},
                                       {.name = "e", .attributes = kDirectory},
                                       {.name = "a", .size = 9}};
  Script(entries);
  EXPECT_THAT(Names(Ordered("_COLNAME_SIZE_", "Desc")), ElementsAre("e", "d", "a", "c", "b"));
  Script(entries);
  EXPECT_THAT(Names(Ordered("_COLNAME_SIZE_", "Asc")), ElementsAre("d", "e", "b", "c", "a"));
}

TEST_F(GetDirList, TakesEveryDirectionButAscForDescending) {
  const std::pair<const char*, bool> directions[] = {
      {"", true},      {"Asc", true}, {"asc", false},  {"ASC", false},       {"Desc", false},
      {"desc", false}, {"up", false}, {" Asc", false}, {"Ascending", false},
  };
  for (const auto& [direction, isAscending] : directions) {
    Script({{.name = "a"}, {.name = "b"}});
    EXPECT_EQ(Names(Ordered("", direction)).front(), isAscending ? "a" : "b") << direction;
  }
}

/// The order that consoles know, put down as plainly as possible.
class PlainSort {
 public:
  PlainSort(std::vector<Listed> entries, std::string column, bool isAscending)
      : entries_(std::move(entries)), column_(std::move(column)), isAscending_(isAscending) {
    if (!entries_.empty()) Sort(0, entries_.size() - 1);
  }
  const std::vector<Listed>& Entries() const { return entries_; }

 private:
  int64_t Number(const Listed& entry) const {
    if (column_ == "_COLNAME_SIZE_") return entry.IsFile() ? entry.size : 0;
    if (column_ == "_COLNAME_ACCESS_") return entry.mode;
    return column_ == "_COLNAME_MODIFIED_" ? entry.time : 0;
  }
  bool GoesBefore(const Listed& a, const Listed& b) const {
    if (a.IsFile() != b.IsFile()) return b.IsFile();
    if (Number(a) < Number(b)) return isAscending_;
    if (Number(a) > Number(b)) return !isAscending_;
    return a.name < b.name ? isAscending_ : !isAscending_;
  }
  void Sort(size_t left, size_t right) {
    if (left >= right) return;
    std::swap(entries_[left], entries_[(left + right) / 2]);
    size_t last = left;
    for (size_t i = left + 1; i <= right; ++i) {
      if (!GoesBefore(entries_[i], entries_[left])) continue;
      ++last;
      std::swap(entries_[last], entries_[i]);
    }
    std::swap(entries_[left], entries_[last]);
    if (last > left) Sort(left, last - 1);
    Sort(last + 1, right);
  }

  std::vector<Listed> entries_;
  std::string column_;
  bool isAscending_;
};

TEST_F(GetDirList, LeavesEntriesOfEqualNameAsTheQuicksortDoes) {
  std::mt19937 random(1);
  const auto below = [&](uint32_t limit) { return static_cast<int>(random() % limit); };
  for (int round = 0; round < 600; ++round) {
    std::vector<Listed> entries;
    for (int count = below(24); count > 0; --count) {
      entries.push_back({.name = std::string(1, static_cast<char>('a' + below(4))),
                         .attributes = below(4) ? kNormal : kDirectory,
                         .size = below(3),
                         .time = static_cast<uint32_t>(below(3)),
                         .mode = static_cast<uint32_t>(below(3)),
                         // Tells entries of equal name apart.
                         .isText = below(2),
                         .directoryAttributes = below(2) ? kHidden : 0});
    }
    for (const char* column :
         {"_COLNAME_FILE_", "_COLNAME_SIZE_", "_COLNAME_ACCESS_", "_COLNAME_MODIFIED_"}) {
      for (const char* direction : {"Asc", "Desc"}) {
        const PlainSort model(entries, column, std::string(direction) == "Asc");
        Script(entries);

        const std::vector<ZelContainer> rows = Rows(Ordered(column, direction));

        ASSERT_EQ(rows.size(), entries.size());
        for (size_t i = 0; i < rows.size(); ++i) {
          const Listed& expected = model.Entries()[i];
          uint32_t time = 0, mode = 0;
          rows[i].GetInt32("ModifyDate", &time, kNoIndex);
          rows[i].GetInt32("Mode", &mode, kNoIndex);
          ASSERT_EQ(ReadString(rows[i], "Name"), expected.name);
          ASSERT_EQ(time, expected.time);
          ASSERT_EQ(mode, expected.mode);
          ASSERT_EQ(ReadBool(rows[i], "IsText"), expected.isText != 0);
          ASSERT_EQ(ReadBool(rows[i], "IsHidden"), expected.directoryAttributes != 0);
        }
      }
    }
  }
}

/// Numbers for `count` entries that make each middle element the smallest (or largest) of its part.
std::vector<int> LopsidedNumbers(int count, bool smallestFirst) {
  std::vector<int> positions, numbers;
  for (int i = 0; i < count; ++i) positions.push_back(i);
  numbers.resize(positions.size());
  for (int done = 0; done < count; ++done) {
    const size_t left = smallestFirst ? static_cast<size_t>(done) : 0;
    const size_t right = static_cast<size_t>(smallestFirst ? count - 1 : count - 1 - done);
    const size_t middle = (left + right) / 2;
    std::swap(positions[left], positions[middle]);
    numbers[static_cast<size_t>(positions[left])] = smallestFirst ? done : count - 1 - done;
    // The largest ends up at the right of its part.
    if (!smallestFirst) std::swap(positions[left], positions[right]);
  }
  return numbers;
}

std::string SevenDigits(int number) {
  const std::string digits = std::to_string(number);
  return std::string(7 - digits.size(), '0') + digits;
}

TEST_F(GetDirList, SortsNamesMadeToDefeatTheSort) {
  constexpr int kCount = 1000;
  host.AnswerAlways("FileGetAttributes", kNormal);
  for (const bool smallestFirst : {true, false}) {
    for (const bool isAscending : {true, false}) {
      std::vector<FakeHost::DirectoryEntry> entries;
      std::vector<std::string> expected;
      for (const int number : LopsidedNumbers(kCount, smallestFirst)) {
        entries.push_back({ZelString(SevenDigits(number)), 0});
        expected.push_back(SevenDigits(number));
      }
      std::sort(expected.begin(), expected.end());
      if (!isAscending) std::reverse(expected.begin(), expected.end());
      AnswerVerdict(host, kReadable);
      host.AnswerDirectory(std::move(entries));
      ZelContainer params = Ordered("", isAscending ? "Asc" : "Desc");
      params.SetBool("Parameters", false, kNoIndex);

      EXPECT_EQ(Names(params), expected) << smallestFirst << isAscending;
    }
  }
}

TEST_F(GetDirList, StaysQuickForNamesMadeToDefeatTheSort) {
  constexpr int kCount = 100000;
  host.AnswerAlways("FileGetAttributes", kNormal);
  for (const bool smallestFirst : {true, false}) {
    std::vector<FakeHost::DirectoryEntry> entries;
    for (const int number : LopsidedNumbers(kCount, smallestFirst)) {
      entries.push_back({ZelString(SevenDigits(number)), 0});
    }
    AnswerVerdict(host, kReadable);
    host.AnswerDirectory(std::move(entries));
    ZelContainer params = ListParameters("C:/d");
    params.SetBool("Parameters", false, kNoIndex);

    const std::vector<std::string> names = Names(params);

    ASSERT_EQ(names.size(), static_cast<size_t>(kCount));
    for (int i = 0; i < kCount; ++i) ASSERT_EQ(names[static_cast<size_t>(i)], SevenDigits(i));
  }
}

TEST_F(GetDirList, StaysQuickForNamesThatAreAllEqual) {
  constexpr size_t kCount = 100000;
  host.AnswerAlways("FileGetAttributes", kNormal);
  for (const char* direction : {"Asc", "Desc"}) {
    AnswerVerdict(host, kReadable);
    host.AnswerDirectory(std::vector<FakeHost::DirectoryEntry>(kCount, {"same", 0}));
    ZelContainer params = Ordered("", direction);
    params.SetBool("Parameters", false, kNoIndex);
    params.SetInt32("Count", 3, kNoIndex);

    EXPECT_THAT(Names(params), ElementsAre("same", "same", "same"));
    EXPECT_EQ(total, static_cast<int32_t>(kCount));
  }
}

// ---- Pages ----

TEST_F(GetDirList, TellsTheTotalOfAnEmptyDirectoryWithoutRows) {
  Script({});
  EXPECT_EQ(Run("CoreUtilsGetDirList", Page(0, 10)), (Outcome{kSuccess, "{Total: Int32 0}"}));
}

TEST_F(GetDirList, NumbersTheRowsOfAPageFromZero) {
  Script(Numbered(8));
  EXPECT_THAT(Names(Page(5, 10)), ElementsAre("5", "6", "7"));
  EXPECT_EQ(total, 8);
}

TEST_F(GetDirList, TakesCountZeroForAllWithoutATotal) {
  Script(Numbered(4));
  EXPECT_THAT(Names(Page(0, 0)), ElementsAre("0", "1", "2", "3"));
  EXPECT_EQ(total, -1);
  Script(Numbered(4));
  EXPECT_THAT(Names(Page(3, 0)), ElementsAre("3"));
}

TEST_F(GetDirList, AnswersNoRowsForAnOffsetBeyondTheTotal) {
  for (const int32_t offset : {4, 5, INT_MAX}) {
    for (const int32_t count : {0, 1, INT_MAX}) {
      Script(Numbered(4));
      EXPECT_THAT(Names(Page(offset, count)), IsEmpty()) << offset << " " << count;
      EXPECT_EQ(total, count == 0 ? -1 : 4);
    }
  }
}

TEST_F(GetDirList, StartsAtTheFirstRowForANegativeOffset) {
  Script(Numbered(4));
  EXPECT_THAT(Names(Page(-2, 4)), ElementsAre("0", "1"));
  Script(Numbered(4));
  EXPECT_THAT(Names(Page(-1, 0)), ElementsAre("0", "1", "2", "3"));
  Script(Numbered(4));
  EXPECT_THAT(Names(Page(INT_MIN, 0)), ElementsAre("0", "1", "2", "3"));
  Script(Numbered(4));
  EXPECT_THAT(Names(Page(-1, INT_MAX)), ElementsAre("0", "1", "2", "3"));
}

TEST_F(GetDirList, AnswersNoRowsForANegativeCount) {
  for (const int32_t offset : {INT_MIN, -1, 0, 2, INT_MAX}) {
    for (const int32_t count : {-1, INT_MIN}) {
      Script(Numbered(4));
      EXPECT_THAT(Names(Page(offset, count)), IsEmpty()) << offset << " " << count;
      EXPECT_EQ(total, 4);
    }
  }
  Script(Numbered(4));
  EXPECT_THAT(Names(Page(INT_MIN, INT_MAX)), IsEmpty());
}

TEST_F(GetDirList, TellsTheTotalBesideTheRows) {
  Script(Numbered(3), false);
  ZelContainer params = Page(1, 1);
  params.SetBool("Parameters", false, kNoIndex);

  EXPECT_EQ(Run("CoreUtilsGetDirList", params),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"1\", IsDirectory: Bool false}], "
                     "Total: Int32 3}"}));
}

TEST_F(GetDirList, TakesAPageInTextsForAbsent) {
  Script(Numbered(3));
  ZelContainer params = ListParameters("C:/d/");
  params.SetString("Offset", "1", kNoIndex);
  params.SetString("Count", "1", kNoIndex);

  EXPECT_THAT(Names(params), ElementsAre("0", "1", "2"));
  EXPECT_EQ(total, -1);
}

TEST_F(GetDirList, GathersDetailsWhenParametersIsAText) {
  for (const char* text : {"false", "0", ""}) {
    Script({{.name = "a", .size = 5}});
    ZelContainer params = ListParameters("C:/d/");
    params.SetString("Parameters", text, kNoIndex);

    EXPECT_EQ(Run("CoreUtilsGetDirList", params),
              (Outcome{kSuccess,
                       "{Values: [{Name: String \"a\", IsDirectory: Bool false, Size: Int64 5, "
                       "ModifyDate: Int32 0, Mode: Int32 0, IsText: Bool false, "
                       "IsHidden: Bool false}]}"}))
        << text;
  }
}

TEST_F(GetDirList, DropsParametersAndRowsThatWereSentIn) {
  Script(Numbered(1), false);
  ZelContainer params = ListParameters("C:/d/");
  params.SetBool("Parameters", false, kNoIndex);
  params.SetContainer("Values", Texts({{"Name", "mine"}}), 0);
  params.SetContainer("Values", Texts({{"Name", "mine too"}}), 1);
  params.SetInt32("Total", 7, kNoIndex);

  EXPECT_EQ(Run("CoreUtilsGetDirList", params),
            (Outcome{kSuccess, "{Values: [{Name: String \"0\", IsDirectory: Bool false}]}"}));
}

}  // namespace
