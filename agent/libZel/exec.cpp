#include "libZel/exec.h"

#include <string>

#include "agent/libZel/boundary.h"
#include "agent/libZel/command_line.h"
#include "agent/libZel/process_start.h"
#include "agent/libZel/proxy_connection.h"
#include "agent/libZel/proxy_session.h"
#include "libZel/proxy_client.h"

namespace {

// The arguments stay out of the log: they may hold secrets.
void LogNotStarted(const ZelString& commandLine, const ZelString& reason) {
  LibraryLog().WarningWithNL("start of \"%S\" failed: %S", SplitCommandLine(commandLine.Utf8())[0],
                             reason);
}

bool RunHere(const ZelString& commandLine) {
  const Outcome outcome = StartProgram(commandLine);
  if (!outcome) LogNotStarted(commandLine, outcome.reason);
  return static_cast<bool>(outcome);
}

bool RunThere(const ZelString& commandLine, XmlProxyClient& proxy, bool* failed) {
  const ProxyOutcome answer = AskToRun(proxy, commandLine);
  if (!answer.wasAsked) *failed = true;
  if (!answer.outcome)
    LogNotStarted(commandLine, "in the user's session: " + answer.outcome.reason);
  return static_cast<bool>(answer.outcome);
}

bool RunInUserSession(const ZelString& commandLine, XmlProxyClient* proxy,
                      const ZelString& proxyPipe, bool* failed) {
  if (proxy) return RunThere(commandLine, *proxy, failed);
  XmlProxyClient own;
  if (proxyPipe.IsEmpty()) {
    LogNotStarted(commandLine, "nobody is logged on, or no proxy runs in the user's session");
  } else if (own.Initialise(proxyPipe, kProxyTimeoutMs, XmlProxyClient::kUserSession)) {
    return RunThere(commandLine, own, failed);
  } else {
    LogNotStarted(commandLine, "the proxy of the user's session cannot be asked");
  }
  *failed = true;
  return false;
}

}  // namespace

int ExecRedirect(const ZelString& commandLine, bool& failed, XmlProxyClient* proxy,
                 const ZelString& proxyPipe, const ZelString& reserved1, const ZelString& reserved2,
                 unsigned long reserved3, bool reserved4, bool inUserSession, void* reserved5,
                 bool reserved6, int* exitCode) {
  return Guarded("starting a program", 0, [&] {
    const bool isPlain = reserved1.IsEmpty() && reserved2.IsEmpty() && reserved3 == 0 &&
                         !reserved4 && !reserved5 && !reserved6 && !exitCode;
    if (!isPlain) {
      LogNotStarted(commandLine, "a reserved argument has a value");
      return 0;
    }
    const bool isStarted = inUserSession ? RunInUserSession(commandLine, proxy, proxyPipe, &failed)
                                         : RunHere(commandLine);
    return isStarted ? 1 : 0;
  });
}
