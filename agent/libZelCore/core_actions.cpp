#include "agent/libZelCore/core_actions.h"

#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "agent/libZel/progress.h"
#include "agent/libZel/security_context.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/invocation_depth.h"
#include "agent/libZelCore/local_address.h"
#include "libZel.h"

namespace {

constexpr uint32_t kDone = 0;
constexpr uint32_t kNotDone = 1;

constexpr const char* kValues = "Values";

ZelString ReadString(const ZelContainer& container, const char* key) {
  ZelString value;
  container.GetString(key, &value, kNoIndex);
  return value;
}

/// A refused request keeps what it asked for.
uint32_t Refuse(ZelContainer* request, const std::string& problem) {
  request->SetString("Error", problem, kNoIndex);
  return kNotDone;
}

const char* KindText(Progress::Kind kind) {
  switch (kind) {
    case Progress::Kind::kSend:
      return "send";
    case Progress::Kind::kReceive:
      return "receive";
    case Progress::Kind::kPack:
      return "pack";
    case Progress::Kind::kExtract:
      break;
  }
  return "extract";
}

ZelContainer RowOf(const Progress::Report& report) {
  ZelContainer row;
  row.SetInt64("Id", static_cast<int64_t>(report.id), kNoIndex);
  row.SetString("Kind", KindText(report.kind), kNoIndex);
  row.SetString("Name", report.name, kNoIndex);
  row.SetInt64("DoneBytes", static_cast<int64_t>(report.doneBytes), kNoIndex);
  row.SetInt64("TotalBytes", static_cast<int64_t>(report.totalBytes), kNoIndex);
  row.SetInt64("ElapsedMs", static_cast<int64_t>(report.elapsedMs), kNoIndex);
  row.SetBool("Running", report.isRunning, kNoIndex);
  row.SetString("Failure", report.failure, kNoIndex);
  return row;
}

ZelContainer RowOf(const AliasTable::Row& alias) {
  ZelContainer row;
  row.SetString("AliasName", alias.alias.name, kNoIndex);
  row.SetString("AliasPath", alias.alias.directory, kNoIndex);
  row.SetString("Owner", alias.alias.owner, kNoIndex);
  row.SetString("ServerName", alias.alias.serverName, kNoIndex);
  row.SetBool("AliasTemporary", alias.alias.isTemporary, kNoIndex);
  row.SetInt32("Uploads", static_cast<int32_t>(alias.uploads), kNoIndex);
  row.SetInt64("SilentMs", alias.silent.count(), kNoIndex);
  row.SetInt64("ExpiresInMs", alias.expiresIn.count(), kNoIndex);
  return row;
}

template <typename Rows>
uint32_t AnswerRows(const Rows& rows, ZelContainer* answer) {
  answer->Clear();
  uint32_t index = 0;
  for (const auto& row : rows) answer->SetContainer(kValues, RowOf(row), index++);
  return kDone;
}

/// On whose behalf the request is made, for the privacy policy; empty for agents and this one
/// itself. An agent speaks for its own console user.
std::string LoginOf(const ZelContainer& request, const std::string& owner) {
  if (!owner.empty() && !owner.starts_with(kAgentLoginPrefix)) return owner;
  return std::string(ReadString(request, "DACurrentConsoleUser").Utf8());
}

class CoreActions {
 public:
  explicit CoreActions(CoreParts parts) : parts_(std::move(parts)) {}

  uint32_t CheckPrivacy(ZelContainer* request) { return parts_.policy.Check(request); }
  uint32_t GetApplicationInfo(ZelContainer* request) { return parts_.inventory.Answer(request); }

  uint32_t GetDirectories(ZelContainer* answer) {
    answer->Clear();
    answer->SetString("DataDirectory", parts_.dataDirectory, kNoIndex);
    answer->SetString("ConfigDirectory", parts_.configDirectory, kNoIndex);
    return kDone;
  }

  uint32_t GetIdentity(ZelContainer* answer) {
    answer->Clear();
    answer->SetString("GUID", ZelString(parts_.identity), kNoIndex);
    return kDone;
  }

  uint32_t GetIPAddress(ZelContainer* answer) {
    answer->Clear();
    answer->SetString("IPAddress", OwnAddress(), kNoIndex);
    return kDone;
  }

  uint32_t GetProgress(ZelContainer* answer) { return AnswerRows(Progress::Reports(), answer); }

  uint32_t GetRelay(ZelContainer* answer) {
    const Settings& settings = parts_.settings;
    answer->Clear();
    if (settings.relayHost.empty()) return kNotDone;
    ZelContainer values;
    values.SetString("ParentName", settings.relayHost, kNoIndex);
    values.SetInt32("ParentPort", settings.relayPort, kNoIndex);
    values.SetString("ParentGuid", settings.relayGuid, kNoIndex);
    answer->SetContainer(kValues, values, kNoIndex);
    return kDone;
  }

  uint32_t GetHttpProtocol(ZelContainer* answer) {
    ZelContainer values;
    values.SetInt32("Port", parts_.port(), kNoIndex);
    values.SetString("Address", parts_.settings.bindAddress, kNoIndex);
    values.SetBool("Ssl", parts_.settings.tls, kNoIndex);
    answer->Clear();
    answer->SetContainer(kValues, values, kNoIndex);
    return kDone;
  }

  uint32_t AddAlias(ZelContainer* request) {
    AliasTable::Alias alias;
    alias.owner = InvocationContext::CurrentOwner();
    alias.name = ReadString(*request, "AliasName").Utf8();
    alias.directory = ReadString(*request, "AliasPath");
    alias.serverName = ReadString(*request, "ServerName").Utf8();
    request->GetBool("AliasTemporary", &alias.isTemporary, kNoIndex);

    const std::string problem = MakeAlias(alias, LoginOf(*request, alias.owner));
    if (problem.empty()) return kDone;
    CoreLog().WarningWithNL("Alias \"%S\" of \"%S\" for \"%S\" refused: %s", ZelString(alias.name),
                            ZelString(alias.owner), alias.directory, problem.c_str());
    return Refuse(request, problem);
  }

  uint32_t DeleteAlias(ZelContainer* request) {
    const std::string& owner = InvocationContext::CurrentOwner();
    const ZelString name = ReadString(*request, "AliasName");
    if (parts_.aliases.Delete(owner, std::string(name.Utf8()))) return kDone;
    CoreLog().WarningWithNL("Alias \"%S\" of \"%S\" is not deleted: there is none", name,
                            ZelString(owner));
    return Refuse(request, "there is no such alias");
  }

  uint32_t ListAliases(ZelContainer* answer) { return AnswerRows(parts_.aliases.List(), answer); }

 private:
  /// Empty, or why it is refused.
  std::string MakeAlias(const AliasTable::Alias& alias, const std::string& login) {
    constexpr bool kWrite = false;
    if (!login.empty() && !parts_.policy.IsGranted(alias.directory, login, kWrite))
      return "\"" + login + "\" may not write there (privacy policy)";
    return parts_.aliases.Add(alias);
  }

  std::string OwnAddress() const {
    const Settings& settings = parts_.settings;
    if (!IsWildcardAddress(settings.bindAddress)) return settings.bindAddress;

    UrlParseInet master;
    master.LoadUrl(settings.masterAddress);
    for (const std::string& host : {settings.relayHost, std::string(master.GetHost().Utf8())}) {
      if (host.empty()) continue;
      const std::string address = LocalAddressTowards(host);
      if (!address.empty()) return address;
    }
    const std::string address = FirstAddress();
    return address.empty() ? "127.0.0.1" : address;
  }

  const CoreParts parts_;
};

struct Row {
  const char* signature;
  uint32_t (CoreActions::*handler)(ZelContainer*);
};

constexpr Row kRows[] = {
    {"PrivacyCheck (string Class, string Name, string Login, string Access)",
     &CoreActions::CheckPrivacy},
    {"GetApplicationInfo (string FileName, int FileSize, string FileChecksum)",
     &CoreActions::GetApplicationInfo},
    {"AgentGetDirectories ()", &CoreActions::GetDirectories},
    {"AgentGetIPAddress ()", &CoreActions::GetIPAddress},
    {"IdentityGetGUID ()", &CoreActions::GetIdentity},
    {"AgentGetProgress ()", &CoreActions::GetProgress},
    {"RelayGetValues ()", &CoreActions::GetRelay},
    {"HttpProtocolGetParams ()", &CoreActions::GetHttpProtocol},
    {"HttpProtocolGetValues ()", &CoreActions::GetHttpProtocol},
    {"HttpProtocolAddAlias (string AliasName, string AliasPath, boolean AliasTemporary)",
     &CoreActions::AddAlias},
    {"HttpProtocolDeleteAlias (string AliasName)", &CoreActions::DeleteAlias},
    {"HttpProtocolListAliases ()", &CoreActions::ListAliases},
};

}  // namespace

void RegisterCoreActions(const CoreParts& parts, ActionDatabase* actions,
                         const ActionDatabase::Owner* owner) {
  const auto core = std::make_shared<CoreActions>(parts);
  for (const Row& row : kRows) {
    actions->Register(
        row.signature,
        [core, handler = row.handler](ZelContainer* request) {
          return ((*core).*handler)(request);
        },
        owner);
  }
}
