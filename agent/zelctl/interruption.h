#pragma once

/// While it lives, Ctrl-C and a request to end (SIGINT, SIGTERM) do not end the program but make
/// requests of an `AgentClient` fail, within about a second, until `Reset`. One at a time.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  /// Whether it was asked for since the start or the latest `Reset`.
  static bool IsRequested();
  static void Reset();

 private:
  using Handler = void (*)(int);

  Handler beforeInterrupt_;
  Handler beforeTerminate_;
};
