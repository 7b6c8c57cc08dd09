#include "agent/libZel/proxy_session.h"

namespace {

constexpr const char* kNotConnected = "the connection to the proxy is not open";

}  // namespace

SessionInfo AskSession(XmlProxyClient& /*client*/) {
  SessionInfo session;
  session.outcome = FailedBecause(kNotConnected);
  return session;
}

Outcome RunInSession(XmlProxyClient& client, const ZelString& commandLine) {
  return AskToRun(client, commandLine).outcome;
}

ProxyOutcome AskToRun(XmlProxyClient& /*client*/, const ZelString& /*commandLine*/) {
  return {false, FailedBecause(kNotConnected)};
}
