#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/failure.h"
#include "tests/agent/test_http_server.h"

// What the tests of zelctl's commands share.

constexpr char kGood[] = R"({"code":0,"container":{}})";
constexpr char kFailed[] = R"({"code":1,"container":{}})";

/// The `Failure` that `run` throws.
template <typename Run>
Failure FailureOf(Run run) {
  try {
    run();
  } catch (const Failure& failure) {
    return failure;
  }
  ADD_FAILURE() << "nothing was thrown";
  return {ExitStatus::kSuccess, ""};
}

/// An agent that answers each action with the reply set for it, else with success and nothing.
class ZelctlTest : public testing::Test {
 protected:
  ZelctlTest()
      : server_([this](const TestHttpRequest& request) { return Answered(request); }),
        client_({server_.Url(""), "admin", "secret", ""}) {}

  // Written by the server's thread while a request waits, read between requests.
  std::vector<std::string> actions_;
  std::vector<std::string> bodies_;
  std::map<std::string, std::string> replies_;
  /// While this action is under way, once, the person interrupts the command.
  std::string interruptedAction_;

  TestHttpServer server_;
  AgentClient client_;

 private:
  TestHttpAnswer Answered(const TestHttpRequest& request) {
    const std::string action = request.target.substr(std::string("/v1/actions/").size());
    actions_.push_back(action);
    bodies_.push_back(request.body);
    if (action == interruptedAction_) {
      // Not SIGINT, which is ignored where the tests run in the background.
      std::raise(SIGTERM);
      interruptedAction_.clear();
      return {200, {}, kGood, 1};
    }
    const auto reply = replies_.find(action);
    return {200, {}, reply == replies_.end() ? kGood : reply->second};
  }
};
