#include "agent/service/agent_run.h"

#include <cstdio>
#include <stdexcept>

#include "agent/libZel/native_path.h"
#include "agent/libZelMarlin/interruption.h"
#include "agent/service/installation_check.h"
#include "agent/service/leftovers.h"
#include "agent/service/module_host.h"
#include "agent/service/process.h"

namespace {

/// What only a master has. It is started first, so that scripts at the start find it, and stopped
/// last.
void StartMaster(AgentCore& core, ModuleHost& host, const std::filesystem::path& directory) {
  if (!core.GetSettings().isMaster) return;
  host.StartAll(directory);
  if (core.Actions().Contains("TrnDbCreateTask")) return;
  const std::filesystem::path file =
      (directory / "TaskDatabase").replace_extension(ModuleLibrary::kSuffix);
  throw std::runtime_error("this agent cannot be a master ([master] enabled = yes): the module " +
                           std::string(FromNativePath(file).Utf8()) +
                           " is missing or cannot be loaded");
}

}  // namespace

void RunAgent(const AgentOptions& options, const std::filesystem::path& modules,
              const std::function<void(const std::string&)>& onReady) {
  CheckInstallation({ProgramDirectory(), modules, options.home});
  RemoveLeftovers(options.home);
  StopRequest stop;
  AgentCore core(options);
  for (const std::string& warning : core.Warnings())
    std::fprintf(stderr, "zelagent: warning: zelagent.ini: %s\n", warning.c_str());

  ModuleHost host(core);
  StartMaster(core, host, modules / "master");
  host.StartAll(modules);
  onReady(core.Serve());

  stop.Wait();
  // An action that runs a script ends only with it.
  InterruptScripts();
  core.StopServing();
  host.Stop();
}
