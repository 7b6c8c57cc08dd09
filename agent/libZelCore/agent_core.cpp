#include "agent/libZelCore/agent_core.h"

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <utility>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/native_path.h"
#include "agent/libZelCore/action_pool.h"
#include "agent/libZelCore/application_inventory.h"
#include "agent/libZelCore/audit_log.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/http_server.h"
#include "agent/libZelCore/privacy_policy.h"
#include "agent/libZelCore/remote_invocation.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kConfigurationFile = "zelagent.ini";
constexpr const char* kInventoryFile = "applications.ini";
constexpr const char* kLockFile = "zelagent.lock";

// The core that the functions of libZelCore.h work on; null when there is none.
std::atomic<void*> current{nullptr};

fs::path PrivateDirectory(const fs::path& directory) {
  core_platform::MakePrivateDirectory(directory);
  return directory;
}

SettingsResult LoadUsableSettings(const fs::path& file) {
  SettingsResult result = LoadSettings(file);
  if (result.errors.empty()) return result;
  std::string text = std::string(FromNativePath(file).Utf8()) + " cannot be used:";
  for (const std::string& error : result.errors) text += "\n  " + error;
  throw std::runtime_error(text);
}

DebugOptions LogOptions(const Settings& settings, const fs::path& directory, bool logToStderr) {
  DebugOptions options;
  options.logFile = directory / "zelagent.log";
  options.level = settings.logLevel;
  options.rotateAtBytes = static_cast<size_t>(settings.logRotateBytes);
  options.keptFiles = settings.logKeptFiles;
  options.alsoToStderr = logToStderr;
  return options;
}

ZelString WithSeparator(const fs::path& directory) {
  std::string text(FromNativePath(directory).Utf8());
  if (text.empty() || text.back() != core_platform::kSeparator) text += core_platform::kSeparator;
  return text;
}

}  // namespace

struct AgentCore::Implementation {
  explicit Implementation(const AgentOptions& options)
      : home(fs::absolute(options.home).lexically_normal()),
        config(PrivateDirectory(home / "config")),
        data(PrivateDirectory(home / "data")),
        log(PrivateDirectory(home / "log")),
        lock(home / kLockFile),
        loaded(LoadUsableSettings(config / kConfigurationFile)),
        settings(loaded.settings),
        audit(log / "audit.jsonl"),
        context(LogOptions(settings, log, options.logToStderr)),
        users(config / "users"),
        authenticator(users, settings.fleetSecret,
                      std::chrono::milliseconds(settings.credentialMemoryMs)),
        policy(settings.privacyRules, [this](std::string_view login) { return users.Role(login); }),
        inventory(config / kInventoryFile),
        aliases(home, data, std::chrono::milliseconds(settings.aliasSilenceMs)),
        remote(settings) {
    if (options.port) settings.port = *options.port;
    context.SetAuditSink([this](const AuditLine& line) {
      audit.Write(
          {line.module.Utf8(), line.user.Utf8(), line.address.Utf8(), line.text.Utf8(), {}});
    });
  }

  void Audit(const InvocationRecord& record) {
    const bool isAgent = record.caller.kind == Caller::Kind::kAgent;
    const std::string user = (isAgent ? "agent/" : "") + record.caller.login;
    const std::string text = record.what + " code " + std::to_string(record.code);
    audit.Write({"libZelCore", user, record.caller.address, text, record.requestId});
  }

  uint32_t AnswerDirectories(ZelContainer* answer) const {
    answer->Clear();
    answer->SetString("DataDirectory", WithSeparator(data), kNoIndex);
    answer->SetString("ConfigDirectory", WithSeparator(config), kNoIndex);
    return 0;
  }

  const fs::path home;
  const fs::path config;
  const fs::path data;
  const fs::path log;
  core_platform::InstanceLock lock;
  SettingsResult loaded;
  Settings& settings;
  AuditLog audit;
  ZelDebugContext context;
  UserStore users;
  Authenticator authenticator;
  PrivacyPolicy policy;
  ApplicationInventory inventory;
  AliasTable aliases;
  RemoteInvoker remote;
  ActionDatabase actions;
  ActionDatabase::Owner* coreOwner = nullptr;
  std::unique_ptr<ActionPool> pool;
  std::unique_ptr<HttpServer> server;
};

AgentCore::AgentCore(const AgentOptions& options) {
  if (current != nullptr) throw std::runtime_error("an agent core is running in this process");
  implementation_ = std::make_unique<Implementation>(options);
  Implementation& core = *implementation_;

  LibraryLog().SetContext(&core.context);
  CoreLog().SetContext(&core.context);
  SetDriveMap(core.settings.drives);
  if (!core_platform::SetSystemCodePage(core.settings.codePage))
    CoreLog().WarningWithNL("This system has no code page %u", core.settings.codePage);
  for (const std::string& warning : core.loaded.warnings)
    CoreLog().WarningWithNL("%s: %s", kConfigurationFile, warning.c_str());

  core.coreOwner = core.actions.AddOwner("libZelCore");
  core.actions.Register(
      "PrivacyCheck (string Class, string Name, string Login, string Access)",
      [&core](ZelContainer* request) { return core.policy.Check(request); }, core.coreOwner);
  core.actions.Register(
      "GetApplicationInfo (string FileName, int FileSize, string FileChecksum)",
      [&core](ZelContainer* request) { return core.inventory.Answer(request); }, core.coreOwner);
  core.actions.Register(
      "AgentGetDirectories ()",
      [&core](ZelContainer* answer) { return core.AnswerDirectories(answer); }, core.coreOwner);
  current = this;
  CoreLog().PrintWithNL("Agent %s starts, home %S", core.settings.agentName.c_str(),
                        FromNativePath(core.home));
}

AgentCore::~AgentCore() {
  StopServing();
  CoreLog().PrintWithNL("Agent stops");
  current = nullptr;
  CoreLog().SetContext(nullptr);
  LibraryLog().SetContext(nullptr);
}

ActionDatabase& AgentCore::Actions() {
  return implementation_->actions;
}

const Settings& AgentCore::GetSettings() const {
  return implementation_->settings;
}

ZelDebugContext& AgentCore::DebugContext() {
  return implementation_->context;
}

const std::vector<std::string>& AgentCore::Warnings() const {
  return implementation_->loaded.warnings;
}

std::string AgentCore::Serve() {
  Implementation& core = *implementation_;
  if (core.server) throw std::runtime_error("the HTTP protocol is served already");
  auto pool = std::make_unique<ActionPool>(core.settings.maxThreads, core.settings.maxQueued);
  auto server = std::make_unique<HttpServer>(
      core.settings, core.authenticator, core.actions, core.aliases, *pool,
      [&core](const InvocationRecord& record) { core.Audit(record); });
  server->Start();
  core.pool = std::move(pool);
  core.server = std::move(server);
  CoreLog().PrintWithNL("Serving at %s", core.server->Url().c_str());
  return core.server->Url();
}

void AgentCore::StopServing() {
  Implementation& core = *implementation_;
  if (!core.server) return;
  core.server->Stop();
  core.pool->Stop();
  core.server.reset();
  core.pool.reset();
}

/// What the functions of libZelCore.h reach of the core.
class HostFunctions {
 public:
  /// Null when there is no core.
  static AgentCore::Implementation* Core() {
    auto* const core = static_cast<AgentCore*>(current.load());
    return core ? core->implementation_.get() : nullptr;
  }

  static uint32_t Register(const ZelString& signature, ActionHandler handler, void* context) {
    AgentCore::Implementation* const core = Core();
    if (!core || !handler || !core->actions.IsOwner(context)) return 1;
    const auto* const owner = static_cast<const ActionDatabase::Owner*>(context);
    if (core->actions.Register(signature, handler, owner)) return 0;
    CoreLog().WarningWithNL("Module %s: the action \"%S\" has no name, or one that is taken",
                            owner->moduleName.c_str(), signature);
    return 1;
  }

  static uint32_t Invoke(const ZelString* agent, const ZelString& address, const ZelString& action,
                         ZelContainer* parameters, uint32_t timeoutMs) {
    AgentCore::Implementation* const core = Core();
    if (!core) return kInvokeNotConfigured;
    ZelContainer unused;
    if (!parameters) parameters = &unused;
    if (address.IsEmpty()) return InvokeHere(*core, agent, action, parameters);

    const RemoteResult result = core->remote.Invoke(
        std::string(address.Utf8()), std::string(action.Utf8()), parameters, timeoutMs);
    if (!result.error.empty()) {
      CoreLog().WarningWithNL("Action %S on agent \"%S\" at %S did not run: %s", action,
                              agent ? *agent : ZelString(), address, result.error.c_str());
    }
    return result.code;
  }

  static uint32_t InvokeHere(AgentCore::Implementation& core, const ZelString* agent,
                             const ZelString& action, ZelContainer* parameters) {
    const bool isHere = !agent || agent->IsEmpty() || agent->Utf8() == core.settings.agentName;
    if (isHere) return core.actions.Invoke(action.Utf8(), parameters);
    CoreLog().WarningWithNL("Action %S on agent \"%S\" did not run: no address is given for it",
                            action, *agent);
    return kInvokeNotConfigured;
  }

  static uint32_t InvokeMaster(const ZelString& action, ZelContainer* parameters,
                               uint32_t timeoutMs) {
    AgentCore::Implementation* const core = Core();
    if (!core) return kInvokeNotConfigured;
    ZelContainer unused;
    if (!parameters) parameters = &unused;
    const std::string& address = core->settings.masterAddress;
    if (address.empty()) {
      CoreLog().WarningWithNL("Action %S on the master: no master is configured ([master] address)",
                              action);
      return kInvokeNotConfigured;
    }
    const RemoteResult result =
        core->remote.Invoke(address, std::string(action.Utf8()), parameters, timeoutMs);
    if (!result.error.empty()) {
      CoreLog().WarningWithNL("Action %S on the master: %s (%s): %s", action,
                              MasterFailure(result.code), address.c_str(), result.error.c_str());
    } else if (result.code != 0) {
      CoreLog().WarningWithNL("Action %S on the master: it failed with code %u", action,
                              result.code);
    }
    return result.code;
  }

 private:
  static const char* MasterFailure(uint32_t code) {
    switch (code) {
      case kInvokeNotConfigured:
        return "the connection to the master is not configured";
      case kInvokeUnreachable:
        return "the master is not reachable";
      case kInvokeRefused:
        return "the connection was refused";
      case kInvokeUnknownAction:
        return "the master has no such action";
      default:
        return "the invocation failed";
    }
  }
};

namespace {

// Nothing may be thrown at a module; what is left to throw is a lack of memory.
template <typename Function>
uint32_t Guarded(uint32_t failure, Function function) noexcept {
  try {
    return function();
  } catch (...) {
    return failure;
  }
}

}  // namespace

uint32_t ActionDbRegisterAction(const ZelString& signature, ActionHandler handler,
                                void* registrationContext) {
  return Guarded(1,
                 [&] { return HostFunctions::Register(signature, handler, registrationContext); });
}

uint32_t ActionDbInvokeContainer(const ZelString* targetAgent, const ZelString& targetAddress,
                                 const ZelString& action, ZelContainer* parameters, void*,
                                 uint32_t timeoutMs, uint32_t, bool) {
  return Guarded(kInvokeFailed, [&] {
    return HostFunctions::Invoke(targetAgent, targetAddress, action, parameters, timeoutMs);
  });
}

uint32_t InvokeContainerToMasterWithTempTunnel(const ZelString& action, ZelContainer* parameters,
                                               void*, void*, uint32_t timeoutMs, uint32_t) {
  return Guarded(kInvokeFailed,
                 [&] { return HostFunctions::InvokeMaster(action, parameters, timeoutMs); });
}

void ZelAgentGetDataDir(ZelString& directory) {
  const auto* const core = HostFunctions::Core();
  directory = core ? WithSeparator(core->data) : ZelString();
}

void ZelAgentGetConfigDir(ZelString& directory) {
  const auto* const core = HostFunctions::Core();
  directory = core ? WithSeparator(core->config) : ZelString();
}

void ZelAgentGetExePath(ZelString& path) {
  Guarded(0, [&] {
    path = FromNativePath(core_platform::ExecutablePath());
    return 0u;
  });
}

void* ZelAgentGetAppHandle() {
  return core_platform::ApplicationHandle();
}

void ZelAgentGetProxyPipeName(ZelString& pipeName) {
  Guarded(0, [&] {
    pipeName.Clear();
    const auto* const core = HostFunctions::Core();
    if (!core) return 0u;
    const std::string& configured = core->settings.proxyPipe;
    pipeName = configured.empty() ? core_platform::DefaultProxyPipe() : configured;
    return 0u;
  });
}

ZelDebugContext* ZelAgentGetDebugContext() {
  auto* const core = HostFunctions::Core();
  return core ? &core->context : nullptr;
}
