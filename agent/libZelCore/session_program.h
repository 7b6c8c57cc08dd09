#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "agent/libZel/user_sessions.h"

// The user-session proxy as seen from the agent: where it listens in a session, and how a program
// is started there; one implementation in each folder of platform/. Any thread may call.

/// Where the proxy of that session listens; empty where the session has no place for it. Elsewhere
/// than on Windows: "zelproxy.sock" in the user's run-time directory (/run/user/UID), which must be
/// there and belong to that user. Whether anybody listens is another question.
std::string ProxyPipeOf(const UserSession& session);

/// Whether there is a pipe at that place that belongs to the session's user. On Windows a pipe can
/// only be seen by speaking to it: always true there.
bool HasProxyPipe(const UserSession& session);

/// Whether somebody listens there. Takes no time worth mentioning.
bool IsProxyListening(const UserSession& session);

/// Whether this process can start programs in that session as its user at all.
bool MayStartIn(const UserSession& session);

/// A program that was started in a session. It goes on when this object is destroyed. Threads: one
/// at a time.
class SessionProgram {
 public:
  virtual ~SessionProgram() = default;
  virtual bool IsRunning() = 0;
  /// Asks it to end, on Windows ends it. Returns at once.
  virtual void AskToEnd() = 0;
  /// Waits until it has ended and ends it by force when that takes longer than `patience`. One that
  /// even that does not end within two seconds is let go.
  virtual void WaitForEnd(std::chrono::milliseconds patience) = 0;

 protected:
  SessionProgram() = default;
  SessionProgram(const SessionProgram&) = delete;
  SessionProgram& operator=(const SessionProgram&) = delete;
};

struct StartedProgram {
  /// Null on failure.
  std::unique_ptr<SessionProgram> program;
  /// Why not, a sentence.
  std::string error;
};

/// Starts `program` in the session, with the rights and the environment of its user and nothing of
/// this process: no handles, empty standard streams, "/" as working directory (on Windows the
/// program's own), on Linux a umask of 022. `options` are its arguments, without blanks and quotes.
/// Fails for a graphical session that has no display yet. Takes five seconds at most, seven when it
/// has to end by force what does not start. Throws only for want of memory.
StartedProgram StartInSession(const std::filesystem::path& program, const UserSession& session,
                              const std::vector<std::string>& options = {});
