#include <string>

#include "agent/zelctl/command_line.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/local_file.h"
#include "agent/zelctl/network_commands.h"
#include "agent/zelctl/terminal.h"

namespace {

std::string FindSharePassword(const Options& given) {
  if (given.shareCheck.user.empty()) return {};
  if (!given.sharePasswordFile.empty()) return ReadPasswordFile(given.sharePasswordFile);
  if (IsInputTerminal()) {
    return PromptPassword("Password of " + given.shareCheck.user + " for the share: ");
  }
  throw Failure(ExitStatus::kUsage,
                "no password for the share: name a file that holds it with --share-password-file");
}

void AddCheckCommands(CLI::App& app, Options* options, Command* command) {
  CLI::App* check = app.add_subcommand("check", "Check what the agent's machine can reach");
  check->require_subcommand(1);
  CLI::App* smb = AddVerb(
      *check, "smb",
      "Tell whether a share of a file server can be opened, through port 139. Status 0: it can.",
      command, [](AgentClient& agent, const Options& given) {
        ShareCheckOptions share = given.shareCheck;
        share.password = FindSharePassword(given);
        return CheckShare(agent, share);
      });
  smb->add_option("PATH", options->shareCheck.path, R"(\\host\share, or host/share)")->required();
  CLI::Option* user = smb->add_option(
      "--share-user", options->shareCheck.user,
      R"(As whom to log in there: name, DOMAIN\name or name@domain. Without it, as nobody)");
  smb->add_option("--share-password-file", options->sharePasswordFile,
                  "File whose first line is that user's password; without it the terminal is asked")
      ->needs(user);

  CLI::App* http = AddVerb(
      *check, "http",
      "Tell whether a URL can be fetched within 30 seconds: http or https, up to ten redirects,\n"
      "no error status, a valid certificate. Status 0: it can.",
      command, [](AgentClient& agent, const Options& given) { return CheckUrl(agent, given.url); });
  http->add_option("URL", options->url, "The URL; without a scheme, http")->required();
}

void AddWakeCommand(CLI::App& app, WakeOptions* wake, Command* command) {
  CLI::App* verb = AddVerb(
      app, "wake",
      "Wake a computer of the agent's network: the agent sends a magic packet to port 7 of the\n"
      "broadcast address.",
      command,
      [](AgentClient& agent, const Options& given) { return WakeComputer(agent, given.wake); });
  verb->add_option("MAC", wake->mac,
                   "Its hardware address, 12 hexadecimal digits; :, - and . may stand between")
      ->required();
  verb->add_option("--address", wake->address, "Its IPv4 address, or another one of its subnet")
      ->required();
  verb->add_option("--mask", wake->mask, "Its network mask: 255.255.255.0 or /24")->required();
}

}  // namespace

void AddNetworkVerbs(CLI::App& app, Options* options, Command* command) {
  CLI::App* ping = AddVerb(
      app, "ping", "Tell whether a host answers a ping of the agent's machine. Status 0: it does.",
      command,
      [](AgentClient& agent, const Options& given) { return PingHost(agent, given.host); });
  ping->add_option("HOST", options->host, "An address of IPv4 or IPv6, or a name")->required();
  AddCheckCommands(app, options, command);
  AddWakeCommand(app, &options->wake, command);
  AddVerb(app, "domains", "List the domains and workgroups of the agent's network, one on a line",
          command, [](AgentClient& agent, const Options&) { return ListDomains(agent); });
  CLI::App* servers = AddVerb(
      app, "servers", "List the computers of a domain or workgroup, one on a line", command,
      [](AgentClient& agent, const Options& given) { return ListServers(agent, given.domain); });
  servers->add_option("DOMAIN", options->domain, "Which one; without it, the agent's own");
}
