#include <string>

#include "tests/contract/module_test.h"

namespace {

using WideText = std::basic_string<TCHAR>;

constexpr TCHAR kGuard = 0x2620;
constexpr size_t kBufferLength = 100;

WideText GuardedBuffer() {
  return WideText(kBufferLength, kGuard);
}

/// Checks that `buffer` holds `text` with its terminator and nothing else was written.
void ExpectTextAlone(const WideText& buffer, const std::string& text) {
  ASSERT_LT(text.size(), buffer.size());
  EXPECT_EQ(ZelString(buffer.c_str()).Utf8(), text);
  EXPECT_EQ(buffer.substr(text.size() + 1), WideText(buffer.size() - text.size() - 1, kGuard));
}

void AnswerNoScripts(FakeHost& host) {
  for (int section = 0; section < 2; ++section) host.Answer("IniFile::GetEntryName", 0);
}

/// What can only be seen before the module is initialised.
struct BeforeInitialise {
  bool werePathsEmpty = false;
  uint32_t activateAnswered = 0;
  Lines activateCalls;
};

/// Looks before the first test of this program, which may initialise the module.
class LookBeforeInitialise : public ::testing::Environment {
 public:
  explicit LookBeforeInitialise(BeforeInitialise* seen) : seen_(seen) {}
  void SetUp() override {
    if (hasLooked_) return;
    hasLooked_ = true;
    seen_->werePathsEmpty = ModuleDataDirectory().IsEmpty() && ModuleIniPath().IsEmpty();
    FakeHost host;
    AnswerNoScripts(host);
    seen_->activateAnswered = ModuleMain(4, 0, nullptr);
    seen_->activateCalls = host.Transcript();
  }

 private:
  BeforeInitialise* seen_;
  bool hasLooked_ = false;
};

BeforeInitialise beforeInitialise;
[[maybe_unused]] const auto* const lookBeforeInitialise =
    ::testing::AddGlobalTestEnvironment(new LookBeforeInitialise(&beforeInitialise));

TEST(ModuleMain, ConstructsItsLoggerWhenTheLibraryIsLoaded) {
  EXPECT_THAT(FakeHost::Loggers(),
              ElementsAre(std::pair<std::string, std::string>(
                  "ZelCoreUtils",
                  "CoreUtils module for common functions like FileCopy (CoreUtilsModule)")));
}

TEST(ModuleMain, AnswersFiveToUnknownCommandsAndDoesNothing) {
  for (const uint32_t command : {0U, 10U, 11U, 255U, 0x80000001U, 0x10001U, ~0U}) {
    FakeHost host;
    WideText buffer = GuardedBuffer();

    EXPECT_EQ(ModuleMain(command, 0, buffer.data()), 5u) << command;

    EXPECT_THAT(host.Transcript(), IsEmpty()) << command;
    EXPECT_EQ(buffer, GuardedBuffer()) << command;
  }
}

TEST(ModuleMain, RegisterBindsTheLoggerBeforeItsFirstLine) {
  FakeHost host;
  host.Answer("ZelAgentGetDebugContext", 1234);
  for (int i = 0; i < kActionCount; ++i) host.Answer("ActionDbRegisterAction", 0);

  EXPECT_EQ(ModuleMain(1, 7, nullptr), 1u);

  ASSERT_EQ(host.Transcript().size(), 3u + kActionCount);
  EXPECT_EQ(host.Transcript()[0], "ZelAgentGetDebugContext()");
  EXPECT_EQ(host.Transcript()[1], "ZelDebug::SetContext(1234)");
  EXPECT_EQ(host.Transcript()[2], "Trace \"Module Register starting\"");
}

TEST(ModuleMain, RegisterDoesNotWriteIntoTheRegistrationContext) {
  FakeHost host;
  host.Answer("ZelAgentGetDebugContext", 1234);
  for (int i = 0; i < kActionCount; ++i) host.Answer("ActionDbRegisterAction", 0);
  WideText context = GuardedBuffer();

  ModuleMain(1, 0, context.data());

  EXPECT_EQ(context, GuardedBuffer());
}

TEST(ModuleMain, UnregisterOnlyTraces) {
  for (const uint32_t argument : {0U, 7U, 0x12345678U, ~0U}) {
    FakeHost host;
    EXPECT_EQ(ModuleMain(2, argument, nullptr), 1u);
    EXPECT_THAT(host.Transcript(), ElementsAre("Trace \"Module Unregister starting\""));
  }
}

TEST(ModuleMain, InitialiseSetsUpThePathsAndTheEnvironment) {
  FakeHost host;
  AnswerInitialise(host, 1);

  EXPECT_EQ(ModuleMain(3, 0, nullptr), 1u);

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Trace \"Module Initialise starting\"", "ZelAgentGetDataDir()",
                          "PathCreate(\"C:\\agent\\data\\ZelCoreUtils\")", "ZelAgentGetConfigDir()",
                          "Print \"Module config file is C:\\agent\\config\\ZelCoreUtils.ini\"",
                          "ZelAgentGetConfigDir()", "CompletePath(\"C:\\agent\\config\\../bin\")",
                          "SetEnvVariable(\"QOVA_AGENT\", \"C:\\agent\\bin\")"));
  EXPECT_EQ(ModuleDataDirectory().Utf8(), "C:\\agent\\data\\ZelCoreUtils");
  EXPECT_EQ(ModuleIniPath().Utf8(), "C:\\agent\\config\\ZelCoreUtils.ini");
}

TEST(ModuleMain, InitialiseGoesOnWithoutADataDirectory) {
  FakeHost host;
  AnswerInitialise(host, 0);

  EXPECT_EQ(ModuleMain(3, 0, nullptr), 1u);

  EXPECT_EQ(host.Transcript().back(), "SetEnvVariable(\"QOVA_AGENT\", \"C:\\agent\\bin\")");
}

TEST(ModuleMain, InitialiseAgainReplacesThePaths) {
  FakeHost host;
  InitialiseModule(host);
  host.AnswerText("ZelAgentGetDataDir", "D:\\moved\\data\\");
  host.Answer("PathCreate", 1);
  host.AnswerText("ZelAgentGetConfigDir", "D:\\moved\\config\\");
  host.AnswerText("ZelAgentGetConfigDir", "D:\\moved\\config\\");
  host.AnswerText("CompletePath", "D:\\moved\\bin");

  EXPECT_EQ(ModuleMain(3, 0, nullptr), 1u);

  EXPECT_EQ(ModuleDataDirectory().Utf8(), "D:\\moved\\data\\ZelCoreUtils");
  EXPECT_EQ(ModuleIniPath().Utf8(), "D:\\moved\\config\\ZelCoreUtils.ini");
  EXPECT_EQ(host.Transcript().back(), "SetEnvVariable(\"QOVA_AGENT\", \"D:\\moved\\bin\")");
}

TEST(ModuleMain, InitialiseTakesTheAgentsDirectoriesAsTheyAre) {
  FakeHost host;
  host.AnswerText("ZelAgentGetDataDir", "data");
  host.Answer("PathCreate", 1);
  host.AnswerText("ZelAgentGetConfigDir", "100%%S/gr\xc3\xbcn");
  host.AnswerText("ZelAgentGetConfigDir", "100%%S/gr\xc3\xbcn");
  host.AnswerText("CompletePath", "/100%%S/gr\xc3\xbcn/bin");

  EXPECT_EQ(ModuleMain(3, 0, nullptr), 1u);

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Trace \"Module Initialise starting\"", "ZelAgentGetDataDir()",
                          "PathCreate(\"dataZelCoreUtils\")", "ZelAgentGetConfigDir()",
                          "Print \"Module config file is 100%%S/gr\xc3\xbcnZelCoreUtils.ini\"",
                          "ZelAgentGetConfigDir()", "CompletePath(\"100%%S/gr\xc3\xbcn../bin\")",
                          "SetEnvVariable(\"QOVA_AGENT\", \"/100%%S/gr\xc3\xbcn/bin\")"));
}

TEST(ModuleMain, CleanupAndUnregisterKeepThePaths) {
  FakeHost host;
  AnswerInitialise(host, 1);

  for (const uint32_t command : {3U, 5U, 2U}) ModuleMain(command, 0, nullptr);

  EXPECT_EQ(ModuleDataDirectory().Utf8(), "C:\\agent\\data\\ZelCoreUtils");
  EXPECT_EQ(ModuleIniPath().Utf8(), "C:\\agent\\config\\ZelCoreUtils.ini");
}

TEST(ModuleMain, KnowsNoPathsBeforeInitialise) {
  EXPECT_TRUE(beforeInitialise.werePathsEmpty);
}

TEST(ModuleMain, ActivateBeforeInitialiseLooksIntoAnIniFileWithoutAName) {
  EXPECT_EQ(beforeInitialise.activateAnswered, 1u);
  EXPECT_THAT(beforeInitialise.activateCalls,
              ElementsAre("Trace \"Module Activate starting\"", "IniFile(\"\")",
                          "IniFile::GetEntryName(\"RunOnce\", 1)", "~IniFile", "IniFile(\"\")",
                          "IniFile::GetEntryName(\"Run\", 1)", "~IniFile"));
}

TEST(ModuleMain, CommandsWithoutATextLeaveTheBufferAlone) {
  for (const uint32_t command : {2U, 3U, 4U, 5U}) {
    FakeHost host;
    if (command == 3) AnswerInitialise(host, 1);
    if (command == 4) AnswerNoScripts(host);
    WideText buffer = GuardedBuffer();

    EXPECT_EQ(ModuleMain(command, 0, buffer.data()), 1u) << command;

    EXPECT_EQ(buffer, GuardedBuffer()) << command;
  }
}

TEST(ModuleMain, ActivateTracesBeforeItLooksForScriptsInTheIniFile) {
  for (const uint32_t argument : {0U, 7U, ~0U}) {
    FakeHost host;
    InitialiseModule(host);
    AnswerNoScripts(host);

    EXPECT_EQ(ModuleMain(4, argument, nullptr), 1u);

    EXPECT_THAT(host.Transcript(), ElementsAre("Trace \"Module Activate starting\"",
                                               "IniFile(\"C:\\agent\\config\\ZelCoreUtils.ini\")",
                                               "IniFile::GetEntryName(\"RunOnce\", 1)", "~IniFile",
                                               "IniFile(\"C:\\agent\\config\\ZelCoreUtils.ini\")",
                                               "IniFile::GetEntryName(\"Run\", 1)", "~IniFile"));
  }
}

TEST(ModuleMain, CleanupOnlyTraces) {
  for (const uint32_t argument : {0U, 7U, 0x12345678U, ~0U}) {
    FakeHost host;
    EXPECT_EQ(ModuleMain(5, argument, nullptr), 1u);
    EXPECT_THAT(host.Transcript(), ElementsAre("Trace \"Module Cleanup starting\""));
  }
}

TEST(ModuleMain, CopiesTheDescriptionWithItsTerminatorAndNothingBeyond) {
  FakeHost host;
  WideText buffer = GuardedBuffer();

  EXPECT_EQ(ModuleMain(6, 0, buffer.data()), 1u);

  ExpectTextAlone(buffer, "CoreUtils module for common functions like FileCopy (CoreUtilsModule)");
  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST(ModuleMain, CopiesTheVersionWithItsTerminatorAndNothingBeyond) {
  FakeHost host;
  WideText buffer = GuardedBuffer();

  EXPECT_EQ(ModuleMain(7, 0, buffer.data()), 1u);

  ExpectTextAlone(buffer, "11.5.0.121004r - Oct  4 2012 - 17:35:35");
  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST(ModuleMain, CommandsEightAndNineLeaveTheBufferAlone) {
  for (const uint32_t command : {8U, 9U}) {
    FakeHost host;
    WideText buffer = GuardedBuffer();

    EXPECT_EQ(ModuleMain(command, 0, buffer.data()), 1u);

    EXPECT_EQ(buffer, GuardedBuffer());
    EXPECT_THAT(host.Transcript(), IsEmpty());
  }
}

}  // namespace
