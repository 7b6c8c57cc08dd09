#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What the proxy asks of the system; one implementation in each folder of platform/.

/// Settings of the process itself, before anything else.
void PrepareProcess();

/// The arguments after the program's name, UTF-8.
std::vector<std::string> Arguments(int count, char** values);

/// The user's login name.
std::string UserName();
/// The session that this process belongs to; empty where it is none.
std::string SessionId();
/// "linux" or "windows".
extern const char* const kPlatformName;
uint32_t ProcessId();
/// The language that the user reads, as a tag ("de-AT"); "en" where the system does not tell.
std::string UserLanguage();

/// Waits until the system, a person or the program itself asks the program to end (SIGTERM, SIGINT,
/// SIGHUP; Ctrl-C, the console's closing). One at a time, made before the process has other
/// threads.
class StopRequest {
 public:
  StopRequest();
  ~StopRequest();
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;

  void Wait();
  /// Asks for the end, from any thread.
  void Raise();
};
