#include "agent/libZelCore/known_actions.h"

#include <algorithm>
#include <iterator>

#include "libZel/url.h"

namespace {

constexpr const char* kAdministratorsOnly[] = {"AgentGetProgress",
                                               "CoreUtilsAdvanceDialog",
                                               "CoreUtilsCheckClientAccept",
                                               "CoreUtilsCloseDialog",
                                               "CoreUtilsConfigureJWS",
                                               "CoreUtilsCopyFileToRelay",
                                               "CoreUtilsDestroyAckPopup",
                                               "CoreUtilsExitOperatingSystem",
                                               "CoreUtilsExtractFile",
                                               "CoreUtilsLockDesktop",
                                               "CoreUtilsRestoreBackup",
                                               "CoreUtilsRestoreBackupFromRelay",
                                               "CoreUtilsRestoreDesktopLockState",
                                               "CoreUtilsRunScript",
                                               "CoreUtilsSetLockMessageText",
                                               "CoreUtilsShellExecuteAsLoggedUser",
                                               "CoreUtilsShowDialog",
                                               "CoreUtilsTerminateProcess",
                                               "CoreUtilsUnlockDesktop",
                                               "HttpProtocolAddAlias",
                                               "HttpProtocolDeleteAlias",
                                               "HttpProtocolListAliases",
                                               "TrnDbCloseTask",
                                               "TrnDbCreateTask",
                                               "TrnDbTaskAddNote",
                                               "TrnDbTaskCheckRequirements",
                                               "TrnDbTaskGetList"};

constexpr std::string_view kForPeople[] = {"CoreUtilsAdvanceDialog", "CoreUtilsCheckClientAccept"};

constexpr std::string_view kForNetwork[] = {"CoreUtilsCheckHTTPConnection",
                                            "CoreUtilsCheckSMBShare", "CoreUtilsListDomains",
                                            "CoreUtilsListServers", "CoreUtilsPingICMP"};

constexpr std::string_view kForMaster[] = {"CoreUtilsCheckTask", "CoreUtilsCloseTask",
                                           "CoreUtilsCreateTask", "CoreUtilsTaskAddNote",
                                           "CoreUtilsTaskGetList"};

struct Parameter {
  std::string_view action;
  std::string_view key;
};
constexpr Parameter kTextParameters[] = {{"CoreUtilsTerminateProcess", "ProcessID"}};

template <typename Names>
bool Holds(const Names& names, std::string_view action) {
  return std::ranges::find(names, action) != std::end(names);
}

bool IsUrl(const ZelContainer::Entry& entry) {
  const bool isText = entry.Type() == ZelValueType::kString && !entry.IsList();
  return isText && UrlParseInet::CanHandleUrl(ZelString(entry.StringAt(0)));
}

}  // namespace

std::vector<std::string> AdministratorsOnlyByDefault() {
  return {std::begin(kAdministratorsOnly), std::end(kAdministratorsOnly)};
}

bool WaitsForPerson(std::string_view action) {
  return Holds(kForPeople, action);
}

bool WaitsForNetwork(std::string_view action) {
  return Holds(kForNetwork, action);
}

bool AsksMaster(std::string_view action) {
  return Holds(kForMaster, action);
}

bool NamesUrl(const ZelContainer& parameters) {
  for (size_t i = 0; i < parameters.CountKeys(); ++i) {
    const ZelContainer::Entry entry = parameters.EntryAt(i);
    if (entry.Key().ends_with("Path") && IsUrl(entry)) return true;
  }
  return false;
}

bool IsTextParameter(std::string_view action, std::string_view key) {
  return std::ranges::any_of(kTextParameters, [&](const Parameter& one) {
    return one.action == action && one.key == key;
  });
}
