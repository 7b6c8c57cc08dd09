#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "agent/libZelCore/action_database.h"
#include "agent/libZelCore/settings.h"

/// What an agent is started with beyond its configuration file.
struct AgentOptions {
  std::filesystem::path home;    ///< holds config/, data/, log/, bin/
  std::optional<uint16_t> port;  ///< overrides [http] port; 0 picks a free one
  bool logToStderr = false;
  bool startsProxies = false;  ///< where the configuration does not forbid it
};

/// The agent core of this process: log, settings, users, action database, privacy policy, audit
/// trail, HTTP protocol. At most one exists at a time; the functions of libZelCore.h work on it.
class AgentCore {
 public:
  struct Implementation;

  /// Reads the configuration and opens log and audit trail; registers the core's own actions.
  /// Throws std::runtime_error with a sentence for the administrator.
  explicit AgentCore(const AgentOptions& options);
  ~AgentCore();
  AgentCore(const AgentCore&) = delete;
  AgentCore& operator=(const AgentCore&) = delete;

  ActionDatabase& Actions();
  const Settings& GetSettings() const;
  /// Where the agent's log and audit lines go; valid as long as the core.
  ZelDebugContext& DebugContext();
  /// Unknown keys and the like, already logged.
  const std::vector<std::string>& Warnings() const;

  /// Starts the HTTP protocol; returns its URL. Throws std::runtime_error.
  std::string Serve();
  /// Stops serving, ends what waits for people, and waits for running actions.
  void StopServing();

 private:
  std::unique_ptr<Implementation> implementation_;
};
