#include "agent/libZelCore/agent_core.h"

#include <chrono>
#include <stdexcept>
#include <utility>

#include "agent/libZel/absence_limit.h"
#include "agent/libZel/archive_limits.h"
#include "agent/libZel/http_exchange.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/network/web_trust.h"
#include "agent/libZel/proxy_waits.h"
#include "agent/libZelCore/agent_core_parts.h"
#include "agent/libZelCore/core_actions.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/host_functions.h"
#include "agent/libZelCore/identity.h"

namespace fs = std::filesystem;

namespace {

constexpr const char* kConfigurationFile = "zelagent.ini";
constexpr const char* kInventoryFile = "applications.ini";
constexpr const char* kLockFile = "zelagent.lock";

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

/// What the configuration names and nobody may replace by storing a file.
std::vector<AliasTable::GuardedFile> GuardedFiles(const Settings& settings) {
  return {{settings.fleetCaFile, "certificate authority"},
          {settings.fleetSecretFile, "fleet secret"},
          {settings.certificateFile, "certificate"},
          {settings.privateKeyFile, "private key"},
          {settings.webAuthoritiesFile, "authorities for web servers"}};
}

/// The proxy stands beside this program, where nobody but administrators may put anything.
fs::path ProxyProgram() {
  const fs::path agent = core_platform::ExecutablePath();
  fs::path proxy = agent.parent_path() / "zelproxy";
  return proxy.replace_extension(agent.extension());
}

void PrepareUserSessions(AgentCore::Implementation& core, const AgentOptions& options) {
  const Settings& settings = core.settings;
  SetAbsenceLimit(std::chrono::seconds(settings.absenceAfterS));
  core.texts = std::make_unique<UserTexts>(
      std::vector<fs::path>{ShippedTranslations(), core.config / "translations"},
      settings.language.empty() ? core_platform::SystemLanguage() : settings.language,
      AskProxyForLanguage);
  if (core.texts->Find("_ACTION_YES_", "en") == "_ACTION_YES_")
    CoreLog().WarningWithNL("The texts for users are missing: %S",
                            FromNativePath(ShippedTranslations()));
  if (options.startsProxies && settings.proxyStart && settings.proxyPipe.empty())
    core.supervisor = std::make_unique<ProxySupervisor>(RealProxySystem(ProxyProgram()));
  core.proxies = std::make_unique<ProxyFinder>(settings.proxyPipe, core.supervisor.get());
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

}  // namespace

ZelString WithSeparator(const fs::path& directory) {
  std::string text(FromNativePath(directory).Utf8());
  if (text.empty() || text.back() != core_platform::kSeparator) text += core_platform::kSeparator;
  return text;
}

AgentCore::Implementation::Implementation(const AgentOptions& options)
    : home(fs::absolute(options.home).lexically_normal()),
      config(PrivateDirectory(home / "config")),
      data(PrivateDirectory(home / "data")),
      log(PrivateDirectory(home / "log")),
      lock(home / kLockFile),
      loaded(LoadUsableSettings(config / kConfigurationFile)),
      settings(loaded.settings),
      audit(log / "audit.jsonl", {settings.auditRotateBytes, settings.auditKeptFiles}),
      context(LogOptions(settings, log, options.logToStderr)),
      identity(DeviceIdentity(data / "identity")),
      users(config / "users"),
      authenticator(users, settings.fleetSecret,
                    std::chrono::milliseconds(settings.credentialMemoryMs)),
      policy(settings.privacyRules, [this](std::string_view login) { return users.Role(login); }),
      inventory(config / kInventoryFile),
      aliases(home, data, GuardedFiles(settings),
              std::chrono::milliseconds(settings.aliasSilenceMs)),
      remote(settings),
      sslContext{settings.fleetCaFile, settings.certificateFile, settings.privateKeyFile},
      pacContext{settings.agentName, settings.fleetSecret} {
  if (options.port) settings.port = *options.port;
  port = settings.port;
  context.SetAuditSink([this](const AuditLine& line) {
    audit.Write({line.module.Utf8(), line.user.Utf8(), line.address.Utf8(), line.text.Utf8(), {}});
  });
}

void AgentCore::Implementation::Audit(const InvocationRecord& record) {
  const std::string text = record.what + " code " + std::to_string(record.code);
  audit.Write(
      {"libZelCore", OwnerText(record.caller), record.caller.address, text, record.requestId});
}

AgentCore::AgentCore(const AgentOptions& options) {
  if (ServedCore() != nullptr) throw std::runtime_error("an agent core is running in this process");
  implementation_ = std::make_unique<Implementation>(options);
  Implementation& core = *implementation_;

  LibraryLog().SetContext(&core.context);
  CoreLog().SetContext(&core.context);
  SetDriveMap(core.settings.drives);
  SetArchiveLimits(core.settings.archiveLimits);
  http_exchange::AllowPlainCredentials(core.settings.fleetAllowPlain);
  SetWebAuthorities(core.settings.webAuthoritiesFile);
  if (!core_platform::SetSystemCodePage(core.settings.codePage))
    CoreLog().WarningWithNL("This system has no code page %u", core.settings.codePage);
  for (const std::string& warning : core.loaded.warnings)
    CoreLog().WarningWithNL("%s: %s", kConfigurationFile, warning.c_str());

  core.coreOwner = core.actions.AddOwner("libZelCore");
  RegisterCoreActions(
      {core.settings, WithSeparator(core.data), WithSeparator(core.config), core.identity,
       core.policy, core.inventory, core.aliases, [&core] { return core.port.load(); }},
      &core.actions, core.coreOwner);
  PrepareUserSessions(core, options);
  ServedCore() = &core;
  CoreLog().PrintWithNL("Agent %s starts, home %S", core.settings.agentName.c_str(),
                        FromNativePath(core.home));
}

AgentCore::~AgentCore() {
  StopServing();
  CoreLog().PrintWithNL("Agent stops");
  ServedCore() = nullptr;
  implementation_->supervisor.reset();
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
  AllowProxyWaits();
  server->Start();
  core.pool = std::move(pool);
  core.server = std::move(server);
  core.port = core.server->Port();
  CoreLog().PrintWithNL("Serving at %s", core.server->Url().c_str());
  return core.server->Url();
}

void AgentCore::StopServing() {
  Implementation& core = *implementation_;
  if (!core.server) return;
  EndProxyWaits();
  core.server->Stop();
  core.pool->Stop();
  core.server.reset();
  core.pool.reset();
  core.port = core.settings.port;
}
