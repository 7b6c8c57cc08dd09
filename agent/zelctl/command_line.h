#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"
#include "agent/zelctl/list_command.h"

// The command line of zelctl, as CLI11 takes it apart.

struct Options {
  AgentAddress agent{"http://127.0.0.1:7460", "", "", ""};
  std::string passwordFile;
  bool json = false;

  // Of the commands.
  std::string pattern;
  std::string action;
  std::vector<std::string> parameters;
  std::string source;
  std::string destination;
  bool recursive = false;
  ListOptions list;
};

/// What the command line asked for.
using Command = std::function<Result(Options&)>;

/// "zelctl: MESSAGE" on standard error, with nothing that could act on a terminal.
void PrintError(const std::string& message);

/// A command that is carried out by the agent, for the user that was named. It throws `Failure`
/// (kUsage) without a user or password.
Command ForAgent(Result (*run)(AgentClient&, const Options&));

/// Adds the verbs over files and directories; what was asked for goes to `command`. Both pointers
/// must stay valid until the command line is parsed.
void AddFileVerbs(CLI::App& app, Options* options, Command* command);
