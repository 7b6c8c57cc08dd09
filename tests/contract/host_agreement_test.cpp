// The same calls with the same answers, once against the fake host and once against the real
// libraries on real files: what the contract tests script is what the host says.

#include "tests/contract/host_agreement.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "libZel.h"
#include "libZelMarlin.h"
#include "windows_api.h"

namespace {

namespace fs = std::filesystem;
using namespace std::literals;

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
  static void ExpectAnswer(const char* function, int64_t answer, Call call) {
    ScriptAnswer(function, answer);
    EXPECT_EQ(static_cast<int64_t>(call()), answer) << function;
  }
  /// Separators may be the platform's.
  template <typename Call>
  static void ExpectList(const std::vector<std::string>& paths, Call call) {
    ScriptList("DirListFiles", paths);
    std::vector<std::string> found;
    for (const ZelString& path : call()) found.push_back(fs::path(path.Utf8()).generic_string());
    EXPECT_EQ(found, paths);
  }
  /// For errors whose number is the system's.
  template <typename Call>
  static void ExpectError(const char* function, Call call) {
    ScriptAnswer(function, -1);
    EXPECT_NE(call(), 0) << function;
  }
  void ExpectDigest(const std::string& digest, const std::string& name) {
    ScriptText("FileMd5", digest);
    EXPECT_EQ(FileMd5(In(name)), digest);
  }
  /// A handle of the host under test; `handle` is what the fake makes of it.
  static int Scripted(const char* function, int handle, int (*call)(const ZelString&, int),
                      const ZelString& path) {
    ScriptAnswer(function, handle);
    return call(path, 0);
  }
  int Open(const std::string& name) const { return Scripted("FileOpen", 7, FileOpen, In(name)); }
  int Create(const std::string& name) const {
    return Scripted("FileCreate", 8, FileCreate, In(name));
  }
  static void ExpectEntry(const IniFile& file, unsigned index, const ZelString& name,
                          const std::string& value, uint32_t line) {
    ZelString text;
    ScriptText("IniFile::GetEntryName", std::string(name.Utf8()));
    EXPECT_EQ(file.GetEntryName("Run", index, text), 1) << index;
    EXPECT_EQ(text, name);
    ScriptText("IniFile::GetEntryValue", value);
    EXPECT_EQ(file.GetEntryValue("Run", name, text), 1) << index;
    EXPECT_EQ(text, value);
    ExpectAnswer("IniFile::FindEntryLine", line, [&] { return file.FindEntryLine("Run", name); });
  }
  /// Expects the section to have no entry `index`.
  static void ExpectNoEntries(const IniFile& file, const ZelString& section, unsigned index) {
    ZelString name = "before";
    ExpectAnswer("IniFile::GetEntryName", 0,
                 [&] { return file.GetEntryName(section, index, name); });
    EXPECT_EQ(name, "before");
  }
  /// Reads into a buffer of `room` bytes and expects these.
  static void ExpectRead(int handle, uint32_t room, const std::string& bytes) {
    std::string buffer(room, '\0');
    ScriptBytes("FileRead", bytes);
    ASSERT_EQ(FileRead(handle, buffer.data(), room), bytes.size());
    EXPECT_EQ(buffer.substr(0, bytes.size()), bytes);
  }
  void ExpectContent(const std::string& name, const std::string& content) {
    const int handle = Open(name);
    ASSERT_NE(handle, -1) << name;
    ExpectRead(handle, 100, content);
    EXPECT_EQ(FileClose(handle), 0);
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

TEST_F(HostAgreement, OnFactsOfFiles) {
  WriteFile("a.txt", "hello");
  MakeDirectory("d");

  ExpectAnswer("FileGetSize64", 5, [&] { return FileGetSize64(In("a.txt")); });
  ExpectAnswer("FileGetSize64", -1, [&] { return FileGetSize64(In("no")); });
  ExpectAnswer("FileGetWriteTime", 0xFFFFFFFF, [&] { return FileGetWriteTime(In("no")); });
  ExpectAnswer("FileGetMode", 0, [&] { return FileGetMode(In("no")); });
  ExpectAnswer("FileGetMode", 0100000, [&] { return FileGetMode(In("a.txt")) & 0170000; });
  ExpectAnswer("FileGetMode", 040000, [&] { return FileGetMode(In("d")) & 0170000; });
  ExpectAnswer("FileGetAttributes", 0xFFFFFFFF, [&] { return FileGetAttributes(In("no")); });
  ExpectAnswer("FileGetAttributes", 0, [&] { return FileGetAttributes(In("a.txt")) & 16; });
  ExpectAnswer("FileGetAttributes", 16, [&] { return FileGetAttributes(In("d")) & 16; });
}

TEST_F(HostAgreement, OnText) {
  WriteFile("a.txt", "hello\n");
  WriteFile("a.bin", std::string("he\0llo", 6));
  WriteFile("empty", "");

  ExpectAnswer("FileIsAscii", 1, [&] { return FileIsAscii(In("a.txt")); });
  ExpectAnswer("FileIsAscii", 0, [&] { return FileIsAscii(In("a.bin")); });
  ExpectAnswer("FileIsAscii", 1, [&] { return FileIsAscii(In("empty")); });
  ExpectAnswer("FileIsAscii", 0, [&] { return FileIsAscii(In("no")); });
  ExpectAnswer("File::FileIsValid", 1, [&] { return File(In("a.txt")).FileIsValid(); });
  ExpectAnswer("File::FileIsValid", 0, [&] { return File(In("a.bin")).FileIsValid(); });
  ExpectAnswer("File::FileIsValid", 0, [&] { return File(In("no")).FileIsValid(); });
}

TEST_F(HostAgreement, OnTheNumbersOfEncodingsAndOfNoIndex) {
  EXPECT_EQ(kEncodingUtf8, 100);
  EXPECT_EQ(kEncodingUtf16, 110);
  EXPECT_EQ(kNoIndex, 0xFFFFFFFFU);

  ZelString text;
  EXPECT_TRUE(text.Assign("\xC3\xBC", 2, 100));
  EXPECT_EQ(text.GetSize(110), 2u);
  EXPECT_EQ(std::string(text.GetString(110), 2), "\xFC\0"s);
  ZelContainer container;
  EXPECT_TRUE(container.SetString("Single", text, 0xFFFFFFFF));
  EXPECT_FALSE(container.EntryAt(0).IsList());
}

TEST_F(HostAgreement, OnDigests) {
  WriteFile("a.txt", "hello");
  WriteFile("empty", "");
  MakeDirectory("d");

  ExpectDigest("5d41402abc4b2a76b9719d911017c592", "a.txt");
  ExpectDigest("d41d8cd98f00b204e9800998ecf8427e", "empty");
  ExpectDigest("", "no");
  ExpectDigest("", "d");
}

TEST_F(HostAgreement, OnReading) {
  WriteFile("a.txt", "hello");

  const int handle = Open("a.txt");
  ASSERT_NE(handle, -1);
  ExpectRead(handle, 3, "hel");
  ExpectRead(handle, 3, "lo");
  ExpectRead(handle, 3, "");
  ExpectRead(handle, 3, "");
  EXPECT_EQ(FileClose(handle), 0);

  ExpectAnswer("FileOpen", -1, [&] { return FileOpen(In("no"), 0); });
  MakeDirectory("d");
  ExpectAnswer("FileOpen", -1, [&] { return FileOpen(In("d"), 0); });
  char byte = 0;
  ExpectAnswer("FileRead", 0xFFFFFFFF, [&] { return FileRead(-1, &byte, 1); });
}

TEST_F(HostAgreement, OnWriting) {
  const int handle = Create("a.txt");
  ASSERT_NE(handle, -1);
  ExpectAnswer("FileWrite", 3, [&] { return FileWrite(handle, "abc", 3); });
  ExpectAnswer("FileWrite", 2, [&] { return FileWrite(handle, "de", 2); });
  EXPECT_EQ(FileClose(handle), 0);

  ExpectContent("a.txt", "abcde");
  ExpectAnswer("FileCreate", -1, [&] { return FileCreate(In("a.txt"), 0); });
  ExpectAnswer("FileCreate", -1, [&] { return FileCreate(In("no/a.txt"), 0); });
  ExpectAnswer("FileWrite", 0xFFFFFFFF, [&] { return FileWrite(-1, "abc", 3); });
}

TEST_F(HostAgreement, OnLocalCopiesAndDeletions) {
  WriteFile("a.txt", "hello");

  ExpectAnswer("FileCopy", 0, [&] { return FileCopy(In("a.txt"), In("b.txt"), 0); });
  ExpectAnswer("FileCopy", 0, [&] { return FileCopy(In("a.txt"), In("b.txt"), 0); });
  ExpectContent("b.txt", "hello");
  ExpectError("FileCopy", [&] { return FileCopy(In("a.txt"), In("b.txt"), 1); });
  ExpectError("FileCopy", [&] { return FileCopy(In("no"), In("c.txt"), 0); });
  ExpectAnswer("FileDelete", 0, [&] { return FileDelete(In("b.txt"), 0); });
  ExpectError("FileDelete", [&] { return FileDelete(In("b.txt"), 0); });
  ExpectAnswer("FileExists", 1, [&] { return FileExists(In("a.txt")); });
}

TEST_F(HostAgreement, OnAFileThatIsRestoredWhileItsSuccessorIsOpen) {
  WriteFile("a.txt.tmp0", "old");

  const int handle = Create("a.txt");
  ASSERT_NE(handle, -1);
  ExpectAnswer("FileWrite", 3, [&] { return FileWrite(handle, "new", 3); });
  ExpectAnswer("FileCopy", 0, [&] { return FileCopy(In("a.txt.tmp0"), In("a.txt"), 0); });
  ExpectAnswer("FileDelete", 0, [&] { return FileDelete(In("a.txt.tmp0"), 0); });
  EXPECT_EQ(FileClose(handle), 0);

  ExpectContent("a.txt", "old");
}

TEST_F(HostAgreement, OnDirectoriesThatAreRead) {
  WriteFile("a.txt", "hello");
  MakeDirectory("d");
  ScriptDirectory({".", "..", "a.txt", "d"});

  DIR* directory = OpenDirectory(In(""));
  ASSERT_NE(directory, nullptr);
  std::vector<std::string> names;
  while (const dirent* entry = ReadDirectory(directory)) {
    names.emplace_back(ZelString(entry->name).Utf8());
  }
  EXPECT_EQ(ReadDirectory(directory), nullptr);
  CloseDirectory(directory);

  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", "a.txt", "d"}));
}

TEST_F(HostAgreement, OnTheVersionOfTheSystem) {
  ScriptText("OSVersion::GetFullVersion", "010.000.19045");
  const ZelString version = OSVersion::GetFullVersion();
  ScriptAnswer("OSVersion::GetMajorVersion", 10);
  const uint32_t major = OSVersion::GetMajorVersion();

  ASSERT_EQ(version.GetLength(), 13u);
  EXPECT_EQ(version.SubString(3, 1), ".");
  EXPECT_EQ(version.SubString(7, 1), ".");
  EXPECT_EQ(version.SubString(0, 3).ToUL(10), major);
  EXPECT_GE(version, OSVersion::FULL_VERSION_WINDOWS_XP);
  EXPECT_GT(major, OSVersion::MAJOR_MICROSOFT_WINDOWS_NT);
}

TEST_F(HostAgreement, OnEntriesOfIniFiles) {
  WriteFile("a.ini", "[Run]\r\n; C=z.mlx\r\nA=x.mlx\r\nB = y.mlx\r\n[Other]\r\nD=1\r\n");
  const IniFile file(In("a.ini"));

  ExpectEntry(file, 1, "A", "x.mlx", 3);
  ExpectEntry(file, 2, "B", "y.mlx", 4);
  ExpectNoEntries(file, "Run", 3);
  ExpectNoEntries(file, "RunOnce", 1);
  ExpectNoEntries(IniFile(In("no.ini")), "Run", 1);
}

TEST_F(HostAgreement, OnEntriesThatAreMissing) {
  WriteFile("a.ini", "[Run]\r\nA=x.mlx\r\n");
  const IniFile file(In("a.ini"));
  ZelString value = "before";

  ExpectAnswer("IniFile::GetEntryValue", 0,
               [&] { return file.GetEntryValue("Run", "B", value, "default"); });
  EXPECT_EQ(value, "default");
  ExpectAnswer("IniFile::FindEntryLine", 0, [&] { return file.FindEntryLine("Run", "B"); });
  ExpectAnswer("IniFile::FindEntryLine", 0, [&] { return file.FindEntryLine("Other", "A"); });
}

TEST_F(HostAgreement, OnEntriesThatAreCommentedOut) {
  WriteFile("a.ini", "[Run]\r\nA=x.mlx\r\nB=y.mlx\r\n");
  {
    IniFile file(In("a.ini"));
    ExpectAnswer("File::InsertLine", 1, [&] { return file.InsertLine(2, "; A=x.mlx\r\n"); });
    ExpectAnswer("File::DeleteLine", 1, [&] { return file.DeleteLine(3); });
  }
  ExpectEntry(IniFile(In("a.ini")), 1, "B", "y.mlx", 3);

  IniFile missing(In("no.ini"));
  ExpectAnswer("File::InsertLine", 0, [&] { return missing.InsertLine(7, "; A=x.mlx\r\n"); });
  ExpectAnswer("File::DeleteLine", 0, [&] { return missing.DeleteLine(8); });
}

TEST_F(HostAgreement, OnProgramsAndProcessesThatAreNotThere) {
  bool failed = false;
  ExpectAnswer("ExecRedirect", 0, [&] {
    return ExecRedirect("\"" + In("no program") + "\" ", failed, nullptr, "", "", "", 0, false,
                        false, nullptr, false, nullptr);
  });
  EXPECT_FALSE(failed);

  ProcessAccess access;
  ExpectAnswer("ProcessAccess::TerminateProcessByID", 0,
               [&] { return access.TerminateProcessByID(0); });
}

TEST_F(HostAgreement, OnAProxyThatIsNotThere) {
  XmlProxyClient client;
  ExpectAnswer("XmlProxyClient::Initialise", 0, [&] {
    return client.Initialise(In("no proxy"), 100, XmlProxyClient::kUserSession);
  });
  EXPECT_EQ(client.GetConnection(), nullptr);
}

TEST_F(HostAgreement, OnScriptsThatAreNotThere) {
  MarlinContext context(nullptr);

  ExpectAnswer("MarlinContext::CompileScriptFile", 0,
               [&] { return context.CompileScriptFile(In("no.mlx")); });
  ExpectAnswer("MarlinContext::GetContextError", kMarlinNotReadable,
               [&] { return context.GetContextError(); });
  ScriptAnswer("MarlinContext::GetVariable", 1);
  const VarHandle* const line = context.GetVariable("ErrLine", kVarListGlobal);
  ASSERT_NE(line, nullptr);
  ExpectAnswer("VarHandle::GetIntegerValue", 0, [&] { return line->GetIntegerValue(); });
  ScriptAnswer("MarlinContext::GetVariable", 0);
  EXPECT_EQ(context.GetVariable("NoSuchVariable", kVarListGlobal), nullptr);
}

TEST_F(HostAgreement, OnFunctionModulesThatAreNotThere) {
  MarlinContext context(nullptr);
  context.SetExePath(In("zelagent"));
  context.SetIniDir(In(""));
  ZelString module = "no such module.mlx";
  void* handle = nullptr;

  ExpectAnswer("MarlinContext::LoadFunctionModule", 0,
               [&] { return context.LoadFunctionModule(module, "", &handle); });

  EXPECT_EQ(handle, nullptr);
}

TEST_F(HostAgreement, OnThePartsOfPaths) {
  PathParser parser;
  parser.LoadPath("C:\\scripts/sub\\job.one.mlx");
  EXPECT_EQ(parser.GetDrive(), "C:");
  EXPECT_EQ(parser.GetDir(), "\\scripts/sub\\");
  EXPECT_EQ(parser.GetFileName(), "job.one.mlx");
  EXPECT_EQ(parser.GetFileNameWithoutExt(), "job.one");

  // Nothing of the path before stays.
  parser.LoadPath("job");
  EXPECT_EQ(parser.GetDrive(), "");
  EXPECT_EQ(parser.GetDir(), "");
  EXPECT_EQ(parser.GetFileName(), "job");
}

TEST_F(HostAgreement, OnRegularExpressions) {
  EXPECT_TRUE(MatchRegex("old N_20120105.zip", "N_[2-9][0-9]{3,3}[0-1][0-9][0-3][0-9]", 0));
  EXPECT_FALSE(MatchRegex("N_2012", "N_[2-9][0-9]{3,3}[0-1][0-9][0-3][0-9]", 0));
  EXPECT_FALSE(MatchRegex("(", "(", 0));

  ZelString text = "a http://o:1/ b https://p:2/ c\r\nhttp://q:3/\n";
  EXPECT_EQ(PcreReplace(&text, "http[s]{0,1}://.+:[0-9]{1,5}/", "$1", 0), 2);
  EXPECT_EQ(text, "a $1 c\r\n$1\n");
  EXPECT_EQ(PcreReplace(&text, "(", "x", 0), 0);
  EXPECT_EQ(text, "a $1 c\r\n$1\n");
}

TEST_F(HostAgreement, OnThePartsOfUrls) {
  UrlParseInet url;
  EXPECT_EQ(url.LoadUrl("http://agent7:pw@relay.example:8080"), 1);
  EXPECT_EQ(url.GetUser(), "agent7");
  EXPECT_EQ(url.GetPassword(), "pw");
  EXPECT_EQ(url.GetHost(), "relay.example");

  // Nothing of the URL before stays.
  EXPECT_EQ(url.LoadUrl("http://agent7:pw@a relay"), 0);
  EXPECT_EQ(url.GetUser(), "");
  EXPECT_EQ(url.GetPassword(), "");
  EXPECT_EQ(url.GetHost(), "");
}

TEST_F(HostAgreement, OnDates) {
  SYSTEMTIME date = {};
  date.wYear = 1970;
  date.wMonth = 1;
  date.wDay = 1;
  FILETIME time = {};
  ASSERT_NE(SystemTimeToFileTime(&date, &time), 0);
  EXPECT_EQ(uint64_t{time.dwHighDateTime} << 32 | time.dwLowDateTime, 116'444'736'000'000'000U);

  for (const auto& [month, day] : {std::pair<WORD, WORD>{0, 1}, {13, 1}, {1, 0}, {2, 30}}) {
    date.wMonth = month;
    date.wDay = day;
    EXPECT_EQ(SystemTimeToFileTime(&date, &time), 0) << month << " " << day;
    EXPECT_EQ(time.dwHighDateTime, 116'444'736'000'000'000U >> 32);
  }
}

TEST_F(HostAgreement, OnWholeTexts) {
  WriteFile("a.txt", "first\r\nsecond");
  ScriptText("LoadFileToString", "first\r\nsecond");
  ZelString text;
  EXPECT_TRUE(LoadFileToString(In("a.txt"), &text));
  EXPECT_EQ(text, "first\r\nsecond");
  ExpectAnswer("SaveFileFromString", 1, [&] { return SaveFileFromString(In("a.txt"), "new"); });
  ExpectContent("a.txt", "new");

  ExpectAnswer("LoadFileToString", 0, [&] { return LoadFileToString(In("no"), &text); });
  EXPECT_EQ(text, "first\r\nsecond");
  ExpectAnswer("SaveFileFromString", 0, [&] { return SaveFileFromString(In("no"), "new"); });
  ExpectAnswer("FileExists", 0, [&] { return FileExists(In("no")); });
}

TEST_F(HostAgreement, OnListsOfFiles) {
  WriteFile("b.txt", "");
  WriteFile("a.txt", "");
  MakeDirectory("d");
  WriteFile("d/c.txt", "");

  const std::vector<std::string> names = {std::string(In("a.txt").Utf8()),
                                          std::string(In("b.txt").Utf8())};
  ExpectList(names, [&] { return DirListFiles(In(""), false, true, true); });
  ExpectList({}, [&] { return DirListFiles(In("no"), false, true, true); });
}

TEST_F(HostAgreement, OnArchivesThatAreMadeAndTakenApart) {
  MakeDirectory("d");
  WriteFile("d/a.txt", "hello");
  {
    GenericArchive archive(In("a.zip"), kArchiveZip);
    ExpectAnswer("GenericArchive::AddDirectory", 0,
                 [&] { return archive.AddDirectory(In("d"), 1, 0, "", "", 6, nullptr); });
    ExpectAnswer("FileExists", 0, [&] { return FileExists(In("a.zip")); });
  }
  ExpectAnswer("FileExists", 1, [&] { return FileExists(In("a.zip")); });

  GenericArchive archive(In("a.zip"), kArchiveZip);
  ExpectAnswer("GenericArchive::GetFileCount", 1, [&] { return archive.GetFileCount(); });
  ScriptText("GenericArchive::GetEntryPath", "a.txt");
  EXPECT_EQ(archive.GetEntryPath(1), "a.txt");
  ScriptText("GenericArchive::GetEntryPath", "");
  EXPECT_EQ(archive.GetEntryPath(2), "");
  MakeDirectory("out");
  ExpectAnswer("GenericArchive::ExtractEntry", 0,
               [&] { return archive.ExtractEntry(1, In("out\\a.txt")); });
  ExpectAnswer("FileExists", 1, [&] { return FileExists(In("out\\a.txt")); });
  ExpectContent("out/a.txt", "hello");
}

TEST_F(HostAgreement, OnArchivesThatCannotBeMadeOrTakenApart) {
  {
    GenericArchive archive(In("a.zip"), kArchiveZip);
    ExpectError("GenericArchive::AddDirectory",
                [&] { return archive.AddDirectory(In("no"), 1, 0, "", "", 6, nullptr); });
  }
  ExpectAnswer("FileExists", 0, [&] { return FileExists(In("a.zip")); });

  WriteFile("b.zip", "no archive");
  GenericArchive archive(In("b.zip"), kArchiveZip);
  ExpectAnswer("GenericArchive::GetFileCount", 1, [&] { return archive.GetFileCount(); });
  ScriptText("GenericArchive::GetEntryPath", "");
  EXPECT_EQ(archive.GetEntryPath(1), "");
  ExpectError("GenericArchive::ExtractEntry", [&] { return archive.ExtractEntry(1, In("out\\")); });
  ExpectAnswer("FileExists", 0, [&] { return FileExists(In("out\\")); });
}

TEST_F(HostAgreement, OnUploadsThatCannotStart) {
  HttpClient client(~0U, ~0U);
  client.SetAuthentification("agent7", "pw");
  client.EnableSsl(nullptr);
  HttpFileMessage request;
  request.SetMethod(kHttpPut);
  request.SetResourcePath("/backup1/a.zip");
  request.SetTo(In("no.zip"), "");
  HttpMessage response(0);

  ExpectError("HttpClient::SendAndRecv", [&] {
    return client.SendAndRecv(nullptr, "127.0.0.1", request, response, 1, 1, nullptr);
  });
}

TEST_F(HostAgreement, OnDirectoriesThatCannotBeRead) {
  WriteFile("a.txt", "hello");

  for (const char* name : {"no", "a.txt"}) {
    ScriptAnswer("OpenDirectory", 0);
    EXPECT_EQ(OpenDirectory(In(name)), nullptr) << name;
  }
  CloseDirectory(nullptr);
}

TEST_F(HostAgreement, OnDialogsWithoutAProxy) {
  ScriptAnswer("SkinDialog", -1);
  bool error = false;
  SkinDialog dialog(nullptr, "m", "y", "n", "", SkinDialog::BUTTON_YES_NO, In("no.sock"), error,
                    "");
  EXPECT_TRUE(error);

  const auto expectError = [](const char* function, auto call) {
    bool hasFailed = false;
    ScriptAnswer(function, -1);
    call(hasFailed);
    EXPECT_TRUE(hasFailed) << function;
  };
  expectError("SkinDialog::IsInitialised",
              [&](bool& failed) { EXPECT_FALSE(dialog.IsInitialised(failed)); });
  expectError("SkinDialog::Show", [&](bool& failed) { dialog.Show(true, failed); });
  expectError("SkinDialog::GetButtonClickedID",
              [&](bool& failed) { EXPECT_EQ(dialog.GetButtonClickedID(failed), 0u); });
  expectError("SkinDialog::Close", [&](bool& failed) { dialog.Close(failed, false); });
}

TEST_F(HostAgreement, OnADesktopWithoutAProxy) {
  const ZelString pipe = In("no.sock");
  ExpectAnswer("ProxyDesktopLockManager::Lock", 0,
               [&] { return ProxyDesktopLockManager::Lock(pipe); });
  ExpectAnswer("ProxyDesktopLockManager::SetMessage", 0,
               [&] { return ProxyDesktopLockManager::SetMessage(pipe, "t", "m"); });
  ExpectAnswer("ProxyDesktopLockManager::Unlock", 0,
               [&] { return ProxyDesktopLockManager::Unlock(pipe); });
  ExpectAnswer("ProxyUtils::IsUserAbsent", 0, [&] { return ProxyUtils::IsUserAbsent(pipe); });
}

TEST_F(HostAgreement, OnTheNumbersOfButtons) {
  EXPECT_EQ(SkinDialog::BUTTON_NO_BUTTON, 0u);
  EXPECT_EQ(SkinDialog::BUTTON_CLOSE, 1u);
  EXPECT_EQ(SkinDialog::BUTTON_YES_NO, 2u);
  EXPECT_EQ(SkinDialog::kFirstButton, 100u);
  EXPECT_EQ(SkinDialog::kSecondButton, 101u);
  EXPECT_EQ(SkinDialog::kCloseButton, 102u);
}

/// The place of a virtual function among those of its class: what a pointer to it holds on the
/// platforms there are.
template <typename Function>
size_t SlotOf(Function function) {
  uintptr_t offset = 0;
  std::memcpy(&offset, &function, sizeof offset);
  return (offset - 1) / sizeof(void*);
}

TEST_F(HostAgreement, OnTheOrderOfADialogsFunctions) {
  // The destructor takes two slots.
  const std::vector<size_t> slots = {SlotOf(&SkinDialog::Close),
                                     SlotOf(&SkinDialog::Show),
                                     SlotOf(&SkinDialog::IsInitialised),
                                     SlotOf(&SkinDialog::GetButtonClickedID),
                                     SlotOf(&SkinDialog::RefreshTimerArea),
                                     SlotOf(&SkinDialog::RadioButtonProc),
                                     SlotOf(&SkinDialog::ProcessButtonAction),
                                     SlotOf(&SkinDialog::GetWindowsHandle),
                                     SlotOf(&SkinDialog::GetFormatedCurrentDateTime),
                                     SlotOf(&SkinDialog::SkinDialogProc),
                                     SlotOf(&SkinDialog::Run),
                                     SlotOf(&SkinDialog::InitApplication),
                                     SlotOf(&SkinDialog::InitInstance)};
  EXPECT_EQ(slots, (std::vector<size_t>{2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14}));
}

TEST_F(HostAgreement, OnAddresses) {
  const auto take = [](const char* text) -> int64_t {
    IpAddress address;
    return address.SetTo(text) ? int64_t{address.GetAsInt32()} : -1;
  };
  ExpectAnswer("IpAddress::SetTo", 0x0A000005, [&] { return take("10.0.0.5"); });
  ExpectAnswer("IpAddress::SetTo", 0xFFFFFFFF, [&] { return take("255.255.255.255"); });
  ExpectAnswer("IpAddress::SetTo", 0, [&] { return take("0.0.0.0"); });
  for (const char* text : {"", "fileserver", "localhost", "10.0.0", "10.0.0.256", "10.0.0.5 ",
                           "10.0.0.5.6", "010.0.0.5", "0x0A000005", "::1", "-1.0.0.0"}) {
    ExpectAnswer("IpAddress::SetTo", -1, [&] { return take(text); });
  }
}

TEST_F(HostAgreement, OnAddressesThatStayWhenATextIsNone) {
  IpAddress address;
  EXPECT_EQ(address.GetAsInt32(), 0u);
  ExpectAnswer("IpAddress::SetTo", 0x0A000005, [&] {
    address.SetTo("10.0.0.5");
    return address.GetAsInt32();
  });
  ScriptAnswer("IpAddress::SetTo", -1);
  EXPECT_FALSE(address.SetTo("fileserver"));
  ScriptAnswer("IpAddress::SetToHostName", -1);
  EXPECT_FALSE(address.SetToHostName(""));
  EXPECT_EQ(address.GetAsInt32(), 0x0A000005u);
}

sockaddr_in SocketAddress(uint32_t address, uint16_t port) {
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  to.sin_addr.s_addr = htonl(address);
  return to;
}

TEST_F(HostAgreement, OnDatagrams) {
  constexpr uint16_t kDiscardPort = 9;
  std::string packet(102, 'x');
  const auto send = [&](UdpSocket& socket, uint32_t address, unsigned length) {
    sockaddr_in to = SocketAddress(address, kDiscardPort);
    return socket.SendTo(to, packet.data(), length);
  };
  ScriptAnswer("CreateUdp", 1);
  const std::unique_ptr<UdpSocket> socket = SocketFactory::CreateUdp();
  ASSERT_NE(socket, nullptr);

  ExpectAnswer("SendTo", -1, [&] { return send(*socket, 0xFFFFFFFF, 102); });
  ExpectAnswer("SetOption", 0, [&] { return socket->SetOption(4711, 1); });
  ExpectAnswer("SetOption", 1, [&] { return socket->SetOption(32, 1); });
  ExpectAnswer("SendTo", 102, [&] { return send(*socket, 0x7F000001, 102); });
}

TEST_F(HostAgreement, OnHostsThatAreNone) {
  ExpectAnswer("PingICMP", 0, [] { return PingICMP(""); });
  ExpectAnswer("PingICMP", 0, [] { return PingICMP("10.0.0.256"); });
}

TEST_F(HostAgreement, OnUrlsThatAreNone) {
  for (const char* url : {"", "ftp://127.0.0.1/", "file:///etc/hostname", "http://"}) {
    long long received = 7;
    ExpectAnswer("CurlAdvancedGet", 0, [&] {
      return CurlAdvancedGet(url, "", "", "", "", "", 0, 30, received, true, nullptr, nullptr);
    });
  }
}

TEST_F(HostAgreement, OnFileServersThatAreNotConnected) {
  CsSmbClient client(0);
  ExpectAnswer("NbtSessionRequest", 0, [&] { return client.NbtSessionRequest("*SMBSERVER"); });
  ExpectAnswer("SmbSessionNegotiate", 0, [&] { return client.SmbSessionNegotiate(); });
  ExpectAnswer("SmbSessionSetup", 0, [&] { return client.SmbSessionSetup("ann", "secret"); });
  _CsSmbTreeInfo tree{};
  ExpectAnswer("SmbTreeConnect", 0, [&] { return client.SmbTreeConnect("public", tree); });
  EXPECT_EQ(tree.treeId, 0u);
  EXPECT_EQ(client.SmbTreeDisconnect(tree), 0);
  EXPECT_EQ(client.SmbSessionLogOff(), 0);
  client.NbtDisconnect();
  client.TcpDisconnect();
}

TEST_F(HostAgreement, OnTextsThatAreReplacedInAnyCase) {
  ZelString text = "{AdminName} {adminNAME} {Admin}";
  EXPECT_EQ(text.ReplaceAll("{AdminName}", "{AdminName} 100%", true), 2u);
  EXPECT_EQ(text, "{AdminName} 100% {AdminName} 100% {Admin}");
}

}  // namespace
