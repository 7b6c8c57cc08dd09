#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"

// zelctl's verbs over what the agent's machine can reach on its network. An answer of no is the
// result's `problem`; each throws `Failure`, which carries the deciding reply, when the action
// could not be carried out. Why something is out of reach, the agent's log tells.

/// Whether `host`, an address or a name, answers a ping.
Result PingHost(AgentClient& agent, const std::string& host);

struct ShareCheckOptions {
  /// \\host\share or host\share; slashes stand for backslashes.
  std::string path;
  std::string user;  ///< name, DOMAIN\name or name@domain; empty: nobody in particular
  std::string password;
};

/// Whether a share of a file server can be opened. The step that failed is a `Failure`.
Result CheckShare(AgentClient& agent, const ShareCheckOptions& options);

/// Whether `url` can be fetched. It is not repeated: it may hold credentials.
Result CheckUrl(AgentClient& agent, const std::string& url);

struct WakeOptions {
  std::string mac;
  std::string address;
  std::string mask;
};

/// Has the packet sent that wakes a computer of the agent's network. kUsage, before the agent is
/// asked, for what `ParseMac`, `ParseIpv4` and `ParseMask` do not take.
Result WakeComputer(AgentClient& agent, const WakeOptions& options);

/// Names of the network's domains and workgroups, one on a line.
Result ListDomains(AgentClient& agent);
/// Names of the computers of `domain`; empty: of the machine's own.
Result ListServers(AgentClient& agent, const std::string& domain);

/// The 12 hexadecimal digits of a hardware address, as they are. They may stand in pairs or in
/// fours with ":", "-" or "." between all of them. Nothing when the text is anything else.
std::optional<std::string> ParseMac(std::string_view text);

/// A network mask as an address (255.255.255.0) or as its length (/24). Nothing when the text is
/// anything else, or when ones follow zeros.
std::optional<uint32_t> ParseMask(std::string_view text);
