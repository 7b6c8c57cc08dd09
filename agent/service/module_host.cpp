#include "agent/service/module_host.h"

#include <algorithm>
#include <cstdio>
#include <exception>

#include "agent/libZel/native_path.h"
#include "libZel/debug.h"

namespace {

namespace fs = std::filesystem;

enum Command : uint32_t {
  kRegister = 1,
  kUnregister = 2,
  kInitialise = 3,
  kActivate = 4,
  kCleanup = 5,
  kDescription = 6,
  kVersion = 7,
};

constexpr uint32_t kDone = 1;
constexpr size_t kTextCharacters = 1024;

ZelDebug& Log() {
  static ZelDebug log("zelagent", "Service program");
  return log;
}

void Tell(ModuleMainFunction module, const std::string& name, Command command, TCHAR* buffer) {
  const uint32_t result = module(command, 0, buffer);
  if (result == kDone) return;
  Log().WarningWithNL("Module %s answered command %u with %u", name.c_str(),
                      static_cast<uint32_t>(command), result);
}

ZelString Ask(ModuleMainFunction module, const std::string& name, Command command) {
  std::vector<TCHAR> text(kTextCharacters);
  Tell(module, name, command, text.data());
  text.back() = 0;
  return ZelString(text.data());
}

std::vector<fs::path> ModuleFiles(const fs::path& directory) {
  std::vector<fs::path> files;
  std::error_code error;
  for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
    if (entry.path().extension() == ModuleLibrary::kSuffix) files.push_back(entry.path());
  }
  if (error) {
    Log().WarningWithNL("No modules: %S: %s", FromNativePath(directory), error.message().c_str());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

void ModuleHost::StartAll(const fs::path& directory) {
  Log().SetContext(&core_.DebugContext());
  for (const fs::path& file : ModuleFiles(directory)) {
    try {
      Start(file);
    } catch (const std::exception& failure) {
      Log().ErrorWithNL("%s", failure.what());
      std::fprintf(stderr, "zelagent: %s\n", failure.what());
    }
  }
}

void ModuleHost::Start(const fs::path& file) {
  auto library = std::make_unique<ModuleLibrary>(file);
  const ModuleMainFunction module = library->Main();
  const std::string name(FromNativePath(file.stem()).Utf8());

  const ZelString description = Ask(module, name, kDescription);
  const ZelString version = Ask(module, name, kVersion);
  Log().PrintWithNL("Module %s: %S, version %S", name.c_str(), description, version);

  ActionDatabase::Owner* const owner = core_.Actions().AddOwner(name);
  modules_.push_back({name, owner, std::move(library)});
  // What the buffer holds with this command is the registration context, not a text.
  Tell(module, name, kRegister, reinterpret_cast<TCHAR*>(owner));
  Tell(module, name, kInitialise, nullptr);
  Tell(module, name, kActivate, nullptr);
}

void ModuleHost::Stop() {
  for (auto module = modules_.rbegin(); module != modules_.rend(); ++module)
    Tell(module->code->Main(), module->name, kCleanup, nullptr);
  while (!modules_.empty()) {
    const Module& module = modules_.back();
    Tell(module.code->Main(), module.name, kUnregister, nullptr);
    core_.Actions().UnregisterAll(module.owner);
    modules_.pop_back();
  }
  Log().SetContext(nullptr);
}
