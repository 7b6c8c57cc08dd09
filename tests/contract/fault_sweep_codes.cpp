#include <map>

#include "tests/contract/fault_sweep_cases.h"

namespace {

/// Codes of the files in docs/actions, without 13: no case has malformed parameters.
const std::map<std::string, std::vector<ResultCode>>& CodesByAction() {
  static const std::vector<ResultCode> onFile = {kSuccess, kFailure, kAccessRefused, kFileNotFound};
  static const std::vector<ResultCode> onDirectory = {kSuccess, kFailure, kAccessRefused};
  static const std::vector<ResultCode> asking = {kSuccess, kAccessRefused, kFileNotFound};
  static const std::vector<ResultCode> either = {kSuccess, kFailure};
  static const std::vector<ResultCode> always = {kSuccess};
  static const std::map<std::string, std::vector<ResultCode>> codes = {
      {"CoreUtilsAdvanceDialog", always},
      {"CoreUtilsCheckClientAccept", always},
      {"CoreUtilsCheckHTTPConnection", always},
      {"CoreUtilsCheckSMBShare", {kSuccess, kFailure, kSmbStepFailed}},
      {"CoreUtilsCheckTask", {kSuccess, kMasterNotInvoked}},
      {"CoreUtilsCloseDialog", always},
      {"CoreUtilsCloseTask", always},
      {"CoreUtilsConfigureJWS", always},
      {"CoreUtilsCopyFile", onFile},
      {"CoreUtilsCopyFileToRelay", either},
      {"CoreUtilsCreateTask", always},
      {"CoreUtilsDeleteFile", onFile},
      {"CoreUtilsDestroyAckPopup", always},
      {"CoreUtilsDirCreate", onDirectory},
      {"CoreUtilsDirDelete", {kSuccess, kAccessRefused}},
      {"CoreUtilsDirRename", onDirectory},
      {"CoreUtilsExitOperatingSystem", either},
      {"CoreUtilsExtractFile", either},
      {"CoreUtilsFileMD5", always},
      {"CoreUtilsGetDirList", onDirectory},
      {"CoreUtilsGetFileInformation", asking},
      {"CoreUtilsGetFileSize", asking},
      {"CoreUtilsGetFileSystems", always},
      {"CoreUtilsGetMasterAttachmentsPath", always},
      {"CoreUtilsInfosProcessAvailable", always},
      {"CoreUtilsIsUserLogged", always},
      {"CoreUtilsListDomains", either},
      {"CoreUtilsListProcess", always},
      {"CoreUtilsListServers", either},
      {"CoreUtilsLockDesktop", either},
      {"CoreUtilsPingICMP", always},
      {"CoreUtilsReadFile", onFile},
      {"CoreUtilsRenameFile", onFile},
      {"CoreUtilsRestoreBackup", either},
      {"CoreUtilsRestoreBackupFromRelay", either},
      {"CoreUtilsRestoreDesktopLockState", either},
      {"CoreUtilsRunProgram", onDirectory},
      {"CoreUtilsRunScript", either},
      {"CoreUtilsSetLockMessageText", either},
      {"CoreUtilsShellExecuteAsLoggedUser", always},
      {"CoreUtilsShowDialog", always},
      {"CoreUtilsTaskAddNote", always},
      {"CoreUtilsTaskGetList", always},
      {"CoreUtilsTerminateProcess", either},
      {"CoreUtilsUnlockDesktop", either},
      {"CoreUtilsWakeUp", always},
      {"CoreUtilsWriteFile", onDirectory},
  };
  return codes;
}

}  // namespace

std::vector<ResultCode> DocumentedCodes(const std::string& action) {
  const auto codes = CodesByAction().find(action);
  if (codes != CodesByAction().end()) return codes->second;
  ADD_FAILURE() << action << " has no codes: add those of docs/actions to fault_sweep_codes.cpp";
  return {};
}
