#pragma once

#include <algorithm>
#include <ctime>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/contract/module_test.h"

/// The transcript's line for an action invoked on this agent, with an empty container.
inline std::string InvokedHere(const std::string& action) {
  return "ActionDbInvokeContainer(null, \"\", \"" + action + "\", {}, null, ~0, ~0, false)";
}

/// The same for another agent; `agent` is "null" or an identity in quotes.
inline std::string InvokedAt(const std::string& agent, const std::string& url,
                             const std::string& action, const std::string& container) {
  return "ActionDbInvokeContainer(" + agent + ", \"" + url + "\", \"" + action + "\", " +
         container + ", null, ~0, ~0, false)";
}

/// Scripts who this agent is: what it answers about its address, port, name and password.
inline void AnswerSender(FakeHost& host, const char* name = "agent7") {
  host.AnswerInvocation(
      0, [](ZelContainer& work) { work.SetString("IPAddress", "10.0.0.7", kNoIndex); });
  host.AnswerInvocation(0, [](ZelContainer& work) {
    ZelContainer values;
    values.SetInt32("Port", 7460, kNoIndex);
    work.SetContainer("Values", values, kNoIndex);
  });
  host.AnswerText("ZelAgentGetName", name);
  host.AnswerText("ZelAgentGetHttpPassword", "pw");
}

inline Lines SenderCalls() {
  return {InvokedHere("AgentGetIPAddress"), InvokedHere("HttpProtocolGetParams"),
          "ZelAgentGetName()", "ZelAgentGetHttpPassword(\"agent7\")"};
}

/// Scripts the making of a client; the contexts are 5 and 6.
inline void AnswerClient(FakeHost& host, bool ssl = false, bool pac = false) {
  host.Answer("ZelAgentGetDebugContext", 77);
  host.Answer("AgentSecuritySslForceSecCli", ssl);
  if (ssl) host.Answer("AgentSecuritySslCliCtxAcquire", 5);
  host.Answer("AgentSecurityPacForceSecCli", pac);
  if (pac) host.Answer("AgentSecurityPacShrCtxAcquire", 6);
}

inline Lines ClientCalls(bool ssl = false, bool pac = false,
                         const std::string& user = "\"agent7\", \"pw\"") {
  Lines lines = {"HttpClient(~0, ~0)", "ZelAgentGetDebugContext()",
                 "HttpClient::SetDebugContext(77)", "HttpClient::SetAuthentification(" + user + ")",
                 "AgentSecuritySslForceSecCli()"};
  if (ssl) {
    lines.insert(lines.end(), {"Detail \"SSL is enabled\"", "AgentSecuritySslCliCtxAcquire()",
                               "HttpClient::EnableSsl(5)"});
  }
  lines.emplace_back("AgentSecurityPacForceSecCli()");
  if (pac) {
    lines.insert(lines.end(), {"Detail \"PAC is enabled\"", "AgentSecurityPacShrCtxAcquire()",
                               "HttpClient::EnablePac(6)"});
  }
  return lines;
}

/// Expects every call of the action to find as many keys in the container as were sent in.
inline void ExpectKeysToStay(const std::vector<size_t>& keysAtEachCall, size_t sent) {
  EXPECT_THAT(keysAtEachCall, testing::Not(IsEmpty()));
  EXPECT_THAT(keysAtEachCall, testing::Each(sent));
}

/// A test of an action that sends a file into an alias, which is named by the clock.
class TransferTest : public ModuleTest {
 protected:
  /// The transcript, with "backupN" for the alias's name when that was made while the test ran.
  Lines Calls() const {
    Lines lines = host.Transcript();
    for (int64_t seconds = start_; seconds <= std::time(nullptr); ++seconds) {
      const std::string name = "backup" + std::to_string(seconds);
      if (std::none_of(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.find("AliasName: String \"" + name + "\"") != std::string::npos;
          })) {
        continue;
      }
      for (std::string& line : lines) ReplaceAll(&line, name);
    }
    return lines;
  }

 private:
  static void ReplaceAll(std::string* line, const std::string& name) {
    for (size_t at = line->find(name); at != std::string::npos; at = line->find(name, at)) {
      line->replace(at, name.size(), "backupN");
    }
  }

  int64_t start_ = std::time(nullptr);
};
