#pragma once

#include <atomic>
#include <filesystem>
#include <memory>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/security_context.h"
#include "agent/libZelCore/action_pool.h"
#include "agent/libZelCore/agent_core.h"
#include "agent/libZelCore/alias_table.h"
#include "agent/libZelCore/application_inventory.h"
#include "agent/libZelCore/audit_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/http_server.h"
#include "agent/libZelCore/privacy_policy.h"
#include "agent/libZelCore/proxy_finder.h"
#include "agent/libZelCore/proxy_supervisor.h"
#include "agent/libZelCore/remote_invocation.h"
#include "agent/libZelCore/user_texts.h"

/// What an agent core consists of, for the core itself and the functions of libZelCore.h.
struct AgentCore::Implementation {
  explicit Implementation(const AgentOptions& options);

  void Audit(const InvocationRecord& record);

  const std::filesystem::path home;
  const std::filesystem::path config;
  const std::filesystem::path data;
  const std::filesystem::path log;
  core_platform::InstanceLock lock;
  SettingsResult loaded;
  Settings& settings;
  AuditLog audit;
  ZelDebugContext context;
  const std::string identity;
  UserStore users;
  Authenticator authenticator;
  PrivacyPolicy policy;
  ApplicationInventory inventory;
  AliasTable aliases;
  RemoteInvoker remote;
  SslContext sslContext;
  PacContext pacContext;
  std::unique_ptr<UserTexts> texts;
  std::unique_ptr<ProxySupervisor> supervisor;  ///< null when this agent starts no proxies
  std::unique_ptr<ProxyFinder> proxies;
  ActionDatabase actions;
  ActionDatabase::Owner* coreOwner = nullptr;
  std::unique_ptr<ActionPool> pool;
  std::unique_ptr<HttpServer> server;
  std::atomic<uint16_t> port;  ///< the bound one while the HTTP protocol is served
};

/// The directory as modules get it, ending in a separator.
ZelString WithSeparator(const std::filesystem::path& directory);
