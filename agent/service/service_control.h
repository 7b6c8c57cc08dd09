#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

/// Whether this platform's service manager starts the program in a way of its own (Windows).
extern const bool kHasServiceControl;

/// Installs a service that runs this program with `arguments`, started with the system and again
/// after a crash. Throws std::runtime_error.
void InstallService(const std::vector<std::string>& arguments);
/// Stops and removes it. Throws std::runtime_error.
void RemoveService();
/// Returns when the service runs, at once when it did already. Throws std::runtime_error.
void StartInstalledService();
/// Returns when the service and its process have ended, at once where there is none. Then ends the
/// other programs that run from files of the directory `programsOf`, so that these can be replaced;
/// none when it is empty. Throws std::runtime_error.
void StopInstalledService(const std::filesystem::path& programsOf);

/// Runs as the service: tells the service manager of each state. `run` calls its argument when the
/// agent is ready, and returns the exit status when `StopRequest::Raise` has been called. Throws
/// std::runtime_error when the service manager did not start this program.
int RunAsService(const std::function<int(const std::function<void()>& onReady)>& run);
