// A function module that has one of its functions alone: on Windows the system looks them up, and
// there is no such library.

#include "tests/contract/module_test.h"
#include "tests/fake_host/fake_function_module.h"
#include "tests/fake_host/platform/posix/fake_library.h"

namespace {

class ScriptFunctions : public ModuleTest {
 protected:
  /// Runs a script whose function module exports `function` alone.
  Outcome RunWith(FakeLibrary& library) {
    host.AnswerText("OSVersion::GetFullVersion", "");
    host.Answer("ZelAgentGetAppHandle", 0);
    host.AnswerText("ZelAgentGetExePath", "");
    host.AnswerText("ZelAgentGetConfigDir", "");
    host.AnswerModule(true, &library);
    return Run("CoreUtilsRunScript", Texts({{"Name", "/a.mlx"}}));
  }
};

TEST_F(ScriptFunctions, AreBothNeeded) {
  for (const char* function : {"AddContainerVariable", "SetActionInvokeAddress"}) {
    host.ForgetTranscript();
    FakeLibrary library{{function}};

    EXPECT_EQ(RunWith(library), (Outcome{kFailure, "{Name: String \"/a.mlx\"}"}));

    const std::vector<std::string> lookups = FunctionLookups(&library);
    EXPECT_THAT(
        host.Transcript(),
        ElementsAre("Trace \"Action_CoreUtilsRunScript /a.mlx\"", "MarlinContext(null)",
                    "XmlProxyClient()", "OSVersion::GetFullVersion()", "ZelAgentGetAppHandle()",
                    "MarlinContext::SetAppInstance(null)", "ZelAgentGetExePath()",
                    "MarlinContext::SetExePath(\"\")", "ZelAgentGetConfigDir()",
                    "MarlinContext::SetIniDir(\"\")",
                    "MarlinContext::LoadFunctionModule(\"zelagent.mlx\", \"\", null)", lookups[0],
                    lookups[1], "Error \"Failed to get required function addresses\"",
                    "~XmlProxyClient", "~MarlinContext"))
        << function;
  }
}

}  // namespace
