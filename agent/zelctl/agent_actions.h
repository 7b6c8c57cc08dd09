#pragma once

#include <cstdint>
#include <string>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"
#include "agent/zelctl/failure.h"
#include "libZel/container.h"

// The actions behind zelctl's verbs, and what the verbs share when they call them.

constexpr char kCopyFile[] = "CoreUtilsCopyFile";
constexpr char kRenameFile[] = "CoreUtilsRenameFile";
constexpr char kDeleteFile[] = "CoreUtilsDeleteFile";
constexpr char kGetFileSize[] = "CoreUtilsGetFileSize";
constexpr char kGetFileInformation[] = "CoreUtilsGetFileInformation";
constexpr char kGetFileSystems[] = "CoreUtilsGetFileSystems";
constexpr char kGetDirList[] = "CoreUtilsGetDirList";
constexpr char kReadFile[] = "CoreUtilsReadFile";
constexpr char kWriteFile[] = "CoreUtilsWriteFile";
constexpr char kDirCreate[] = "CoreUtilsDirCreate";
constexpr char kDirRename[] = "CoreUtilsDirRename";
constexpr char kDirDelete[] = "CoreUtilsDirDelete";
constexpr char kRunProgram[] = "CoreUtilsRunProgram";
constexpr char kRunScript[] = "CoreUtilsRunScript";
constexpr char kListProcess[] = "CoreUtilsListProcess";
constexpr char kTerminateProcess[] = "CoreUtilsTerminateProcess";
constexpr char kFileMd5[] = "CoreUtilsFileMD5";
constexpr char kGetDirectories[] = "AgentGetDirectories";
constexpr char kCopyFileToRelay[] = "CoreUtilsCopyFileToRelay";
constexpr char kRestoreBackupFromRelay[] = "CoreUtilsRestoreBackupFromRelay";
constexpr char kExtractFile[] = "CoreUtilsExtractFile";
constexpr char kLockDesktop[] = "CoreUtilsLockDesktop";
constexpr char kSetLockMessageText[] = "CoreUtilsSetLockMessageText";
constexpr char kUnlockDesktop[] = "CoreUtilsUnlockDesktop";
constexpr char kRestoreDesktopLockState[] = "CoreUtilsRestoreDesktopLockState";
constexpr char kCheckClientAccept[] = "CoreUtilsCheckClientAccept";
constexpr char kDestroyAckPopup[] = "CoreUtilsDestroyAckPopup";
constexpr char kShowDialog[] = "CoreUtilsShowDialog";
constexpr char kCloseDialog[] = "CoreUtilsCloseDialog";
constexpr char kAdvanceDialog[] = "CoreUtilsAdvanceDialog";
constexpr char kIsUserLogged[] = "CoreUtilsIsUserLogged";
constexpr char kExitOperatingSystem[] = "CoreUtilsExitOperatingSystem";
constexpr char kShellExecuteAsLoggedUser[] = "CoreUtilsShellExecuteAsLoggedUser";
constexpr char kCreateTask[] = "CoreUtilsCreateTask";
constexpr char kCloseTask[] = "CoreUtilsCloseTask";
constexpr char kTaskAddNote[] = "CoreUtilsTaskAddNote";
constexpr char kTaskGetList[] = "CoreUtilsTaskGetList";
constexpr char kCheckTask[] = "CoreUtilsCheckTask";
constexpr char kPingIcmp[] = "CoreUtilsPingICMP";
constexpr char kCheckSmbShare[] = "CoreUtilsCheckSMBShare";
constexpr char kCheckHttpConnection[] = "CoreUtilsCheckHTTPConnection";
constexpr char kWakeUp[] = "CoreUtilsWakeUp";
constexpr char kListDomains[] = "CoreUtilsListDomains";
constexpr char kListServers[] = "CoreUtilsListServers";
constexpr char kGetProgress[] = "AgentGetProgress";
constexpr char kGetIpAddress[] = "AgentGetIPAddress";
constexpr char kRelayGetValues[] = "RelayGetValues";
constexpr char kHttpGetParams[] = "HttpProtocolGetParams";
constexpr char kHttpListAliases[] = "HttpProtocolListAliases";

constexpr uint32_t kSuccess = 0;
constexpr uint32_t kFailureCode = 1;
constexpr uint32_t kAccessRefused = 12;
constexpr uint32_t kBadParameter = 13;
constexpr uint32_t kSmbStepFailed = 20;
constexpr uint32_t kFileNotFound = 14001;
constexpr uint32_t kMasterNotInvoked = 32003;

/// A container with one text. What of `value` is not UTF-8 travels as the codec's escapes.
ZelContainer TextParameter(const char* key, const std::string& value);

ActionReply Invoke(AgentClient& agent, const char* action, const ZelContainer& parameters);

/// "ACTION: code N: meaning", with the reply.
Failure ActionFailure(const std::string& action, const ActionReply& reply);
/// Throws `ActionFailure` unless the action returned 0.
void RequireSuccess(const std::string& action, const ActionReply& reply);
/// The same for `kGetDirList`, with what it means that `directory` was not listed.
void RequireListing(const std::string& directory, const ActionReply& reply);
/// The result of a verb that has nothing to print. Throws `ActionFailure`.
Result Finish(const std::string& action, const ActionReply& reply);

/// The values that a verb cannot do without. Throw `Failure` (kAgentRefused) when the reply has
/// none of that name and type.
std::string RequireText(const std::string& action, const ActionReply& reply, const char* key);
/// Takes the 32 bits as they are: sizes of 2 GiB and more travel as negative numbers.
uint32_t RequireUnsigned(const std::string& action, const ActionReply& reply, const char* key);

/// Lists nothing of the directory but one name: code 0 exactly when the path is a directory that
/// can be opened.
ActionReply ProbeDirectory(AgentClient& agent, const std::string& path);

/// A text of a container; empty without one.
std::string TextOf(const ZelContainer& container, const char* key);

/// What a command fails with when it cannot tell what the agent's reply means.
Failure UnknownAnswer(const char* action, const ActionReply& reply);
