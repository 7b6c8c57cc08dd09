#include "module/registry.h"

#include <array>
#include <cstddef>
#include <string_view>
#include <utility>

#include "actions/files/directory_listing.h"
#include "actions/files/file_content.h"
#include "actions/files/file_operations.h"
#include "actions/files/volumes_and_digest.h"
#include "actions/network/network_browsing.h"
#include "actions/network/reachability.h"
#include "actions/network/wake_on_lan.h"
#include "actions/programs/file_information.h"
#include "actions/programs/process_list.h"
#include "actions/programs/program_launch.h"
#include "actions/programs/script_runner.h"
#include "actions/relay/archive_extraction.h"
#include "actions/relay/backup_restore.h"
#include "actions/relay/relay_upload.h"
#include "actions/relay/web_start.h"
#include "actions/tasks/helpdesk_tasks.h"
#include "actions/user/connection_acknowledgement.h"
#include "actions/user/desktop_lock.h"
#include "actions/user/dialogs.h"
#include "actions/user/session_and_power.h"
#include "module/action.h"
#include "module/module.h"

namespace {

struct ActionRow {
  /// The action's name, optionally followed by a blank and a parameter list for people.
  const char* signature;
  ActionHandler handler;
};

constexpr std::string_view NameOf(const ActionRow& row) {
  const std::string_view signature = row.signature;
  return signature.substr(0, signature.find(' '));
}

// How to add an action
//
// 1. Write the handler, named like the action, in the file of its family under actions/ and declare
//    it in the family's header.
// 2. Add its row below. The order of the rows is the order of registration and is fixed; the
//    signature is text for people, the handler reads its keys whatever it says.
// 3. Raise the count in the static_assert, and kActionCount in tests/contract/module_test.h.
// 4. Write its contract tests in tests/contract (suite: the action's name without "CoreUtils") and
//    its system test in tests/system.
// 5. Describe it in docs/actions, in a section with the action's name.
//
// scripts/check-includes fails while a row lacks its section or its tests. docs/new-action.md goes
// through it all, with the host function and the verb that an action may need.
constexpr auto kActions = std::to_array<ActionRow>({
    {"CoreUtilsCopyFile (string SourcePath, string DestinationPath)", CoreUtilsCopyFile},
    {"CoreUtilsRenameFile (string SourcePath, string DestinationPath)", CoreUtilsRenameFile},
    {"CoreUtilsDeleteFile (string Path)", CoreUtilsDeleteFile},
    {"CoreUtilsGetFileSize (string Path)", CoreUtilsGetFileSize},
    {"CoreUtilsGetFileInformation (string Path)", CoreUtilsGetFileInformation},
    {"CoreUtilsGetFileSystems ()", CoreUtilsGetFileSystems},
    {"CoreUtilsGetDirList (string Path)", CoreUtilsGetDirList},
    {"CoreUtilsReadFile (string Path, int Offset, int Length)", CoreUtilsReadFile},
    {"CoreUtilsWriteFile (string Path, string FileContent)", CoreUtilsWriteFile},
    {"CoreUtilsDirCreate (string Path)", CoreUtilsDirCreate},
    {"CoreUtilsDirRename (string SourcePath, string DestinationPath)", CoreUtilsDirRename},
    {"CoreUtilsDirDelete", CoreUtilsDirDelete},
    {"CoreUtilsListDomains", CoreUtilsListDomains},
    {"CoreUtilsListServers", CoreUtilsListServers},
    {"CoreUtilsRunProgram (string Path)", CoreUtilsRunProgram},
    {"CoreUtilsRunScript (string Name, container Params, boolean CompileOnly)", CoreUtilsRunScript},
    {"CoreUtilsListProcess (container Params)", CoreUtilsListProcess},
    {"CoreUtilsInfosProcessAvailable ()", CoreUtilsInfosProcessAvailable},
    {"CoreUtilsTerminateProcess (int ProcessID)", CoreUtilsTerminateProcess},
    {"CoreUtilsCheckClientAccept ()", CoreUtilsCheckClientAccept},
    {"CoreUtilsDestroyAckPopup ()", CoreUtilsDestroyAckPopup},
    {"CoreUtilsLockDesktop ()", CoreUtilsLockDesktop},
    {"CoreUtilsSetLockMessageText ()", CoreUtilsSetLockMessageText},
    {"CoreUtilsUnlockDesktop ()", CoreUtilsUnlockDesktop},
    {"CoreUtilsRestoreDesktopLockState ()", CoreUtilsRestoreDesktopLockState},
    {"CoreUtilsFileMD5 ()", CoreUtilsFileMD5},
    {"CoreUtilsCreateTask ()", CoreUtilsCreateTask},
    {"CoreUtilsCloseTask ()", CoreUtilsCloseTask},
    {"CoreUtilsTaskAddNote ()", CoreUtilsTaskAddNote},
    {"CoreUtilsTaskGetList ()", CoreUtilsTaskGetList},
    {"CoreUtilsCheckTask ()", CoreUtilsCheckTask},
    {"CoreUtilsCopyFileToRelay ()", CoreUtilsCopyFileToRelay},
    {"CoreUtilsRestoreBackupFromRelay ()", CoreUtilsRestoreBackupFromRelay},
    {"CoreUtilsRestoreBackup ()", CoreUtilsRestoreBackup},
    {"CoreUtilsExtractFile ()", CoreUtilsExtractFile},
    {"CoreUtilsAdvanceDialog", CoreUtilsAdvanceDialog},
    {"CoreUtilsWakeUp", CoreUtilsWakeUp},
    {"CoreUtilsShowDialog ()", CoreUtilsShowDialog},
    {"CoreUtilsCloseDialog ()", CoreUtilsCloseDialog},
    {"CoreUtilsConfigureJWS (string MasterAddress, int MasterHttpPort)", CoreUtilsConfigureJWS},
    {"CoreUtilsIsUserLogged ()", CoreUtilsIsUserLogged},
    {"CoreUtilsExitOperatingSystem", CoreUtilsExitOperatingSystem},
    {"CoreUtilsGetMasterAttachmentsPath", CoreUtilsGetMasterAttachmentsPath},
    {"CoreUtilsPingICMP (string strTargetAddr)", CoreUtilsPingICMP},
    {"CoreUtilsShellExecuteAsLoggedUser (string strCommand, string strAgentPath)",
     CoreUtilsShellExecuteAsLoggedUser},
    {"CoreUtilsCheckSMBShare (string strSharePath, string strUser, string strPassword)",
     CoreUtilsCheckSMBShare},
    {"CoreUtilsCheckHTTPConnection (string strUrl)", CoreUtilsCheckHTTPConnection},
});

constexpr bool NamesAreUnique() {
  for (size_t i = 0; i < kActions.size(); ++i) {
    for (size_t j = i + 1; j < kActions.size(); ++j) {
      if (NameOf(kActions[i]) == NameOf(kActions[j])) return false;
    }
  }
  return true;
}

static_assert(kActions.size() == 47, "another row: raise this and kActionCount in the tests");
static_assert(NamesAreUnique());

/// What the core calls for a row: the handler, behind a wall that no exception passes.
template <size_t kRow>
ResultCode InvokeRow(ZelContainer* params) {
  try {
    return kActions[kRow].handler(params);
  } catch (...) {
    LogCurrentException(NameOf(kActions[kRow]));
    params->Clear();
    return kFailure;
  }
}

template <size_t... kRows>
void RegisterRows(void* registrationContext, std::index_sequence<kRows...>) {
  (ActionDbRegisterAction(kActions[kRows].signature, InvokeRow<kRows>, registrationContext), ...);
}

}  // namespace

void RegisterActions(void* registrationContext) {
  RegisterRows(registrationContext, std::make_index_sequence<kActions.size()>());
}
