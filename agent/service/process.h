#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

// What the service program asks of the system; one implementation in each folder of platform/.

/// Settings of the process itself, before anything else: memory, signals, the mode of new files.
void PrepareProcess();

/// The arguments after the program's name, UTF-8.
std::vector<std::string> Arguments(int count, char** values);

std::optional<std::string> EnvironmentValue(const char* name);

/// Where the agent lives when nobody says.
std::filesystem::path DefaultHome();

/// The directory of this program. Throws std::system_error.
std::filesystem::path ProgramDirectory();

/// Asks on the terminal, without echo, or reads a line when standard input is no terminal. Nothing
/// at the end of the input.
std::optional<std::string> ReadPassword(const std::string& prompt);

/// Waits for the system or a person to ask the program to end (SIGTERM, SIGINT; Ctrl-C, the
/// console's closing). One at a time; a request that comes before `Wait` is not lost.
class StopRequest {
 public:
  StopRequest();
  ~StopRequest();
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;

  void Wait();
  /// Makes `Wait` return; from any thread.
  static void Raise();
};
