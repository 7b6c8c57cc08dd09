#pragma once

#include <cstdint>

#include "agent/libZel/outcome.h"
#include "libZel/proxy_client.h"
#include "libZel/string.h"

// What the agent's own code asks of the user-session proxy, over a connection that
// `XmlProxyClient::Initialise` has opened. A question waits for its answer as long as that
// connection's time-out allows. Nothing here throws; `outcome.reason` is for the log.
//
// Threads: as the connection, one at a time.

/// The session that a proxy runs in.
struct SessionInfo {
  /// Whether it is known; without success the rest is empty.
  Outcome outcome;
  /// The user's login name.
  ZelString userName;
  /// The session's number on Windows, the login session's name ("" without one) on Linux.
  ZelString sessionId;
  /// "linux" or "windows".
  ZelString platform;
  /// The proxy's process.
  uint32_t processId = 0;
  /// Since when the proxy runs, in seconds since 1970-01-01 UTC.
  int64_t startedAt = 0;
  /// The user's language, a tag such as "de-AT"; empty where the proxy does not tell.
  ZelString language;
};

/// How a question to the proxy ended.
struct ProxyOutcome {
  /// Whether the proxy gave an answer, be it a refusal. False for a client that is not connected, a
  /// broken connection and an answer that is too late.
  bool wasAsked = false;
  /// Success, or why not.
  Outcome outcome;
};

/// Who is logged on there, as the proxy told when the connection was opened. Fails when that is not
/// open, or a question has broken it.
SessionInfo SessionOf(const XmlProxyClient& client);

/// Has the proxy start a program, with the user's rights and environment, and does not wait for its
/// end. `commandLine` is what `ExecRedirect` takes. The outcome is a success when it was started.
Outcome RunInSession(XmlProxyClient& client, const ZelString& commandLine);

/// The same, and whether the proxy was reached at all.
ProxyOutcome AskToRun(XmlProxyClient& client, const ZelString& commandLine);
