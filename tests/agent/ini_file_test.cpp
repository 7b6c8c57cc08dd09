// INI files, and the editing of their lines.

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "libZel/ini_file.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

using std::string_literals::operator""s;

constexpr auto kAnyWrite =
    fs::perms::owner_write | fs::perms::group_write | fs::perms::others_write;

// A file "file.ini" with a content.
class Ini {
 public:
  explicit Ini(const std::string& content) { Write(content); }

  void Write(const std::string& content) const { WriteFile(Native(), content); }
  std::string Read() const { return ReadFile(Native()); }
  ZelString Path() const { return directory_ / "file.ini"; }
  fs::path Native() const { return directory_.Native("file.ini"); }
  size_t CountEntries() const { return directory_.CountEntries(); }

  void SetReadOnly(bool isReadOnly) const {
    fs::permissions(Native(), isReadOnly ? kAnyWrite : fs::perms::owner_write,
                    isReadOnly ? fs::perm_options::remove : fs::perm_options::add);
  }

 private:
  TemporaryDirectory directory_;
};

std::vector<std::string> NamesIn(const IniFile& file, const ZelString& section) {
  std::vector<std::string> names;
  ZelString name;
  for (unsigned index = 1; file.GetEntryName(section, index, name) == 1; ++index) {
    names.emplace_back(name.Utf8());
  }
  return names;
}

std::string ValueOf(const IniFile& file, const ZelString& section, const ZelString& name) {
  ZelString value;
  file.GetEntryValue(section, name, value, "none");
  return std::string(value.Utf8());
}

using Names = std::vector<std::string>;

// ASCII as UTF-16, without a mark.
std::string Wide(std::string_view ascii, bool isBigEndian) {
  std::string units;
  for (const char c : ascii) units += isBigEndian ? std::string{'\0', c} : std::string{c, '\0'};
  return units;
}

TEST(IniFile, ReadsNamesValuesAndLines) {
  const Ini ini("; comment\n[First]\na = 1\n# comment\n\n  b=two words  \n[Second]\na=\n");
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "First"), (Names{"a", "b"}));
  EXPECT_EQ(ValueOf(file, "First", "a"), "1");
  EXPECT_EQ(ValueOf(file, "First", "b"), "two words");
  EXPECT_EQ(file.FindEntryLine("First", "a"), 3u);
  EXPECT_EQ(file.FindEntryLine("First", "b"), 6u);
  EXPECT_EQ(NamesIn(file, "Second"), Names{"a"});
  EXPECT_EQ(ValueOf(file, "Second", "a"), "");
  EXPECT_EQ(file.FindEntryLine("Second", "a"), 8u);
}

TEST(IniFile, SaysWhatIsNotThere) {
  const Ini ini("[Section]\na = 1\n");
  const IniFile file(ini.Path());
  ZelString text("as it was");
  EXPECT_EQ(file.GetEntryName("Section", 0, text), 0);
  EXPECT_EQ(file.GetEntryName("Section", 2, text), 0);
  EXPECT_EQ(file.GetEntryName("Section", 0xFFFFFFFF, text), 0);
  EXPECT_EQ(file.GetEntryName("Other", 1, text), 0);
  EXPECT_EQ(text, "as it was");
  EXPECT_EQ(file.GetEntryValue("Section", "b", text, "default"), 0);
  EXPECT_EQ(text, "default");
  EXPECT_EQ(file.GetEntryValue("Other", "a", text), 0);
  EXPECT_EQ(text, "");
  EXPECT_EQ(file.FindEntryLine("Section", "b"), 0u);
  EXPECT_EQ(file.FindEntryLine("Other", "a"), 0u);
  EXPECT_EQ(file.GetEntryValue("Section", "a", text, "default"), 1);
  EXPECT_EQ(text, "1");
}

TEST(IniFile, MatchesNamesWhateverTheirCase) {
  const Ini ini("[RunOnce]\nName = x\n\xC3\x84 = y\n");
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "runONCE"), (Names{"Name", "\xC3\x84"}));
  EXPECT_EQ(ValueOf(file, "RUNONCE", "nAME"), "x");
  EXPECT_EQ(ValueOf(file, "RunOnce", "\xC3\x84"), "y");
  EXPECT_EQ(ValueOf(file, "RunOnce", "\xC3\xA4"), "none");
}

TEST(IniFile, DropsSpacesAndTabsAroundEverything) {
  const Ini ini(" \t[ \tSection\t ] \n\t name \t=\t value; \"quoted\" = # \t\n \t; comment=1\n");
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "Section"), Names{"name"});
  EXPECT_EQ(ValueOf(file, "Section", "name"), "value; \"quoted\" = #");
}

TEST(IniFile, PassesOverLinesOfAnyOtherForm) {
  const Ini ini(
      "early = 1\n[Section] ; behind\nno equals sign\n= no name\n[broken\n[x = 1\na = 1\n");
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "Section"), Names{"a"});
  EXPECT_EQ(NamesIn(file, ""), Names{});
  EXPECT_EQ(file.FindEntryLine("Section", "a"), 7u);
}

TEST(IniFile, TakesTheFirstOfEntriesOfOneName) {
  const Ini ini("[S]\na = first\nb = 1\nA = second\n[T]\na = other\n[s]\na = third\n");
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "S"), (Names{"a", "b"}));
  EXPECT_EQ(ValueOf(file, "S", "A"), "first");
  EXPECT_EQ(file.FindEntryLine("S", "A"), 2u);
  EXPECT_EQ(ValueOf(file, "T", "a"), "other");
}

TEST(IniFile, JoinsSectionsOfOneNameInTheOrderOfLines) {
  const Ini ini("[A]\na1=\n[B]\nb1=\n[a]\na2=\n[b]\nb2=\n[A]\na3=\n");
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "A"), (Names{"a1", "a2", "a3"}));
  EXPECT_EQ(NamesIn(file, "B"), (Names{"b1", "b2"}));
  EXPECT_EQ(file.FindEntryLine("A", "a3"), 10u);
}

TEST(IniFile, TakesAnyLineEnd) {
  const Ini ini("[S]\r\na = 1\r\nb = 2\nc = 3\r\r\nd = 4");
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "S"), (Names{"a", "b", "c", "d"}));
  EXPECT_EQ(ValueOf(file, "S", "a"), "1");
  EXPECT_EQ(ValueOf(file, "S", "c"), "3\r");
  EXPECT_EQ(ValueOf(file, "S", "d"), "4");
  EXPECT_EQ(file.FindEntryLine("S", "d"), 5u);
}

TEST(IniFile, TakesUtf8AndUtf16ByTheirMarks) {
  const std::string text = "[S]\r\na = 1\r\n";
  for (const std::string& content :
       {text, "\xEF\xBB\xBF" + text, "\xFF\xFE" + Wide(text, false), "\xFE\xFF" + Wide(text, true),
        "\xFF\xFE" + Wide(text, false) + "x"}) {
    const Ini ini(content);
    const IniFile file(ini.Path());
    EXPECT_EQ(NamesIn(file, "S"), Names{"a"});
    EXPECT_EQ(ValueOf(file, "S", "a"), "1");
    EXPECT_EQ(file.FindEntryLine("S", "a"), 2u);
  }
}

TEST(IniFile, ReadsUtf16BeyondAscii) {
  // An a with a diaeresis, a character outside the basic plane, and half of one.
  const Ini ini("\xFE\xFF"s + Wide("[S]\nn=", true) + "\x00\xE4\xD8\x3D\xDE\x00\xD8\x3D"s);
  EXPECT_EQ(ValueOf(IniFile(ini.Path()), "S", "n"), "\xC3\xA4\xF0\x9F\x98\x80\xED\xA0\xBD");
}

TEST(IniFile, KeepsBytesThatAreNotUtf8) {
  const Ini ini("[S]\nn\xE4me = \xFF\xC3\xA4\xED\xB2\x80\n");
  IniFile file(ini.Path());
  ZelString name;
  ASSERT_EQ(file.GetEntryName("S", 1, name), 1);
  EXPECT_EQ(name, ZelString("n\xE4me"));
  EXPECT_EQ(file.FindEntryLine("S", name), 2u);
  ZelString value;
  file.GetEntryValue("S", name, value);
  EXPECT_EQ(file.InsertLine(2, name + "=" + value + "\n"), 1);
  EXPECT_EQ(ini.Read(),
            "[S]\nn\xE4me=\xFF\xC3\xA4\xED\xB2\x80\nn\xE4me = \xFF\xC3\xA4\xED\xB2\x80\n");
}

TEST(IniFile, KeepsNulCharacters) {
  const Ini ini("[S]\na\0b = c\0d\n"s);
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "S"), Names{"a\0b"s});
  EXPECT_EQ(ValueOf(file, "S", std::string_view("a\0b", 3)), "c\0d"s);
}

TEST(IniFile, HasNoEntriesWithoutAFile) {
  const TemporaryDirectory directory;
  const ZelString itself = FromNativePath(directory.Native());
  for (const ZelString& path : {directory / "none", directory / "none/none", itself, itself + "/",
                                ZelString(), ZelString("http://localhost/file.ini")}) {
    IniFile file(path);
    EXPECT_EQ(NamesIn(file, "S"), Names{});
    EXPECT_EQ(ValueOf(file, "S", "a"), "none");
    EXPECT_EQ(file.InsertLine(1, "x\n"), 0);
  }
  EXPECT_EQ(directory.CountEntries(), 0u);
}

TEST(IniFile, ReadsUpTo16MiB) {
  std::string content = "[S]\na = 1\n";
  content.resize(16 << 20, ' ');
  const Ini ini(content);
  EXPECT_EQ(NamesIn(IniFile(ini.Path()), "S"), Names{"a"});
  IniFile longer(ini.Path());
  EXPECT_EQ(longer.InsertLine(1, "x"), 0);
  EXPECT_EQ(fs::file_size(ini.Native()), content.size());
  ini.Write(content + " ");
  EXPECT_EQ(NamesIn(IniFile(ini.Path()), "S"), Names{});
}

TEST(IniFile, WorksThroughManyEntriesQuickly) {
  constexpr size_t kEntries = 100'000;
  std::string content = "[S]\r\n";
  for (size_t i = 0; i < kEntries; ++i) {
    content += "name" + std::to_string(i) + " = " + std::string(85, 'v') + "\r\n";
  }
  const Ini ini(content);
  const auto start = std::chrono::steady_clock::now();
  const IniFile file(ini.Path());
  ZelString name;
  size_t sum = 0;
  unsigned index = 0;
  while (file.GetEntryName("S", index + 1, name) == 1) {
    sum += file.FindEntryLine("S", name);
    ++index;
  }
  EXPECT_EQ(index, kEntries);
  EXPECT_EQ(sum, kEntries * (kEntries + 3) / 2);
  // Work that grows with the square of the entries would take minutes.
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST(IniFile, StaysAsItWasWhenTheObjectWasMade) {
  const Ini ini("[S]\na = 1\n");
  IniFile file(ini.Path());
  EXPECT_EQ(file.DeleteLine(2), 1);
  EXPECT_EQ(ValueOf(file, "S", "a"), "1");
  EXPECT_EQ(file.FindEntryLine("S", "a"), 2u);
  EXPECT_EQ(NamesIn(IniFile(ini.Path()), "S"), Names{});
}

TEST(InsertLine, ChangesNoOtherByte) {
  const std::string first = "[S]\n";
  const std::string second = " a = \xFF\0 \r\n"s;
  const std::string third = "b";
  for (const unsigned line : {1u, 2u, 3u}) {
    const Ini ini(first + second + third);
    EXPECT_EQ(File(ini.Path()).InsertLine(line, "; new\r\n"), 1);
    EXPECT_EQ(ini.Read(), (line == 1 ? "; new\r\n" : "") + first + (line == 2 ? "; new\r\n" : "") +
                              second + (line == 3 ? "; new\r\n" : "") + third);
    EXPECT_EQ(ini.CountEntries(), 1u);
  }
}

TEST(InsertLine, WritesTheTextAsItIs) {
  const Ini ini("a\nb\n");
  File file(ini.Path());
  EXPECT_EQ(file.InsertLine(2, "no line end "), 1);
  EXPECT_EQ(ini.Read(), "a\nno line end b\n");
  EXPECT_EQ(file.InsertLine(1, ZelString(std::string_view("\0\t%s\n\n", 6))), 1);
  EXPECT_EQ(ini.Read(), "\0\t%s\n\na\nno line end b\n"s);
}

TEST(InsertLine, AppendsAfterTheLastLine) {
  const struct {
    const char* before;
    unsigned line;
    const char* text;
    const char* after;
  } kCases[] = {
      {"", 1, "x\n", "x\n"},           {"a\n", 2, "x\n", "a\nx\n"},
      {"a", 2, "x\r\n", "a\r\nx\r\n"}, {"a", 2, "x\n", "a\nx\n"},
      {"a\r\nb", 3, "x", "a\r\nb\nx"}, {"\xEF\xBB\xBF", 1, "x\n", "\xEF\xBB\xBFx\n"},
  };
  for (const auto& one : kCases) {
    const Ini ini(one.before);
    EXPECT_EQ(File(ini.Path()).InsertLine(one.line, one.text), 1);
    EXPECT_EQ(ini.Read(), one.after);
  }
}

TEST(InsertLine, KeepsTheMarkInFront) {
  const Ini ini("\xEF\xBB\xBF[S]\n");
  File file(ini.Path());
  EXPECT_EQ(file.InsertLine(1, "\xC3\xA4\r\n"), 1);
  EXPECT_EQ(ini.Read(), "\xEF\xBB\xBF\xC3\xA4\r\n[S]\n");
  EXPECT_EQ(file.DeleteLine(1), 1);
  EXPECT_EQ(file.DeleteLine(1), 1);
  EXPECT_EQ(ini.Read(), "\xEF\xBB\xBF");
}

TEST(InsertLine, WritesInTheEncodingOfTheFile) {
  for (const bool isBigEndian : {false, true}) {
    const std::string mark = isBigEndian ? "\xFE\xFF" : "\xFF\xFE";
    // Bytes that look like a line feed, across two characters.
    const std::string odd = isBigEndian ? "\x0A\x01\x01\x0A" : "\x01\x0A\x0A\x01";
    const std::string first = odd + Wide("\r\n", isBigEndian);
    const Ini ini(mark + first + Wide("b", isBigEndian));
    File file(ini.Path());
    EXPECT_EQ(file.InsertLine(2, "; x\r\n"), 1);
    EXPECT_EQ(ini.Read(), mark + first + Wide("; x\r\nb", isBigEndian));
    EXPECT_EQ(file.InsertLine(4, "\xF0\x9F\x98\x80"), 1);
    const std::string pair = isBigEndian ? "\xD8\x3D\xDE\x00"s : "\x3D\xD8\x00\xDE"s;
    EXPECT_EQ(ini.Read(), mark + first + Wide("; x\r\nb\n", isBigEndian) + pair);
    EXPECT_EQ(file.DeleteLine(1), 1);
    EXPECT_EQ(ini.Read(), mark + Wide("; x\r\nb\n", isBigEndian) + pair);
  }
}

TEST(InsertLine, DoesNotContinueHalfACharacter) {
  const Ini ini("\xFF\xFE"s + Wide("a", false) + "x");
  EXPECT_EQ(File(ini.Path()).InsertLine(2, "x\n"), 0);
  EXPECT_EQ(File(ini.Path()).InsertLine(1, "x\n"), 1);
  EXPECT_EQ(ini.Read(), "\xFF\xFE"s + Wide("x\na", false) + "x");
}

TEST(DeleteLine, TakesTheLineWithItsEnd) {
  const struct {
    const char* before;
    unsigned line;
    const char* after;
  } kCases[] = {
      {"a\r\nb\nc", 1, "b\nc"},
      {"a\r\nb\nc", 2, "a\r\nc"},
      {"a\r\nb\nc", 3, "a\r\nb\n"},
      {"a", 1, ""},
      {"\n\n", 2, "\n"},
  };
  for (const auto& one : kCases) {
    const Ini ini(one.before);
    EXPECT_EQ(File(ini.Path()).DeleteLine(one.line), 1);
    EXPECT_EQ(ini.Read(), one.after);
    EXPECT_EQ(ini.CountEntries(), 1u);
  }
}

TEST(FileEdit, RefusesLinesThatAreNotThere) {
  const std::string content = "[S]\na = 1\n";
  const Ini ini(content);
  for (const unsigned long line : {0ul, 4ul, 1000ul, ~0ul}) {
    EXPECT_EQ(File(ini.Path()).InsertLine(line, "x\n"), 0) << line;
    EXPECT_EQ(IniFile(ini.Path()).InsertLine(line, "x\n"), 0) << line;
  }
  for (const unsigned long line : {0ul, 3ul, 1000ul, ~0ul}) {
    EXPECT_EQ(File(ini.Path()).DeleteLine(line), 0) << line;
    EXPECT_EQ(IniFile(ini.Path()).DeleteLine(line), 0) << line;
  }
  EXPECT_EQ(ini.Read(), content);
  EXPECT_EQ(ini.CountEntries(), 1u);
}

TEST(FileEdit, EndsWithTheFirstFailure) {
  const Ini ini("a\nb\n");
  File file(ini.Path());
  EXPECT_EQ(file.InsertLine(9, "x\n"), 0);
  EXPECT_EQ(file.InsertLine(1, "x\n"), 0);
  EXPECT_EQ(file.DeleteLine(1), 0);
  EXPECT_EQ(ini.Read(), "a\nb\n");
  EXPECT_EQ(File(ini.Path()).DeleteLine(1), 1);
}

TEST(FileEdit, RefusesReadOnlyFiles) {
  const Ini ini("a\n");
  ini.SetReadOnly(true);
  EXPECT_EQ(File(ini.Path()).InsertLine(1, "x\n"), 0);
  EXPECT_EQ(File(ini.Path()).DeleteLine(1), 0);
  EXPECT_EQ(ini.Read(), "a\n");
  EXPECT_EQ(ini.CountEntries(), 1u);
  ini.SetReadOnly(false);
  EXPECT_EQ(File(ini.Path()).DeleteLine(1), 1);
}

TEST(FileEdit, CommentsAnEntryOut) {
  const Ini ini("[RunOnce]\r\na = x.mlx\r\nb = y.mlx");
  IniFile file(ini.Path());
  const uint32_t line = file.FindEntryLine("RunOnce", "b");
  EXPECT_EQ(file.InsertLine(line, "; b=y.mlx\r\n"), 1);
  EXPECT_EQ(file.DeleteLine(line + 1), 1);
  EXPECT_EQ(ini.Read(), "[RunOnce]\r\na = x.mlx\r\n; b=y.mlx\r\n");
}

TEST(FileEdit, DoesNotTouchALineThatAnotherProgramPutThere) {
  const Ini ini("[S]\na = 1\nb = 2\n");
  for (const bool isDeletion : {true, false}) {
    ini.Write("[S]\na = 1\nb = 2\n");
    IniFile file(ini.Path());
    ini.Write("[S]\nnew = 0\na = 1\nb = 2\n");
    EXPECT_EQ(isDeletion ? file.DeleteLine(2) : file.InsertLine(2, "x\n"), 0);
    EXPECT_EQ(ini.Read(), "[S]\nnew = 0\na = 1\nb = 2\n");
    // The file can be changed: nothing is held against the section.
    EXPECT_EQ(NamesIn(IniFile(ini.Path()), "S"), (Names{"new", "a", "b"}));
  }
}

TEST(FileEdit, KeepsWhatAnotherProgramChangedElsewhere) {
  const Ini ini("[S]\na = 1\nb = 2\n");
  IniFile file(ini.Path());
  ini.Write("[S]\na = 1\nb = 3\nc = 4\n");
  EXPECT_EQ(file.InsertLine(2, "; a=1\r\n"), 1);
  EXPECT_EQ(file.DeleteLine(3), 1);
  EXPECT_EQ(ini.Read(), "[S]\n; a=1\r\nb = 3\nc = 4\n");
  // This line is no longer the one that the object has read.
  EXPECT_EQ(file.DeleteLine(3), 0);
  EXPECT_EQ(ini.Read(), "[S]\n; a=1\r\nb = 3\nc = 4\n");
}

TEST(FileEdit, DoesNotAppendToAFileThatHasGrown) {
  const Ini ini("a\n");
  IniFile file(ini.Path());
  ini.Write("a\nb\n");
  EXPECT_EQ(file.InsertLine(2, "x\n"), 0);
  IniFile other(ini.Path());
  ini.Write("");
  EXPECT_EQ(other.InsertLine(3, "x\n"), 0);
  EXPECT_EQ(other.InsertLine(1, "x\n"), 0);
  EXPECT_EQ(ini.Read(), "");
}

TEST(FailedEdit, HidesTheSectionUntilTheFileChanges) {
  const Ini ini("[S]\na = 1\n[T]\nb = 2\n[s]\nc = 3\n");
  ini.SetReadOnly(true);
  EXPECT_EQ(IniFile(ini.Path()).InsertLine(2, "x\n"), 0);
  ini.SetReadOnly(false);

  IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "S"), Names{});
  EXPECT_EQ(ValueOf(file, "S", "c"), "none");
  EXPECT_EQ(file.FindEntryLine("S", "a"), 0u);
  EXPECT_EQ(NamesIn(file, "T"), Names{"b"});
  EXPECT_EQ(ValueOf(file, "T", "b"), "2");

  EXPECT_EQ(file.DeleteLine(4), 1);
  EXPECT_EQ(NamesIn(IniFile(ini.Path()), "S"), (Names{"a", "c"}));
  ini.Write("[S]\na = 1\n[T]\nb = 2\n[s]\nc = 3\n");
  EXPECT_EQ(NamesIn(IniFile(ini.Path()), "S"), (Names{"a", "c"})) << "the note is dropped for good";
}

TEST(FailedEdit, EndsALoopThatRemovesEntries) {
  const Ini ini("[RunOnce]\na = 1\nb = 2\n[Run]\nc = 3\n");
  ini.SetReadOnly(true);
  Names run;
  for (ZelString name; run.size() < 10 && IniFile(ini.Path()).GetEntryName("RunOnce", 1, name);) {
    run.emplace_back(name.Utf8());
    IniFile file(ini.Path());
    const uint32_t line = file.FindEntryLine("RunOnce", name);
    file.InsertLine(line, "; a\r\n");
    file.DeleteLine(line + 1);
  }
  EXPECT_EQ(run, Names{"a"});
  EXPECT_EQ(NamesIn(IniFile(ini.Path()), "Run"), Names{"c"});
  ini.SetReadOnly(false);
}

TEST(FailedEdit, HidesEverySectionThatHoldsSuchALine) {
  const Ini ini("[A]\na=\n[B]\nb=\n[C]\nc=\n");
  ini.SetReadOnly(true);
  EXPECT_EQ(IniFile(ini.Path()).DeleteLine(1), 0);
  EXPECT_EQ(IniFile(ini.Path()).DeleteLine(6), 0);
  const IniFile file(ini.Path());
  EXPECT_EQ(NamesIn(file, "A"), Names{});
  EXPECT_EQ(NamesIn(file, "B"), Names{"b"});
  EXPECT_EQ(NamesIn(file, "C"), Names{});
  ini.SetReadOnly(false);
}

TEST(FailedEdit, IsRememberedWhateverTheNumberOfLines) {
  constexpr unsigned kLines = 70;
  std::string content;
  for (unsigned i = 0; i < kLines; ++i) content += "[" + std::to_string(i) + "] a\n";
  const Ini ini(content + "[last]\na=\n");
  ini.SetReadOnly(true);
  for (unsigned line = 1; line <= kLines; ++line) {
    EXPECT_EQ(IniFile(ini.Path()).DeleteLine(line), 0);
  }
  EXPECT_EQ(NamesIn(IniFile(ini.Path()), "last"), Names{}) << "too many to tell them apart";
  ini.SetReadOnly(false);
}

TEST(FailedEdit, IsRememberedForABoundedNumberOfFiles) {
  constexpr size_t kFiles = 70;
  const std::string content = "[S]\na=\n";
  std::vector<std::unique_ptr<Ini>> all;
  for (size_t i = 0; i < kFiles; ++i) {
    all.push_back(std::make_unique<Ini>(content));
    all.back()->SetReadOnly(true);
    EXPECT_EQ(IniFile(all.back()->Path()).DeleteLine(2), 0);
  }
  size_t remembered = 0;
  for (const auto& ini : all) {
    remembered += NamesIn(IniFile(ini->Path()), "S").empty() ? 1 : 0;
    ini->SetReadOnly(false);
  }
  EXPECT_EQ(remembered, 64u);
}

}  // namespace
