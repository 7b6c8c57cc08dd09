#include "module/startup_scripts.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

using namespace std::literals;

constexpr const char* kOpen = "IniFile(\"C:\\agent\\config\\ZelCoreUtils.ini\")";
constexpr const char* kClosesSettings = "~IniFile";

std::string EntryName(const std::string& section, int index) {
  return "IniFile::GetEntryName(\"" + section + "\", " + std::to_string(index) + ")";
}

std::string EntryValue(const std::string& section, const std::string& name) {
  return "IniFile::GetEntryValue(\"" + section + "\", \"" + name + "\", \"\")";
}

std::string EntryLine(const std::string& section, const std::string& name) {
  return "IniFile::FindEntryLine(\"" + section + "\", \"" + name + "\")";
}

std::string Invocation(const std::string& script) {
  return "ActionDbInvokeContainer(null, \"\", \"CoreUtilsRunScript\", {Name: String \"" + script +
         "\"}, null, ~0, ~0, false)";
}

class StartupScripts : public ::testing::Test {
 protected:
  StartupScripts() { InitialiseModule(host); }

  void AnswerEntry(const ZelString& name, const ZelString& script, uint32_t code = 0) {
    host.AnswerText("IniFile::GetEntryName", name);
    host.AnswerText("IniFile::GetEntryValue", script);
    host.AnswerInvocation(code);
  }
  void AnswerEnd() { host.Answer("IniFile::GetEntryName", 0); }
  void AnswerLine(uint32_t line) {
    host.Answer("IniFile::FindEntryLine", line);
    host.Answer("File::InsertLine", 1);
    host.Answer("File::DeleteLine", 1);
  }

  FakeHost host;
};

TEST_F(StartupScripts, LooksForBothSectionsInAFileWithoutEntries) {
  AnswerEnd();
  AnswerEnd();

  RunStartupScripts();

  EXPECT_THAT(host.Transcript(), ElementsAre(kOpen, EntryName("RunOnce", 1), kClosesSettings, kOpen,
                                             EntryName("Run", 1), kClosesSettings));
}

TEST_F(StartupScripts, RunsScriptsOnceInTheirOrderAndCommentsThemOut) {
  AnswerEntry("A", "x.mlx");
  AnswerLine(3);
  AnswerEntry("B", "y.mlx");
  AnswerLine(4);
  AnswerEnd();
  AnswerEnd();

  RunStartupScripts();

  // The file is closed while a script runs.
  EXPECT_THAT(host.Transcript(),
              ElementsAre(kOpen, EntryName("RunOnce", 1), EntryValue("RunOnce", "A"),
                          kClosesSettings, Invocation("x.mlx"), kOpen, EntryLine("RunOnce", "A"),
                          "File::InsertLine(3, \"; A=x.mlx\\x0d\\x0a\")", "File::DeleteLine(4)",
                          kClosesSettings, kOpen, EntryName("RunOnce", 1),
                          EntryValue("RunOnce", "B"), kClosesSettings, Invocation("y.mlx"), kOpen,
                          EntryLine("RunOnce", "B"), "File::InsertLine(4, \"; B=y.mlx\\x0d\\x0a\")",
                          "File::DeleteLine(5)", kClosesSettings, kOpen, EntryName("RunOnce", 1),
                          kClosesSettings, kOpen, EntryName("Run", 1), kClosesSettings));
}

TEST_F(StartupScripts, RunsTheOthersEachTimeAndChangesNothing) {
  AnswerEnd();
  AnswerEntry("A", "x.mlx");
  AnswerEntry("B", "y.mlx");
  AnswerEnd();

  RunStartupScripts();

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kOpen, EntryName("RunOnce", 1), kClosesSettings, kOpen, EntryName("Run", 1),
                  EntryValue("Run", "A"), kClosesSettings, Invocation("x.mlx"), kOpen,
                  EntryName("Run", 2), EntryValue("Run", "B"), kClosesSettings, Invocation("y.mlx"),
                  kOpen, EntryName("Run", 3), kClosesSettings));
}

TEST_F(StartupScripts, GoOnWhateverAScriptAnswers) {
  AnswerEntry("A", "x.mlx", kFailure);
  AnswerLine(3);
  AnswerEnd();
  AnswerEntry("B", "y.mlx", kInvokeUnknownAction);
  host.AnswerText("IniFile::GetEntryName", "C");
  host.AnswerText("IniFile::GetEntryValue", "z.mlx");
  host.AnswerInvocation(kFailure, [](ZelContainer& params) {
    params.Clear();
    params.SetString("ErrorText", "broken", kNoIndex);
  });
  AnswerEnd();

  RunStartupScripts();

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kOpen, EntryName("RunOnce", 1), EntryValue("RunOnce", "A"), kClosesSettings,
                  Invocation("x.mlx"), kOpen, EntryLine("RunOnce", "A"),
                  "File::InsertLine(3, \"; A=x.mlx\\x0d\\x0a\")", "File::DeleteLine(4)",
                  kClosesSettings, kOpen, EntryName("RunOnce", 1), kClosesSettings, kOpen,
                  EntryName("Run", 1), EntryValue("Run", "B"), kClosesSettings, Invocation("y.mlx"),
                  kOpen, EntryName("Run", 2), EntryValue("Run", "C"), kClosesSettings,
                  Invocation("z.mlx"), kOpen, EntryName("Run", 3), kClosesSettings));
}

TEST_F(StartupScripts, AskForEachScriptWithAContainerOfItsOwn) {
  const auto leaveSomething = [](ZelContainer& params) {
    params.SetString("ErrorText", "broken", kNoIndex);
  };
  for (const char* name : {"A", "B"}) {
    host.AnswerText("IniFile::GetEntryName", name);
    host.AnswerText("IniFile::GetEntryValue", "x.mlx");
    host.AnswerInvocation(kFailure, leaveSomething);
    AnswerLine(3);
  }
  AnswerEnd();
  AnswerEntry("C", "x.mlx");
  AnswerEnd();

  RunStartupScripts();

  EXPECT_EQ(std::count(host.Transcript().begin(), host.Transcript().end(), Invocation("x.mlx")), 3);
}

TEST_F(StartupScripts, RunAnEntryAgainWhoseLineIsNotFound) {
  AnswerEntry("A", "x.mlx");
  host.Answer("IniFile::FindEntryLine", 0);
  AnswerEntry("A", "x.mlx");
  AnswerLine(1);
  AnswerEnd();
  AnswerEnd();

  RunStartupScripts();

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kOpen, EntryName("RunOnce", 1), EntryValue("RunOnce", "A"),
                          kClosesSettings, Invocation("x.mlx"), kOpen, EntryLine("RunOnce", "A"),
                          kClosesSettings, kOpen, EntryName("RunOnce", 1),
                          EntryValue("RunOnce", "A"), kClosesSettings, Invocation("x.mlx"), kOpen,
                          EntryLine("RunOnce", "A"), "File::InsertLine(1, \"; A=x.mlx\\x0d\\x0a\")",
                          "File::DeleteLine(2)", kClosesSettings, kOpen, EntryName("RunOnce", 1),
                          kClosesSettings, kOpen, EntryName("Run", 1), kClosesSettings));
}

TEST_F(StartupScripts, DeleteTheLineWhateverInsertingAnswers) {
  AnswerEntry("A", "x.mlx");
  host.Answer("IniFile::FindEntryLine", 3);
  host.Answer("File::InsertLine", 0);
  host.Answer("File::DeleteLine", 0);
  AnswerEnd();
  AnswerEnd();

  RunStartupScripts();

  EXPECT_EQ(host.Transcript()[7], "File::InsertLine(3, \"; A=x.mlx\\x0d\\x0a\")");
  EXPECT_EQ(host.Transcript()[8], "File::DeleteLine(4)");
  EXPECT_EQ(host.Transcript()[11], EntryName("RunOnce", 1));
}

TEST_F(StartupScripts, RunTheEmptyNameOfAnEntryWithoutAValue) {
  host.AnswerText("IniFile::GetEntryName", "A");
  host.Answer("IniFile::GetEntryValue", 0);
  host.AnswerInvocation(kFailure);
  AnswerLine(1);
  AnswerEnd();
  AnswerEnd();

  RunStartupScripts();

  EXPECT_EQ(host.Transcript()[4], Invocation(""));
  EXPECT_EQ(host.Transcript()[7], "File::InsertLine(1, \"; A=\\x0d\\x0a\")");
}

TEST_F(StartupScripts, TakeAnyNumberButZeroAsAnEntry) {
  AnswerEnd();
  host.AnswerText("IniFile::GetEntryName", "A", 5);
  host.AnswerText("IniFile::GetEntryValue", "x.mlx", -1);
  host.AnswerInvocation(0);
  host.AnswerText("IniFile::GetEntryName", "B", -1);
  host.AnswerText("IniFile::GetEntryValue", "y.mlx");
  host.AnswerInvocation(0);
  AnswerEnd();

  RunStartupScripts();

  EXPECT_EQ(host.Transcript()[7], Invocation("x.mlx"));
  EXPECT_EQ(host.Transcript()[12], Invocation("y.mlx"));
}

TEST_F(StartupScripts, PassNamesAndValuesOnAsTheyAre) {
  const ZelString name = "100%S %u"sv;
  const ZelString script = ZelString("%s\0\xed\xa0\x80 %d"sv);
  const std::string shown = "%s\\x00\xed\xa0\x80 %d";
  AnswerEntry(name, script);
  AnswerLine(7);
  AnswerEnd();
  AnswerEnd();

  RunStartupScripts();

  EXPECT_EQ(host.Transcript()[2], EntryValue("RunOnce", "100%S %u"));
  EXPECT_EQ(host.Transcript()[4], Invocation(shown));
  EXPECT_EQ(host.Transcript()[7], "File::InsertLine(7, \"; 100%S %u=" + shown + "\\x0d\\x0a\")");
}

TEST_F(StartupScripts, TakeLineNumbersAsTheyAre) {
  AnswerEntry("A", "x.mlx");
  AnswerLine(3000000000);
  AnswerEnd();
  AnswerEnd();

  RunStartupScripts();

  EXPECT_EQ(host.Transcript()[7], "File::InsertLine(3000000000, \"; A=x.mlx\\x0d\\x0a\")");
  EXPECT_EQ(host.Transcript()[8], "File::DeleteLine(3000000001)");
}

TEST_F(StartupScripts, ForgetTheScriptBefore) {
  AnswerEnd();
  AnswerEntry("A", "x.mlx");
  host.AnswerText("IniFile::GetEntryName", "B");
  host.Answer("IniFile::GetEntryValue", 0);
  host.AnswerInvocation(kFailure);
  AnswerEnd();

  RunStartupScripts();

  EXPECT_EQ(host.Transcript()[12], Invocation(""));
}

TEST_F(StartupScripts, CloseTheFileWhenSomethingIsThrown) {
  AnswerEntry("A", "x.mlx");
  AnswerLine(3);
  host.FailCall(8, FakeHost::Fault::kThrowOnce);

  EXPECT_THROW(RunStartupScripts(), std::runtime_error);

  EXPECT_EQ(host.Transcript().back(), kClosesSettings);
}

TEST_F(StartupScripts, RunWhenTheModuleIsActivated) {
  AnswerEntry("A", "x.mlx");
  AnswerLine(3);
  AnswerEnd();
  AnswerEntry("B", "y.mlx");
  AnswerEnd();

  EXPECT_EQ(ModuleMain(4, 0, nullptr), 1u);

  EXPECT_EQ(host.Transcript()[0], "Trace \"Module Activate starting\"");
  EXPECT_EQ(host.Transcript()[5], Invocation("x.mlx"));
  EXPECT_EQ(host.Transcript().back(), kClosesSettings);
}

}  // namespace
