#pragma once

#include <cstdint>
#include <memory>

/// A child of the test, ended with the object. It also ends when the test does.
class ChildProcess {
 public:
  enum class Task {
    kWait,
    /// Keeps a processor busy, for at most a minute.
    kCompute
  };

  /// Throws std::system_error.
  explicit ChildProcess(Task task);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  uint32_t Id() const;
  /// Waits, up to ten seconds, for the end of the child; whether it has ended. Its identifier may
  /// then belong to another.
  bool WaitForEnd();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};
