#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "agent/libZelCore/agent_core.h"
#include "agent/service/module_library.h"

/// The agent's modules: loads them and drives them through their lives.
class ModuleHost {
 public:
  explicit ModuleHost(AgentCore& core) : core_(core) {}
  ~ModuleHost() { Stop(); }
  ModuleHost(const ModuleHost&) = delete;
  ModuleHost& operator=(const ModuleHost&) = delete;

  /// Loads every module of the directory, in the order of their names, and tells each to register,
  /// initialise and activate. One that fails is logged and told on standard error; the others go
  /// on.
  void StartAll(const std::filesystem::path& directory);

  /// Tells the modules, the last one first, to clean up and unregister, and unloads them. No action
  /// may be running.
  void Stop();

 private:
  struct Module {
    std::string name;
    ActionDatabase::Owner* owner;
    std::unique_ptr<ModuleLibrary> code;
  };

  void Start(const std::filesystem::path& file);

  AgentCore& core_;
  std::vector<Module> modules_;
};
