#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <exception>
#include <iostream>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/settings.h"
#include "agent/service/agent_run.h"
#include "agent/service/first_settings.h"
#include "agent/service/installation_access.h"
#include "agent/service/installation_check.h"
#include "agent/service/process.h"
#include "agent/service/service_control.h"
#include "agent/service/user_commands.h"

namespace {

namespace fs = std::filesystem;

fs::path PathOf(const std::string& utf8) {
  return fs::path(std::u8string(utf8.begin(), utf8.end()));
}

/// What the command line says.
struct CommandLine {
  std::string home;
  std::optional<uint16_t> port;
  std::string modules;
  bool logToStderr = false;
  std::string login;
  std::string role = "user";
  std::string passwordFile;
  bool keepsUser = false;
  std::string name;
  std::string master;
  std::string fleetSecretFile;
  std::string authorityFile;
  std::string programsOf;

  fs::path Home() const {
    if (!home.empty()) return PathOf(home);
    const std::optional<std::string> fromEnvironment = EnvironmentValue("ZEL_HOME");
    if (fromEnvironment && !fromEnvironment->empty()) return PathOf(*fromEnvironment);
    return DefaultHome();
  }
  fs::path Modules() const {
    return modules.empty() ? ProgramDirectory() / "modules" : PathOf(modules);
  }
  AgentOptions Options() const { return {Home(), port, logToStderr, true}; }
};

void RunInForeground(const CommandLine& line) {
  RunAgent(line.Options(), line.Modules(), [](const std::string& url) {
    std::printf("zelagent ready: %s\n", url.c_str());
    std::fflush(stdout);
  });
}

int RunUnderServiceManager(const CommandLine& line) {
  return RunAsService([&](const std::function<void()>& onReady) {
    RunAgent(line.Options(), line.Modules(), [&](const std::string&) { onReady(); });
    return 0;
  });
}

void InstallWith(const CommandLine& line) {
  std::vector<std::string> arguments = {
      "service", "run", "--home", std::string(FromNativePath(fs::absolute(line.Home())).Utf8())};
  if (line.port) {
    arguments.push_back("--port");
    arguments.push_back(std::to_string(*line.port));
  }
  if (!line.modules.empty()) {
    arguments.push_back("--modules");
    arguments.push_back(std::string(FromNativePath(fs::absolute(line.Modules())).Utf8()));
  }
  InstallService(arguments);
}

int CheckConfiguration(const CommandLine& line) {
  const fs::path file = line.Home() / "config" / "zelagent.ini";
  const SettingsResult result = LoadSettings(file);
  const std::string name(FromNativePath(file).Utf8());
  for (const std::string& error : result.errors)
    std::printf("%s: error: %s\n", name.c_str(), error.c_str());
  for (const std::string& warning : result.warnings)
    std::printf("%s: warning: %s\n", name.c_str(), warning.c_str());
  const std::vector<std::string> problems =
      InstallationProblems({ProgramDirectory(), line.Modules(), line.Home()});
  for (const std::string& problem : problems) std::printf("error: %s\n", problem.c_str());
  if (!result.errors.empty() || !result.warnings.empty() || !problems.empty()) return 1;
  std::printf("%s: no problems found\n", name.c_str());
  return 0;
}

// A home that somebody else has made first would have him read the secret, and own the agent. One
// that is made here is nobody else's from its first moment.
void MakeOwnHome(const fs::path& home, bool hasRights) {
  if (core_platform::MakePrivateDirectory(home) || !hasRights) return;
  const std::string weakness = FindWeakness(home / "config", PathUse::kTrusted);
  if (!weakness.empty()) throw UnsafeInstallation("nothing is written: " + weakness);
}

void InitConfiguration(const CommandLine& line) {
  MakeOwnHome(line.Home(), core_platform::IsAdministrator());
  const bool isNew =
      WriteFirstSettings(line.Home(), {line.name, line.port, line.master,
                                       PathOf(line.fleetSecretFile), PathOf(line.authorityFile)});
  const fs::path file = line.Home() / "config" / "zelagent.ini";
  std::printf("%s: %s\n", std::string(FromNativePath(file).Utf8()).c_str(),
              isNew ? "written" : "kept as it is");
}

void AddUserCommands(CLI::App& app, CommandLine& line) {
  CLI::App* const user = app.add_subcommand("user", "Console users");
  user->require_subcommand(1)->fallthrough();

  CLI::App* const add = user->add_subcommand("add", "Adds a user; asks for the password");
  add->add_option("login", line.login)->required();
  add->add_option("--role", line.role, "\"administrator\" may read and write every file")
      ->capture_default_str();
  add->add_option("--password-file", line.passwordFile,
                  "Takes the password from a file's first line");
  add->add_flag("--keep", line.keepsUser, "Leaves a user who is there already as he is");
  add->callback([&] {
    MakeOwnHome(line.Home(), HasAdministratorsRights());
    AddUser(line.Home(), line.login, line.role, PathOf(line.passwordFile),
            line.keepsUser ? KnownUser::kKeep : KnownUser::kRefuse);
  });

  CLI::App* const password = user->add_subcommand("password", "Changes a user's password");
  password->add_option("login", line.login)->required();
  password->add_option("--password-file", line.passwordFile,
                       "Takes the password from a file's first line");
  password->callback([&] {
    MakeOwnHome(line.Home(), HasAdministratorsRights());
    ChangePassword(line.Home(), line.login, PathOf(line.passwordFile));
  });

  CLI::App* const remove = user->add_subcommand("remove", "Removes a user");
  remove->add_option("login", line.login)->required();
  remove->callback([&] { RemoveUser(line.Home(), line.login); });

  user->add_subcommand("list", "Lists logins and roles")->callback([&] { ListUsers(line.Home()); });
  for (CLI::App* const command : user->get_subcommands({})) command->fallthrough();
}

void AddConfigCommands(CLI::App& app, CommandLine& line, int* status) {
  CLI::App* const config = app.add_subcommand("config", "The configuration");
  config->require_subcommand(1)->fallthrough();
  config->add_subcommand("check", "Names unknown keys and unusable values; status 1 when any")
      ->fallthrough()
      ->callback([&line, status] { *status = CheckConfiguration(line); });

  CLI::App* const init =
      config->add_subcommand("init", "Writes the settings of a home that has none yet");
  init->fallthrough()->callback([&line] { InitConfiguration(line); });
  init->add_option("--name", line.name, "This agent's name in its fleet");
  init->add_option("--master", line.master, "HOST or HOST:PORT of the fleet's master");
  init->add_option("--fleet-secret-file", line.fleetSecretFile,
                   "Copies the fleet secret from this file");
  init->add_option("--ca", line.authorityFile, "Copies the fleet's authority (PEM) from this file");
}

void AddServiceCommands(CLI::App& app, CommandLine& line, int* status) {
  CLI::App* const service = app.add_subcommand("service", "The agent as a service of the system");
  service->require_subcommand(1)->fallthrough();
  service->add_subcommand("install", "Installs the service")->callback([&] { InstallWith(line); });
  service->add_subcommand("remove", "Removes the service")->callback([] { RemoveService(); });
  service->add_subcommand("start", "Starts the service and waits until it runs")->callback([] {
    StartInstalledService();
  });
  CLI::App* const stop = service->add_subcommand("stop", "Stops the service and waits for its end");
  stop->callback([&] { StopInstalledService(PathOf(line.programsOf)); });
  stop->add_option("--programs-of", line.programsOf,
                   "Then ends the other programs that run from this directory");
  service->add_subcommand("run", "Runs as the service (for the service manager)")
      ->callback([&line, status] { *status = RunUnderServiceManager(line); });
  for (CLI::App* const command : service->get_subcommands({})) command->fallthrough();
}

int Main(const std::vector<std::string>& arguments) {
  CommandLine line;
  int status = 0;
  CLI::App app("The endpoint agent", "zelagent");
  app.require_subcommand(0, 1);
  app.add_option("--home", line.home,
                 "The agent's directory (default: ZEL_HOME, else the system's)");
  app.add_option("--port", line.port, "Port of the HTTP protocol; 0 picks a free one")
      ->check(CLI::Range(0, 65535));
  app.add_option("--modules", line.modules,
                 "Directory of the modules to load (default: modules beside the program)");
  app.add_flag("--log-to-stderr", line.logToStderr, "Also writes the log to standard error");

  CLI::App* const run = app.add_subcommand("run", "Runs the agent in the foreground (the default)");
  run->fallthrough();
  AddUserCommands(app, line);
  AddConfigCommands(app, line, &status);
  if (kHasServiceControl) AddServiceCommands(app, line, &status);

  try {
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
    if (app.get_subcommands().empty() || run->parsed()) RunInForeground(line);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  return status;
}

}  // namespace

int main(int count, char** values) {
  try {
    PrepareProcess();
    return Main(Arguments(count, values));
  } catch (const UnsafeInstallation& failure) {
    std::fprintf(stderr, "zelagent: %s\n", failure.what());
    return kUnsafeInstallationStatus;
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "zelagent: %s\n", failure.what());
    return 1;
  }
}
