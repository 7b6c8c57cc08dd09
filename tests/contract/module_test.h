#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <initializer_list>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "module/action.h"
#include "module/module.h"
#include "tests/fake_host/fake_host.h"

using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// A part of a transcript.
using Lines = std::vector<std::string>;

inline Lines Join(std::initializer_list<Lines> parts) {
  Lines all;
  for (const Lines& part : parts) all.insert(all.end(), part.begin(), part.end());
  return all;
}

constexpr int kActionCount = 47;

/// What an action answered: its code, and its container as `Describe` prints it.
struct Outcome {
  ResultCode code;
  std::string container;

  friend bool operator==(const Outcome&, const Outcome&) = default;
  friend std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
    return stream << outcome.code << " " << outcome.container;
  }
};

/// A container of texts.
inline ZelContainer Texts(std::initializer_list<std::pair<const char*, const char*>> texts) {
  ZelContainer container;
  for (const auto& [key, text] : texts) container.SetString(key, text, kNoIndex);
  return container;
}

/// Containers that hold these keys, but as lists of texts and as numbers.
inline std::vector<ZelContainer> ListsAndNumbers(std::initializer_list<const char*> keys) {
  ZelContainer lists, numbers;
  for (const char* key : keys) {
    lists.SetString(key, "C:/listed", 0);
    numbers.SetInt32(key, 7, kNoIndex);
  }
  return {lists, numbers};
}

/// The same parameters with one that is no text: a value of each other type, or none.
inline std::vector<ZelContainer> WithoutText(const ZelContainer& params, const char* key) {
  std::vector<ZelContainer> variants(6, params);
  for (ZelContainer& variant : variants) variant.Remove(key);
  variants[0].SetInt32(key, 7, kNoIndex);
  variants[1].SetInt64(key, 7, kNoIndex);
  variants[2].SetBool(key, true, kNoIndex);
  variants[3].SetString(key, "host\\a list of one", 0);
  variants[4].SetContainer(key, Texts({{key, "host\\share"}}), kNoIndex);
  return variants;
}

/// The transcript's line for a question to the privacy policy; `access` is "Read" or "Write".
inline std::string PrivacyCheck(const std::string& path, const std::string& login,
                                const std::string& access) {
  return "ActionDbInvokeContainer(null, \"\", \"PrivacyCheck\", {Class: String \"File System\", "
         "Name: String \"" +
         path + "\", Login: String \"" + login + "\", Access: String \"" + access +
         "\"}, null, ~0, ~0, false)";
}

/// Scripts the policy's next answer.
inline void AnswerVerdict(FakeHost& host, int32_t verdict) {
  host.AnswerInvocation(
      0, [verdict](ZelContainer& request) { request.SetInt32("Result", verdict, kNoIndex); });
}

constexpr int32_t kReadable = 1;
constexpr int32_t kWritable = 3;
constexpr int32_t kForbidden = 0;

/// Registers the module's actions with `host` and forgets the calls that this took.
inline void RegisterModule(FakeHost& host) {
  host.Answer("ZelAgentGetDebugContext", 77);
  for (int i = 0; i < kActionCount; ++i) host.Answer("ActionDbRegisterAction", 0);
  ModuleMain(1, 0, nullptr);
  host.ForgetTranscript();
}

/// Scripts what command Initialise asks for.
inline void AnswerInitialise(FakeHost& host, int pathCreated = 1) {
  host.AnswerText("ZelAgentGetDataDir", "C:\\agent\\data\\");
  host.Answer("PathCreate", pathCreated);
  host.AnswerText("ZelAgentGetConfigDir", "C:\\agent\\config\\");
  host.AnswerText("ZelAgentGetConfigDir", "C:\\agent\\config\\");
  host.AnswerText("CompletePath", "C:\\agent\\bin");
}

/// Gives the module its paths, and forgets the calls that this took.
inline void InitialiseModule(FakeHost& host) {
  AnswerInitialise(host);
  ModuleMain(3, 0, nullptr);
  host.ForgetTranscript();
}

/// The action's name, without parameter list.
inline std::string NameOf(const FakeHost::Registration& row) {
  return row.signature.substr(0, row.signature.find(' '));
}

/// Runs a registered action as the core does: through the handler that it was given, which leaves
/// its results in the container.
inline ResultCode RunIn(const FakeHost& host, const std::string& action, ZelContainer* params) {
  for (const FakeHost::Registration& row : host.Registrations()) {
    if (NameOf(row) == action) return row.handler(params);
  }
  throw std::logic_error(action + " is not registered");
}

inline Outcome RunAction(const FakeHost& host, const std::string& action, ZelContainer params) {
  const ResultCode code = RunIn(host, action, &params);
  return {code, Describe(params)};
}

/// Waits until a thread waits for a `ZelMutex`; false when this work has ended without that.
template <typename Value>
bool ComesToAMutex(const std::future<Value>& work) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!FakeHost::HasWaitingThread() && std::chrono::steady_clock::now() < end) {
    if (work.wait_for(std::chrono::milliseconds(1)) == std::future_status::ready) return false;
  }
  return FakeHost::HasWaitingThread();
}

/// A test against a fresh host that knows the module's actions.
class ModuleTest : public ::testing::Test {
 protected:
  ModuleTest() { RegisterModule(host); }

  Outcome Run(const std::string& action, const ZelContainer& params) {
    return RunAction(host, action, params);
  }
  /// Runs the action; tells how many keys its container held at each call.
  std::vector<size_t> KeysAtEachCall(const std::string& action, ZelContainer params) {
    std::vector<size_t> keys;
    host.WatchCalls([&](std::string_view) { keys.push_back(params.CountKeys()); });
    RunIn(host, action, &params);
    host.WatchCalls({});
    return keys;
  }
  /// Does something on another thread in the midst of a call, and expects it not to wait for the
  /// action that makes this call. When it does wait, it ends after that action.
  void ExpectNotToWait(std::function<void()> work) {
    unheld_ = std::async(std::launch::async, std::move(work));
    EXPECT_EQ(unheld_.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
  void TearDown() override {
    if (unheld_.valid()) unheld_.wait();
  }

  FakeHost host;

 private:
  std::future<void> unheld_;
};
