#pragma once

#include "libZel.h"

// Direct Access: an administrator works on this machine from a remote console. The agent core adds
// to each request on whose behalf it is made.

/// String: login of the remote console user; absent or empty when the call is not theirs.
constexpr const char* kDACurrentConsoleUser = "DACurrentConsoleUser";
/// Container: the HTTP request that carried the call.
constexpr const char* kHttpProtocolRequestInfo = "HttpProtocolRequestInfo";
/// String, inside `HttpProtocolRequestInfo`: the requester's address.
constexpr const char* kHttpProtocolRequestAddress = "HttpProtocolRequestAddress";

/// Asks the agent's privacy policy whether `login` may read (`forReading`) or write (else) the file
/// or directory `path`. The policy is asked even for an empty login; it is not asked for URLs,
/// which are always allowed. An agent that cannot answer refuses. Logs nothing.
bool IsAccessAllowed(const ZelString& path, const ZelString& login, bool forReading);

inline bool MayRead(const ZelString& path, const ZelString& login) {
  return IsAccessAllowed(path, login, true);
}

inline bool MayWrite(const ZelString& path, const ZelString& login) {
  return IsAccessAllowed(path, login, false);
}

/// Writes one audit line: `consoleUser`, the address in `requestInfo` (empty when absent), and
/// `event` followed by ", class Direct Access".
void AuditDirectAccess(const ZelContainer& requestInfo, const ZelString& consoleUser,
                       const ZelString& event);
