#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

// The way between two processes of one machine: a Unix-domain socket, on Windows a named pipe.
// Nothing here waits longer than its deadline.
namespace proxy_protocol {

using Deadline = std::chrono::steady_clock::time_point;

inline Deadline After(std::chrono::milliseconds time) {
  return std::chrono::steady_clock::now() + time;
}

/// How reading, writing, connecting ended.
struct Result {
  enum class Status { kDone, kClosed, kTooLate, kStopped, kFailed };

  Status status = Status::kDone;
  /// For the log; empty when done.
  std::string reason;

  explicit operator bool() const { return status == Status::kDone; }
};

/// Makes everything stop that waits with it. Once raised it stays so.
class StopSignal {
 public:
  /// Throws std::system_error.
  StopSignal();
  ~StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;

  /// From any thread.
  void Raise();
  /// Whether it is raised before `deadline`.
  bool Wait(Deadline deadline) const;

  struct Handle;
  const Handle& Get() const { return *handle_; }

 private:
  std::unique_ptr<Handle> handle_;
};

/// One end of an open connection. Threads: one that reads and one that writes at a time. Throws
/// only for want of memory.
class Channel {
 public:
  virtual ~Channel() = default;

  /// Reads exactly `count` bytes.
  virtual Result Read(void* bytes, size_t count, Deadline deadline) = 0;
  /// Writes all of them.
  virtual Result Write(const void* bytes, size_t count, Deadline deadline) = 0;

  /// Ends the connection, from any thread: who reads or writes here returns at once with kClosed.
  /// The other end notices at the latest when this object is gone.
  virtual void Abort() = 0;
};

struct Connected {
  /// Null on failure.
  std::unique_ptr<Channel> channel;
  Result result;
};

/// Connects to who listens at `pipe`. Fails at once where nobody does, and where the listener is
/// not whom the pipe belongs to. Connecting and the channel watch `stop`, if there is one.
Connected Connect(const std::string& pipe, Deadline deadline,
                  std::shared_ptr<StopSignal> stop = nullptr);

/// Takes connections.
class Listener {
 public:
  virtual ~Listener() = default;

  /// Waits for the next connection, until `stop` is raised (status kStopped) or nobody can come any
  /// more because the pipe is not there as it was made (kClosed). Callers who may not speak to this
  /// process are turned away (kFailed, as for errors of the system): the next call goes on. The
  /// channel watches `stop` too.
  virtual Connected Accept() = 0;
};

/// How often a listener looks whether its pipe is still there, by default.
constexpr std::chrono::milliseconds kLookInterval = std::chrono::seconds(5);

/// Listens at `pipe`, for this user and the system's administrators alone. Throws
/// std::runtime_error with a sentence: when another process listens there, for example. What is
/// made for it is gone with the listener. On Windows nobody can take a pipe away from its listener,
/// which does not look therefore.
std::unique_ptr<Listener> Listen(const std::string& pipe, std::shared_ptr<StopSignal> stop,
                                 std::chrono::milliseconds lookInterval = kLookInterval);

/// Where the proxy of this session listens. Throws std::runtime_error where there is no such place.
std::string DefaultPipe();

}  // namespace proxy_protocol
