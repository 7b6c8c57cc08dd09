#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZel/archive_limits.h"
#include "agent/libZelCore/known_actions.h"
#include "libZel/debug.h"

/// One rule of the privacy policy, see docs/consoles-and-users.md.
struct PrivacyRule {
  std::string login;    ///< a login, "role:NAME", "*" for everyone, or "" for calls without a login
  std::string pattern;  ///< path pattern: "*" any text without separator, "**" any text
  bool mayRead = false;
  bool mayWrite = false;
};

/// How TLS is used with other agents.
enum class SslUse { kNone, kSend, kSendAndReceive, kSendAndReceiveExt };

/// How proofs of requests (PAC) are used with other agents.
enum class PacUse { kNone, kSend, kSendAndReceive };

/// The agent's configuration, read from config/zelagent.ini. Every member has its documented
/// default; docs/configuration.md describes each key.
struct Settings {
  // [agent]
  std::string agentName;               ///< default: the host name
  std::string language;                ///< of users whose own is not known; default: the system's
  std::map<char, std::string> drives;  ///< [drives] off Windows

  // [system]
  uint32_t codePage = 1252;  ///< off Windows

  // [http]
  std::string bindAddress = "127.0.0.1";
  uint16_t port = 7460;
  bool tls = false;
  std::filesystem::path certificateFile;  ///< PEM chain
  std::filesystem::path privateKeyFile;   ///< PEM
  bool allowPlainRemote = false;          ///< listen beyond loopback without TLS
  uint64_t maxBodyBytes = 16 * 1024 * 1024;
  uint32_t maxConnections = 12000;
  uint32_t requestTimeoutMs = 15000;  ///< from the first byte of a request to its last
  uint32_t idleTimeoutMs = 60000;
  uint32_t credentialMemoryMs = 300000;

  // [actions]
  uint32_t maxThreads = 64;
  uint32_t maxQueued = 1024;
  /// Actions that console users need the role "administrator" for; sorted.
  std::vector<std::string> administratorsOnly = AdministratorsOnlyByDefault();

  // [fleet]
  std::filesystem::path fleetSecretFile;
  std::string fleetSecret;  ///< read from that file; empty: no fleet
  std::filesystem::path fleetCaFile;
  uint32_t remoteTimeoutMs = 24 * 60 * 60 * 1000;
  uint32_t connectTimeoutMs = 10000;
  bool fleetAllowPlain = false;  ///< send fleet credentials without TLS beyond loopback

  // [security]
  SslUse ssl = SslUse::kNone;  ///< default: kSendAndReceive where [http] tls is on and a ca set
  PacUse pac = PacUse::kNone;
  uint32_t pacWindowMs = 300000;  ///< how far the clocks of two agents may differ
  /// Names by which others reach this machine, beside its own and its addresses.
  std::vector<std::string> hostNames;

  // [relay]
  std::string relayHost;  ///< the agent's parent, IPv6 in brackets; empty: none
  uint16_t relayPort = 0;
  std::string relayGuid;              ///< default: the host
  uint32_t aliasSilenceMs = 3600000;  ///< how long an alias outlives the last sign of its owner
  uint32_t stallTimeoutMs = 30000;    ///< how long an upload may bring next to nothing
  uint32_t maxUploads = 32;
  uint64_t maxUploadBytes = uint64_t{1} << 40;

  // [archives]
  ArchiveLimits archiveLimits;

  // [master]
  std::string masterAddress;          ///< empty: none, or this agent itself where it is one
  uint32_t masterTimeoutMs = 60'000;  ///< of one invocation
  bool isMaster = false;              ///< loads the task database
  std::string masterDatabase;         ///< see TaskStoreOptions; empty: an embedded one below data/
  uint32_t masterConnections = 8;     ///< to the database
  uint32_t masterMaxListed = 200;     ///< tasks in one list
  bool listsOwnDeviceOnly = false;    ///< agents see the tasks of their device, not the fleet's

  // [proxy]
  std::string proxyPipe;   ///< where the user-session proxy listens; empty: look for it
  bool proxyStart = true;  ///< start it where it is missing, unless `proxyPipe` says where it is
  uint32_t absenceAfterS = 600;  ///< without a touch of keyboard or pointer

  // [http_check]
  std::filesystem::path webAuthoritiesFile;  ///< PEM, trusted for checks of web servers, too

  // [log]
  ZelDebugLevel logLevel = ZelDebugLevel::kTrace;
  uint64_t logRotateBytes = 10 * 1024 * 1024;
  uint32_t logKeptFiles = 5;

  // [audit]
  uint64_t auditRotateBytes = 64 * 1024 * 1024;
  uint32_t auditKeptFiles = 0;  ///< rotated ones; 0: all

  // [privacy]
  std::vector<PrivacyRule> privacyRules;
};

struct SettingsResult {
  Settings settings;
  std::vector<std::string> warnings;  ///< unknown sections and keys, each named with its line
  std::vector<std::string> errors;    ///< values that cannot be used, each named with its line
  bool holdsPassword = false;         ///< the file itself seems to be a secret
};

/// Reads the text of a configuration file; `directory` is what relative file names start from.
/// Never throws (but for lack of memory).
SettingsResult ParseSettings(std::string_view text, const std::filesystem::path& directory);

/// Reads the configuration; a missing file gives the defaults. Relative file names are resolved
/// against the directory of `iniFile`. Never throws.
SettingsResult LoadSettings(const std::filesystem::path& iniFile);

/// The configuration of the agent that runs in this process; null when none does.
const Settings* CurrentSettings();
