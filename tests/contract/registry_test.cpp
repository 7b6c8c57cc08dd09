#include <gtest/gtest-spi.h>

#include "tests/contract/module_test.h"

namespace {

void RequireActionCount(size_t count) {
  FakeHost host;
  host.Answer("ZelAgentGetDebugContext", 77);
  host.AnswerAlways("ActionDbRegisterAction", 0);
  ModuleMain(1, 0, nullptr);
  ASSERT_EQ(host.Registrations().size(), count) << "the module registers another number of actions "
                                                   "than tests/contract/module_test.h says: set "
                                                   "kActionCount there";
}

// Before all tests, none of which runs when this fails: nearly every one scripts an answer for each
// action, and all would complain at length.
class ActionCount : public testing::Environment {
  void SetUp() override { RequireActionCount(kActionCount); }
};

[[maybe_unused]] const testing::Environment* const actionCount =
    testing::AddGlobalTestEnvironment(new ActionCount);

TEST(RegistryCount, IsAskedForByItsName) {
  EXPECT_FATAL_FAILURE(RequireActionCount(kActionCount - 1), "set kActionCount there");
}

std::string Registered(const std::string& signature, const std::string& context) {
  return "ActionDbRegisterAction(\"" + signature + "\", handler, " + context + ")";
}

/// Registers with a context of our own and gives the transcript.
std::vector<std::string> RegisterWith(FakeHost& host, void* context, int answer) {
  host.Answer("ZelAgentGetDebugContext", 77);
  for (int i = 0; i < kActionCount; ++i) host.Answer("ActionDbRegisterAction", answer);
  EXPECT_EQ(ModuleMain(1, 0, static_cast<TCHAR*>(context)), 1u);
  return {host.Transcript().begin() + 3, host.Transcript().end()};
}

auto EveryActionInOrder(const std::string& context) {
  return ElementsAre(
      Registered("CoreUtilsCopyFile (string SourcePath, string DestinationPath)", context),
      Registered("CoreUtilsRenameFile (string SourcePath, string DestinationPath)", context),
      Registered("CoreUtilsDeleteFile (string Path)", context),
      Registered("CoreUtilsGetFileSize (string Path)", context),
      Registered("CoreUtilsGetFileInformation (string Path)", context),
      Registered("CoreUtilsGetFileSystems ()", context),
      Registered("CoreUtilsGetDirList (string Path)", context),
      Registered("CoreUtilsReadFile (string Path, int Offset, int Length)", context),
      Registered("CoreUtilsWriteFile (string Path, string FileContent)", context),
      Registered("CoreUtilsDirCreate (string Path)", context),
      Registered("CoreUtilsDirRename (string SourcePath, string DestinationPath)", context),
      Registered("CoreUtilsDirDelete", context), Registered("CoreUtilsListDomains", context),
      Registered("CoreUtilsListServers", context),
      Registered("CoreUtilsRunProgram (string Path)", context),
      Registered("CoreUtilsRunScript (string Name, container Params, boolean CompileOnly)",
                 context),
      Registered("CoreUtilsListProcess (container Params)", context),
      Registered("CoreUtilsInfosProcessAvailable ()", context),
      Registered("CoreUtilsTerminateProcess (int ProcessID)", context),
      Registered("CoreUtilsCheckClientAccept ()", context),
      Registered("CoreUtilsDestroyAckPopup ()", context),
      Registered("CoreUtilsLockDesktop ()", context),
      Registered("CoreUtilsSetLockMessageText ()", context),
      Registered("CoreUtilsUnlockDesktop ()", context),
      Registered("CoreUtilsRestoreDesktopLockState ()", context),
      Registered("CoreUtilsFileMD5 ()", context), Registered("CoreUtilsCreateTask ()", context),
      Registered("CoreUtilsCloseTask ()", context), Registered("CoreUtilsTaskAddNote ()", context),
      Registered("CoreUtilsTaskGetList ()", context), Registered("CoreUtilsCheckTask ()", context),
      Registered("CoreUtilsCopyFileToRelay ()", context),
      Registered("CoreUtilsRestoreBackupFromRelay ()", context),
      Registered("CoreUtilsRestoreBackup ()", context),
      Registered("CoreUtilsExtractFile ()", context), Registered("CoreUtilsAdvanceDialog", context),
      Registered("CoreUtilsWakeUp", context), Registered("CoreUtilsShowDialog ()", context),
      Registered("CoreUtilsCloseDialog ()", context),
      Registered("CoreUtilsConfigureJWS (string MasterAddress, int MasterHttpPort)", context),
      Registered("CoreUtilsIsUserLogged ()", context),
      Registered("CoreUtilsExitOperatingSystem", context),
      Registered("CoreUtilsGetMasterAttachmentsPath", context),
      Registered("CoreUtilsPingICMP (string strTargetAddr)", context),
      Registered("CoreUtilsShellExecuteAsLoggedUser (string strCommand, string strAgentPath)",
                 context),
      Registered("CoreUtilsCheckSMBShare (string strSharePath, string strUser, string strPassword)",
                 context),
      Registered("CoreUtilsCheckHTTPConnection (string strUrl)", context));
}

TEST(Registry, PublishesEveryActionInOrderWithTheAgentsContext) {
  FakeHost host;
  int context = 0;
  const std::string contextText = std::to_string(reinterpret_cast<uintptr_t>(&context));

  EXPECT_THAT(RegisterWith(host, &context, 0), EveryActionInOrder(contextText));
}

TEST(Registry, PassesANullContextOn) {
  FakeHost host;
  EXPECT_THAT(RegisterWith(host, nullptr, 0), EveryActionInOrder("null"));
}

TEST(Registry, GoesOnWhenTheCoreRefusesActions) {
  FakeHost host;
  EXPECT_THAT(RegisterWith(host, nullptr, 1), EveryActionInOrder("null"));
}

TEST(Registry, GivesEveryActionAHandlerOfItsOwn) {
  FakeHost host;
  RegisterModule(host);

  ASSERT_EQ(host.Registrations().size(), static_cast<size_t>(kActionCount));
  for (size_t i = 0; i < host.Registrations().size(); ++i) {
    for (size_t j = i + 1; j < host.Registrations().size(); ++j) {
      EXPECT_NE(host.Registrations()[i].handler, host.Registrations()[j].handler);
    }
  }
}

TEST(ResultCodes, AreTheNumbersThatCallersKnow) {
  EXPECT_EQ(kSuccess, 0u);
  EXPECT_EQ(kFailure, 1u);
  EXPECT_EQ(kAccessRefused, 12u);
  EXPECT_EQ(kBadParameter, 13u);
  EXPECT_EQ(kSmbStepFailed, 20u);
  EXPECT_EQ(kFileNotFound, 14001u);
  EXPECT_EQ(kMasterNotInvoked, 32003u);
}

using RegistryWall = ModuleTest;

TEST_F(RegistryWall, TurnsAnExceptionIntoALoggedFailureWithAnEmptyContainer) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  host.FailCall(4, FakeHost::Fault::kThrowOnce);

  EXPECT_EQ(Run("CoreUtilsGetFileSize", Texts({{"Path", "C:/a"}})), (Outcome{kFailure, "{}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Detail \"Get size for file C:/a\"", "FileExists(\"C:/a\")",
                          PrivacyCheck("C:/a", "", "Read"), "FileGetSize(\"C:/a\")",
                          "Error \"CoreUtilsGetFileSize failed: host call 4 failed\""));
}

TEST_F(RegistryWall, TurnsAnythingThrownIntoALoggedFailure) {
  host.Answer("FileExists", 1);
  host.AnswerInvocation(0, [](ZelContainer&) { throw 42; });

  EXPECT_EQ(Run("CoreUtilsDeleteFile", Texts({{"Path", "C:/a"}})), (Outcome{kFailure, "{}"}));

  EXPECT_EQ(host.Transcript().back(), "Error \"CoreUtilsDeleteFile failed\"");
}

TEST_F(RegistryWall, HoldsWhenTheLogFailsToo) {
  host.FailCall(1, FakeHost::Fault::kThrowFromHere);

  EXPECT_EQ(Run("CoreUtilsDeleteFile", Texts({{"Path", "C:/a"}})), (Outcome{kFailure, "{}"}));
}

}  // namespace
