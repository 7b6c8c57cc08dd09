#include "agent/service/service_control.h"

#include <stdexcept>

// systemd starts and stops the program like any other: "zelagent run" and SIGTERM.

namespace {

[[noreturn]] void Refuse() {
  throw std::runtime_error("services are systemd units here; let one start \"zelagent run\"");
}

}  // namespace

const bool kHasServiceControl = false;

void InstallService(const std::vector<std::string>&) {
  Refuse();
}

void RemoveService() {
  Refuse();
}

void StartInstalledService() {
  Refuse();
}

void StopInstalledService(const std::filesystem::path&) {
  Refuse();
}

int RunAsService(const std::function<int(const std::function<void()>&)>&) {
  Refuse();
}
