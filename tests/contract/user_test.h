#pragma once

#include <string>

#include "tests/contract/module_test.h"

// What the tests of the actions for the logged-on user share.

/// Takes the desktop lock back and closes the dialog that is shown: both are the process's. Needs a
/// host that knows the module's actions.
inline void EndUserInteraction(FakeHost& host) {
  for (const char* function : {"ZelAgentGetProxyPipeName", "SkinDialog::Close"}) {
    host.AnswerAlways(function, 0);
  }
  host.AnswerAlways("ProxyDesktopLockManager::Unlock", 1);
  while (RunAction(host, "CoreUtilsUnlockDesktop", {}).code == kSuccess) {
  }
  RunAction(host, "CoreUtilsCloseDialog", {});
}

class UserTest : public ModuleTest {
 protected:
  void TearDown() override {
    // Those of the test, before the end takes them.
    EXPECT_THAT(host.LeftOverAnswers(), IsEmpty());
    EndUserInteraction(host);
  }

  void AnswerPipe() { host.AnswerText("ZelAgentGetProxyPipeName", "pipe"); }
  ResultCode Code(const std::string& action, const ZelContainer& params = {}) {
    return Run(action, params).code;
  }
  /// The calls since the last look.
  std::vector<std::string> TakeCalls() {
    const std::vector<std::string> calls = host.Transcript();
    host.ForgetTranscript();
    return calls;
  }
};

constexpr const char* kAsksForPipe = "ZelAgentGetProxyPipeName()";

inline std::string Translation(const std::string& key) {
  return "ZelAgentGetTranslation(\"" + key + "\", \"\")";
}
