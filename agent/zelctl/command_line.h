#pragma once

#include <functional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/backup_commands.h"
#include "agent/zelctl/commands.h"
#include "agent/zelctl/list_command.h"
#include "agent/zelctl/network_commands.h"
#include "agent/zelctl/process_commands.h"
#include "agent/zelctl/relay_commands.h"
#include "agent/zelctl/script_command.h"
#include "agent/zelctl/task_commands.h"
#include "agent/zelctl/user_commands.h"

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
  RunOptions run;
  ScriptOptions script;
  ProcessListOptions processes;
  std::vector<std::string> ids;
  RelayPutOptions relayPut;
  BackupRestoreOptions restore;
  ExtractOptions extract;
  LockOptions lock;
  AskOptions ask;
  DialogOptions dialog;
  bool isConfirmed = false;
  std::vector<std::string> program;
  TaskAddOptions taskAdd;
  TaskChangeOptions taskChange;
  TaskListOptions taskList;
  std::string host;
  ShareCheckOptions shareCheck;
  std::string sharePasswordFile;
  std::string url;
  WakeOptions wake;
  std::string domain;
};

/// What the command line asked for.
using Command = std::function<Result(Options&)>;

/// "zelctl: MESSAGE" on standard error, with nothing that could act on a terminal.
void PrintError(const std::string& message);

/// A message on standard error without a name in front; its lines stay lines.
void PrintDiagnostic(const std::string& message);

/// A command that is carried out by the agent, for the user that was named. It throws `Failure`
/// (kUsage) without a user or password.
Command ForAgent(Result (*run)(AgentClient&, const Options&));

/// Adds a verb that is carried out by the agent; `app` owns what is returned.
CLI::App* AddVerb(CLI::App& app, const char* name, const char* help, Command* command,
                  Result (*run)(AgentClient&, const Options&));

/// Adds the verbs over files and directories; what was asked for goes to `command`. Both pointers
/// must stay valid until the command line is parsed.
void AddFileVerbs(CLI::App& app, Options* options, Command* command);
/// The same for programs, scripts and processes.
void AddProgramVerbs(CLI::App& app, Options* options, Command* command);
/// The same for the relay, backups and archives.
void AddTransferVerbs(CLI::App& app, Options* options, Command* command);

/// The same for the person who is logged on there.
void AddUserVerbs(CLI::App& app, Options* options, Command* command);
/// The same for helpdesk tasks.
void AddTaskVerbs(CLI::App& app, Options* options, Command* command);
/// The same for the network of the agent's machine.
void AddNetworkVerbs(CLI::App& app, Options* options, Command* command);

/// Removes "--" and what follows from a command line of the verbs that run a program, and returns
/// what followed: it belongs to the program as it is, and CLI11 would read meanings into it. Other
/// command lines stay whole. `app` has all its options.
std::vector<std::string> TakeProgramArguments(const CLI::App& app,
                                              std::vector<std::string>* arguments);
