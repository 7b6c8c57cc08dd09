#include "agent/service/agent_run.h"

#include <cstdio>

#include "agent/libZelMarlin/interruption.h"
#include "agent/service/module_host.h"
#include "agent/service/process.h"

void RunAgent(const AgentOptions& options, const std::filesystem::path& modules,
              const std::function<void(const std::string&)>& onReady) {
  StopRequest stop;
  AgentCore core(options);
  for (const std::string& warning : core.Warnings())
    std::fprintf(stderr, "zelagent: warning: zelagent.ini: %s\n", warning.c_str());

  ModuleHost host(core);
  host.StartAll(modules);
  onReady(core.Serve());

  stop.Wait();
  // An action that runs a script ends only with it.
  InterruptScripts();
  core.StopServing();
  host.Stop();
}
