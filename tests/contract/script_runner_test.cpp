#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "tests/contract/module_test.h"
#include "tests/fake_host/fake_function_module.h"

namespace {

using namespace std::literals;
using ::testing::AllOf;
using ::testing::Each;
using ::testing::SizeIs;

constexpr const char* kScript = "C:\\scripts\\test.mlx";
constexpr const char* kLoading = "MarlinContext::LoadFunctionModule(\"zelagent.mlx\", \"\", null)";

Lines ScriptStart(const std::string& name) {
  return {"Trace \"Action_CoreUtilsRunScript " + name + "\"", "MarlinContext(null)",
          "XmlProxyClient()", "OSVersion::GetFullVersion()"};
}

Lines Connection() {
  return {"ZelAgentGetProxyPipeName()", "XmlProxyClient::Initialise(\"pipe\", 10000, 1)",
          "MarlinContext::SetXmlProxyClient(client of \"pipe\")"};
}

Lines Agent() {
  return {"ZelAgentGetAppHandle()",
          "MarlinContext::SetAppInstance(4711)",
          "ZelAgentGetExePath()",
          "MarlinContext::SetExePath(\"C:\\agent\\bin\\zelagent.exe\")",
          "ZelAgentGetConfigDir()",
          "MarlinContext::SetIniDir(\"C:\\agent\\config\\\")",
          kLoading};
}

Lines HandedOver(const std::string& container) {
  return {
      "VarHandle(\"ContainerHandle\", \"\", 0)",
      "MarlinContext::AddVariable(\"ContainerHandle\" \"ParamsContainer\" " + container + ", 2)",
      "AddContainerVariable(\"ParamsContainer\", " + container + ")",
      "SetActionInvokeAddress(ActionDbInvokeContainer)"};
}

Lines Preparation(const std::string& name, const std::string& container) {
  return Join({ScriptStart(name), Connection(), Agent(), FunctionLookups(FunctionModuleHandle()),
               HandedOver(container)});
}

Lines Compilation(const std::string& path) {
  return {"FileExists(\"" + path + "\")", "MarlinContext::SetScriptFile(\"" + path + "\", 1)",
          "MarlinContext::CompileScriptFile(\"" + path + "\")"};
}

Lines MainRun() {
  return {"MarlinContext::RunProcedure(\"main\", stack)"};
}

Lines Error(int code) {
  return {"MarlinContext::GetContextError()",
          "MarlinContext::GetVariable(\"ErrLine\", 2)",
          "VarHandle::GetIntegerValue()",
          "MarlinContext::GetContextErrorText()",
          "ErrorList::GetErrorText(" + std::to_string(code) + ")",
          "ErrorList::GetErrorName(" + std::to_string(code) + ")"};
}

Lines ScriptEnd() {
  return {"~XmlProxyClient", "~MarlinContext"};
}

class RunScript : public ModuleTest {
 protected:
  RunScript() { InitialiseModule(host); }

  void AnswerConnection() {
    host.AnswerText("OSVersion::GetFullVersion", "010.000.19045");
    host.AnswerText("ZelAgentGetProxyPipeName", "pipe");
    host.Answer("XmlProxyClient::Initialise", 1);
  }
  void AnswerAgent() {
    host.Answer("ZelAgentGetAppHandle", 4711);
    host.AnswerText("ZelAgentGetExePath", "C:\\agent\\bin\\zelagent.exe");
    host.AnswerText("ZelAgentGetConfigDir", "C:\\agent\\config\\");
  }
  /// What lies before the script itself.
  void AnswerPreparation() {
    AnswerConnection();
    AnswerAgent();
    host.AnswerModule(true, FunctionModuleHandle());
  }
  void AnswerCompiled(int compiled) {
    host.Answer("FileExists", 1);
    host.Answer("MarlinContext::CompileScriptFile", compiled);
  }
  void AnswerRun(int succeeded) {
    AnswerCompiled(1);
    host.Answer("MarlinContext::RunProcedure", succeeded);
  }
  /// An error that has a line.
  void AnswerError(int code, int64_t line) {
    host.Answer("MarlinContext::GetContextError", code);
    host.Answer("MarlinContext::GetVariable", 1);
    host.Answer("VarHandle::GetIntegerValue", line);
    AnswerErrorTexts("NAME", "A text", "what it was");
  }
  void AnswerErrorTexts(const ZelString& name, const ZelString& text, const ZelString& context) {
    host.AnswerText("MarlinContext::GetContextErrorText", context);
    host.AnswerText("ErrorList::GetErrorText", text);
    host.AnswerText("ErrorList::GetErrorName", name);
  }
  /// The path at which the script `name` is looked for; it is not there.
  std::string LookedFor(const ZelContainer& params) {
    host.ForgetTranscript();
    AnswerPreparation();
    host.Answer("FileExists", 0);
    EXPECT_EQ(ModuleTest::Run("CoreUtilsRunScript", params), (Outcome{kFailure, Describe(params)}));
    const Lines& lines = host.Transcript();
    return lines.size() < 4 ? "" : lines[lines.size() - 4];
  }
  Outcome RunIt(const ZelContainer& params) {
    return ModuleTest::Run("CoreUtilsRunScript", params);
  }
};

TEST_F(RunScript, MakesAContextCompilesTheScriptAndRunsItsMain) {
  ZelContainer params = Texts({{"Name", kScript}, {"Other", "x"}});
  params.SetContainer("Params", Texts({{"A", "1"}, {"B", "2"}}), kNoIndex);
  AnswerPreparation();
  AnswerRun(1);

  EXPECT_EQ(RunIt(params), (Outcome{kSuccess, Describe(params)}));

  EXPECT_EQ(host.Transcript(), Join({Preparation(kScript, "{A: String \"1\", B: String \"2\"}"),
                                     Compilation(kScript), MainRun(), ScriptEnd()}));
}

TEST_F(RunScript, LeavesTheContainerWhileTheScriptRuns) {
  AnswerPreparation();
  AnswerRun(1);

  EXPECT_THAT(KeysAtEachCall("CoreUtilsRunScript", Texts({{"Name", kScript}, {"Other", "x"}})),
              AllOf(SizeIs(24 + FunctionLookups(FunctionModuleHandle()).size()), Each(2)));
}

TEST_F(RunScript, GivesTheScriptAnEmptyContainerWithoutParams) {
  ZelContainer text = Texts({{"Name", kScript}, {"Params", "x"}});
  ZelContainer list = Texts({{"Name", kScript}});
  list.SetContainer("Params", Texts({{"A", "1"}}), 0);
  for (const ZelContainer& params : {Texts({{"Name", kScript}}), text, list}) {
    host.ForgetTranscript();
    AnswerPreparation();
    AnswerRun(1);

    EXPECT_EQ(RunIt(params), (Outcome{kSuccess, Describe(params)}));

    EXPECT_EQ(host.Transcript(),
              Join({Preparation(kScript, "{}"), Compilation(kScript), MainRun(), ScriptEnd()}));
  }
}

TEST_F(RunScript, TakesAnyNumberButZeroAsSuccess) {
  AnswerPreparation();
  host.Answer("FileExists", 7);
  host.Answer("MarlinContext::CompileScriptFile", -1);
  host.Answer("MarlinContext::RunProcedure", 256);

  EXPECT_EQ(RunIt(Texts({{"Name", kScript}})).code, kSuccess);
}

// ---- the user session ----

TEST_F(RunScript, ConnectsToNoProxyOnSystemsOlderThanXp) {
  for (const char* version : {"", "004.000.01381", "005.000.02195", "005.001.02599"}) {
    host.ForgetTranscript();
    host.AnswerText("OSVersion::GetFullVersion", version);
    AnswerAgent();
    host.AnswerModule(true, FunctionModuleHandle());
    AnswerRun(1);

    EXPECT_EQ(RunIt(Texts({{"Name", kScript}})).code, kSuccess) << version;

    EXPECT_EQ(host.Transcript(),
              Join({ScriptStart(kScript), Agent(), FunctionLookups(FunctionModuleHandle()),
                    HandedOver("{}"), Compilation(kScript), MainRun(), ScriptEnd()}));
  }
}

TEST_F(RunScript, ConnectsToTheProxyFromXpOn) {
  for (const char* version : {"005.001.02600", "005.001.02601", "006.001.07601", "010.000.00000"}) {
    host.ForgetTranscript();
    host.AnswerText("OSVersion::GetFullVersion", version);
    host.AnswerText("ZelAgentGetProxyPipeName", "pipe");
    host.Answer("XmlProxyClient::Initialise", 1);
    AnswerAgent();
    host.AnswerModule(true, FunctionModuleHandle());
    AnswerRun(1);

    EXPECT_EQ(RunIt(Texts({{"Name", kScript}})).code, kSuccess) << version;

    EXPECT_EQ(host.Transcript(),
              Join({Preparation(kScript, "{}"), Compilation(kScript), MainRun(), ScriptEnd()}));
  }
}

TEST_F(RunScript, GoesOnWithoutAProxy) {
  host.AnswerText("OSVersion::GetFullVersion", "010.000.19045");
  host.AnswerText("ZelAgentGetProxyPipeName", "");
  AnswerAgent();
  host.AnswerModule(true, FunctionModuleHandle());
  AnswerRun(1);

  EXPECT_EQ(RunIt(Texts({{"Name", kScript}})).code, kSuccess);

  EXPECT_EQ(host.Transcript(), Join({ScriptStart(kScript),
                                     {"ZelAgentGetProxyPipeName()"},
                                     Agent(),
                                     FunctionLookups(FunctionModuleHandle()),
                                     HandedOver("{}"),
                                     Compilation(kScript),
                                     MainRun(),
                                     ScriptEnd()}));
}

TEST_F(RunScript, GoesOnWithAProxyThatCannotBeReached) {
  host.AnswerText("OSVersion::GetFullVersion", "010.000.19045");
  host.AnswerText("ZelAgentGetProxyPipeName", "100%S\x01");
  host.Answer("XmlProxyClient::Initialise", 0);
  AnswerAgent();
  host.AnswerModule(true, FunctionModuleHandle());
  AnswerRun(1);

  EXPECT_EQ(RunIt(Texts({{"Name", kScript}})).code, kSuccess);

  EXPECT_EQ(
      host.Transcript(),
      Join({ScriptStart(kScript),
            {"ZelAgentGetProxyPipeName()", "XmlProxyClient::Initialise(\"100%S\\x01\", 10000, 1)"},
            Agent(),
            FunctionLookups(FunctionModuleHandle()),
            HandedOver("{}"),
            Compilation(kScript),
            MainRun(),
            ScriptEnd()}));
}

// ---- the function module ----

TEST_F(RunScript, FailsWithoutAFunctionModuleWhateverLoadingAnswers) {
  for (const bool loaded : {false, true}) {
    host.ForgetTranscript();
    AnswerConnection();
    AnswerAgent();
    host.AnswerModule(loaded, nullptr);
    host.AnswerText("MarlinContext::GetIniPath", "C:\\100%S\\marlin.ini");

    EXPECT_EQ(RunIt(Texts({{"Name", kScript}})),
              (Outcome{kFailure, "{Name: String \"" + std::string(kScript) + "\"}"}));

    EXPECT_EQ(host.Transcript(), Join({ScriptStart(kScript),
                                       Connection(),
                                       Agent(),
                                       {"MarlinContext::GetIniPath()",
                                        "Error \"Failed to load module zelagent.mlx using INI file "
                                        "C:\\100%S\\marlin.ini\""},
                                       ScriptEnd()}));
  }
}

TEST_F(RunScript, UsesAFunctionModuleThatLoadingGaveWhateverItAnswers) {
  AnswerConnection();
  AnswerAgent();
  host.AnswerModule(false, FunctionModuleHandle());
  AnswerRun(1);

  EXPECT_EQ(RunIt(Texts({{"Name", kScript}})).code, kSuccess);

  EXPECT_EQ(host.Transcript(),
            Join({Preparation(kScript, "{}"), Compilation(kScript), MainRun(), ScriptEnd()}));
}

TEST_F(RunScript, FailsWithALibraryThatLacksBothFunctions) {
  AnswerConnection();
  AnswerAgent();
  host.AnswerModule(true, OtherLibraryHandle());

  EXPECT_EQ(RunIt(Texts({{"Name", kScript}})),
            (Outcome{kFailure, "{Name: String \"" + std::string(kScript) + "\"}"}));

  EXPECT_EQ(host.Transcript(), Join({ScriptStart(kScript),
                                     Connection(),
                                     Agent(),
                                     FunctionLookups(OtherLibraryHandle()),
                                     {"Error \"Failed to get required function addresses\""},
                                     ScriptEnd()}));
}

// ---- where the script is ----

TEST_F(RunScript, UsesRootedNamesAsTheyAre) {
  for (const char* name :
       {"C:\\dir\\x.mlx", "C:/dir/x.mlx", "C:\\x.mlx", "\\x.mlx", "/opt/../x.mlx", "\\dir\\x",
        "\\\\server\\share\\test.mlx", "//server/share/test.mlx", "/", "C:\\"}) {
    EXPECT_EQ(LookedFor(Texts({{"Name", name}})), "FileExists(\"" + std::string(name) + "\")");
  }
}

TEST_F(RunScript, LooksForOtherNamesBelowTheDataDirectory) {
  for (const char* name :
       {"test.mlx", "test", "scripts/test.mlx", "sub\\x.mlx", "C:x.mlx", "C:sub\\x.mlx",
        "..\\x.mlx", "./x.mlx", ".", "", " /x.mlx", "100%S.mlx"}) {
    host.AnswerText("CompletePath", "C:\\complete\\" + ZelString(name));

    EXPECT_EQ(LookedFor(Texts({{"Name", name}})),
              "FileExists(\"C:\\complete\\" + std::string(name) + "\")");

    const Lines& lines = host.Transcript();
    EXPECT_EQ(lines[lines.size() - 5],
              "CompletePath(\"C:\\agent\\data\\ZelCoreUtils\\" + std::string(name) + "\")");
  }
}

TEST_F(RunScript, CompilesAndRunsTheCompletePath) {
  AnswerPreparation();
  host.AnswerText("CompletePath", "C:\\complete\\test.mlx");
  AnswerRun(1);

  EXPECT_EQ(RunIt(Texts({{"Name", "test.mlx"}})).code, kSuccess);

  EXPECT_EQ(host.Transcript(), Join({Preparation("test.mlx", "{}"),
                                     {"CompletePath(\"C:\\agent\\data\\ZelCoreUtils\\test.mlx\")"},
                                     Compilation("C:\\complete\\test.mlx"),
                                     MainRun(),
                                     ScriptEnd()}));
}

TEST_F(RunScript, TakesNamesWithNulCharactersAndLoneSurrogates) {
  ZelContainer params;
  params.SetString("Name", ZelString("/a\0b\xed\xa0\x80"sv), kNoIndex);

  EXPECT_EQ(LookedFor(params), "FileExists(\"/a\\x00b\xed\xa0\x80\")");

  EXPECT_EQ(host.Transcript()[0], "Trace \"Action_CoreUtilsRunScript /a\\x00b\xed\xa0\x80\"");
}

TEST_F(RunScript, TakesNoNameThatIsAListOrANumber) {
  std::vector<ZelContainer> containers = ListsAndNumbers({"Name"});
  containers.emplace_back();
  for (const ZelContainer& params : containers) {
    host.AnswerText("CompletePath", "C:\\complete\\");
    EXPECT_EQ(LookedFor(params), "FileExists(\"C:\\complete\\\")");
    EXPECT_EQ(host.Transcript()[0], "Trace \"Action_CoreUtilsRunScript \"");
  }
}

TEST_F(RunScript, LeavesTheContainerWhenThereIsNoScript) {
  ZelContainer params = Texts({{"Name", "100%S %u"}});
  params.SetBool("CompileOnly", true, kNoIndex);
  AnswerPreparation();
  host.AnswerText("CompletePath", "C:\\complete\\100%S %u");
  host.Answer("FileExists", 0);

  EXPECT_EQ(RunIt(params),
            (Outcome{kFailure, "{Name: String \"100%S %u\", CompileOnly: Bool true}"}));

  EXPECT_EQ(host.Transcript(), Join({Preparation("100%S %u", "{}"),
                                     {"CompletePath(\"C:\\agent\\data\\ZelCoreUtils\\100%S %u\")",
                                      "FileExists(\"C:\\complete\\100%S %u\")",
                                      "Warning \"File C:\\complete\\100%S %u does not exist.\""},
                                     ScriptEnd()}));
}

// ---- compiling ----

TEST_F(RunScript, RunsNothingOfAScriptThatIsOnlyToBeCompiled) {
  ZelContainer params = Texts({{"Name", kScript}});
  params.SetBool("CompileOnly", true, kNoIndex);
  AnswerPreparation();
  AnswerCompiled(1);

  EXPECT_EQ(RunIt(params), (Outcome{kSuccess, Describe(params)}));

  EXPECT_EQ(host.Transcript(),
            Join({Preparation(kScript, "{}"), Compilation(kScript), ScriptEnd()}));
}

TEST_F(RunScript, RunsTheScriptWhenCompileOnlyIsNoFlag) {
  ZelContainer number = Texts({{"Name", kScript}});
  number.SetInt32("CompileOnly", 1, kNoIndex);
  ZelContainer list = Texts({{"Name", kScript}});
  list.SetBool("CompileOnly", true, 0);
  ZelContainer off = Texts({{"Name", kScript}});
  off.SetBool("CompileOnly", false, kNoIndex);
  for (const ZelContainer& params :
       {number, list, off, Texts({{"Name", kScript}, {"CompileOnly", "true"}})}) {
    host.ForgetTranscript();
    AnswerPreparation();
    AnswerRun(1);

    EXPECT_EQ(RunIt(params), (Outcome{kSuccess, Describe(params)}));

    EXPECT_EQ(host.Transcript(),
              Join({Preparation(kScript, "{}"), Compilation(kScript), MainRun(), ScriptEnd()}));
  }
}

TEST_F(RunScript, ReportsWhatDoesNotCompile) {
  for (const bool compileOnly : {false, true}) {
    host.ForgetTranscript();
    ZelContainer params = Texts({{"Name", kScript}, {"ErrorLine", "mine"}, {"Other", "x"}});
    params.SetContainer("Params", Texts({{"A", "1"}}), kNoIndex);
    params.SetBool("CompileOnly", compileOnly, kNoIndex);
    AnswerPreparation();
    AnswerCompiled(0);
    AnswerError(3, 17);

    EXPECT_EQ(RunIt(params),
              (Outcome{kFailure,
                       "{ErrorText: String \"Fatal parse or run time error NAME line 17\\x0d\\x0a"
                       "A text: what it was\", ErrorLine: Int32 17}"}));

    EXPECT_EQ(host.Transcript(), Join({Preparation(kScript, "{A: String \"1\"}"),
                                       Compilation(kScript),
                                       Error(3),
                                       {"Print \"Compiling C:\\scripts\\test.mlx failed\""},
                                       ScriptEnd()}));
  }
}

TEST_F(RunScript, ReportsWhatFailsWithABlankMore) {
  ZelContainer params = Texts({{"Name", kScript}, {"Other", "x"}});
  AnswerPreparation();
  AnswerRun(0);
  AnswerError(-5, 18);

  EXPECT_EQ(RunIt(params),
            (Outcome{kFailure,
                     "{ErrorText: String \"Fatal parse or run time error NAME line 18\\x0d\\x0a "
                     "A text: what it was\", ErrorLine: Int32 18}"}));

  EXPECT_EQ(host.Transcript(), Join({Preparation(kScript, "{}"),
                                     Compilation(kScript),
                                     MainRun(),
                                     Error(-5),
                                     {"Print \"Running C:\\scripts\\test.mlx failed\""},
                                     ScriptEnd()}));
}

TEST_F(RunScript, LogsWhatFailsWhenTheContainerTellsItAlready) {
  for (const bool compiled : {false, true}) {
    AnswerPreparation();
    if (compiled) {
      AnswerRun(0);
    } else {
      AnswerCompiled(0);
    }
    AnswerError(3, 17);

    const std::vector<size_t> keys = KeysAtEachCall(
        "CoreUtilsRunScript", Texts({{"Name", kScript}, {"Other", "x"}, {"More", "y"}}));

    // The last calls: the error's name, the log line, what goes with the end.
    ASSERT_GE(keys.size(), 4u);
    EXPECT_THAT(std::vector(keys.end() - 4, keys.end()), ElementsAre(3, 2, 2, 2));
  }
}

TEST_F(RunScript, NamesTheCompletePathOfWhatFails) {
  for (const bool compiled : {false, true}) {
    host.ForgetTranscript();
    AnswerPreparation();
    host.AnswerText("CompletePath", "C:\\100%S\\a.mlx");
    if (compiled) {
      AnswerRun(0);
    } else {
      AnswerCompiled(0);
    }
    AnswerError(3, 17);

    EXPECT_EQ(RunIt(Texts({{"Name", "a.mlx"}})).code, kFailure);

    const Lines& lines = host.Transcript();
    EXPECT_EQ(lines[lines.size() - 3], "Print \"" +
                                           std::string(compiled ? "Running" : "Compiling") +
                                           " C:\\100%S\\a.mlx failed\"");
  }
}

TEST_F(RunScript, WritesTheLineUnsignedIntoTheTextAndSignedBesideIt) {
  AnswerPreparation();
  AnswerCompiled(0);
  AnswerError(3, -1);

  EXPECT_EQ(RunIt(Texts({{"Name", kScript}})),
            (Outcome{kFailure,
                     "{ErrorText: String \"Fatal parse or run time error NAME line 4294967295"
                     "\\x0d\\x0aA text: what it was\", ErrorLine: Int32 -1}"}));
}

TEST_F(RunScript, ReportsLineZeroWithoutALineVariable) {
  AnswerPreparation();
  AnswerRun(0);
  host.Answer("MarlinContext::GetContextError", 5);
  host.Answer("MarlinContext::GetVariable", 0);
  AnswerErrorTexts("NAME", "A text", "what it was");

  EXPECT_EQ(RunIt(Texts({{"Name", kScript}})),
            (Outcome{kFailure,
                     "{ErrorText: String \"Fatal parse or run time error NAME line 0\\x0d\\x0a "
                     "A text: what it was\", ErrorLine: Int32 0}"}));
}

TEST_F(RunScript, TakesErrorTextsAsTheyAre) {
  for (const auto& [compiled, blank] : {std::pair{false, ""}, std::pair{true, " "}}) {
    AnswerPreparation();
    if (compiled) {
      AnswerRun(0);
    } else {
      AnswerCompiled(0);
    }
    host.Answer("MarlinContext::GetContextError", 5);
    host.Answer("MarlinContext::GetVariable", 1);
    host.Answer("VarHandle::GetIntegerValue", 2);
    AnswerErrorTexts("%S", "%u%%", ZelString("%s\0\xed\xa0\x80"sv));

    EXPECT_EQ(
        RunIt(Texts({{"Name", kScript}})),
        (Outcome{kFailure,
                 "{ErrorText: String \"Fatal parse or run time error %S line 2\\x0d\\x0a" +
                     std::string(blank) + "%u%%: %s\\x00\xed\xa0\x80\", ErrorLine: Int32 2}"}));
  }
}

}  // namespace
