// Every case runs once undisturbed and then again and again with host call 1, 2, ... failing, and
// with memory allocation 1, 2, ... failing. What must hold each time: nothing is thrown, the code
// is a documented one, and the container holds no parameters and no half-written result.

#include <functional>
#include <string>
#include <vector>

#include "tests/contract/allocation_fault.h"
#include "tests/contract/module_test.h"

namespace {

using ::testing::AnyOf;
using Fault = FakeHost::Fault;

struct Case {
  const char* name;
  const char* action;
  ZelContainer params;
  std::function<void(FakeHost&)> script;
};

ZelContainer Pair(const char* source, const char* destination) {
  return Texts({{"SourcePath", source}, {"DestinationPath", destination}});
}

void AnswerPair(FakeHost& host) {
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
}

std::vector<Case> Cases() {
  ZelContainer recursive = Texts({{"Path", "C:/x"}});
  recursive.SetBool("Recursive", true, kNoIndex);
  return {
      {"copy", "CoreUtilsCopyFile", Pair("C:/a", "C:/b"),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerPair(host);
         host.Answer("FileCopyNet", 0);
       }},
      {"copy onto itself", "CoreUtilsCopyFile", Pair("C:/a", "C:/a"),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerPair(host);
         host.Answer("FileExists", 1);
         host.Answer("FileExists", 1);
         host.Answer("FileExists", 0);
         host.Answer("FileCopyNet", 0);
       }},
      {"rename", "CoreUtilsRenameFile", Pair("C:/a", "C:/b"),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerPair(host);
         host.Answer("FileRenameNet", 0);
       }},
      {"delete", "CoreUtilsDeleteFile", Texts({{"Path", "C:/a"}}),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerVerdict(host, kWritable);
         host.Answer("FileDeleteNet", 0);
       }},
      {"size", "CoreUtilsGetFileSize", Texts({{"Path", "C:/a"}}),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerVerdict(host, kReadable);
         host.Answer("FileGetSize", 5);
       }},
      {"create directory", "CoreUtilsDirCreate", Texts({{"Path", "C:/x/y"}}),
       [](FakeHost& host) {
         host.Answer("DirExists", 0);
         AnswerVerdict(host, kWritable);
         host.Answer("DirCreate", 1);
       }},
      {"rename directory", "CoreUtilsDirRename", Pair("C:/x", "C:/y"),
       [](FakeHost& host) {
         AnswerPair(host);
         host.Answer("DirRename", 1);
         host.Answer("DirRename", 1);
       }},
      {"delete directory", "CoreUtilsDirDelete", Texts({{"Path", "C:/x"}}),
       [](FakeHost& host) {
         AnswerVerdict(host, kWritable);
         host.Answer("DirDelete", 1);
       }},
      {"delete directory with its content", "CoreUtilsDirDelete", recursive,
       [](FakeHost& host) {
         AnswerVerdict(host, kWritable);
         host.Answer("DirDelete", 1);
       }},
  };
}

size_t CountCallsUndisturbed(const Case& test) {
  FakeHost host;
  RegisterModule(host);
  test.script(host);
  EXPECT_EQ(RunAction(host, test.action, test.params).code, kSuccess) << test.name;
  return host.Transcript().size();
}

Outcome RunWithFault(const Case& test, size_t call, Fault fault) {
  FakeHost host;
  RegisterModule(host);
  test.script(host);
  host.FailCall(call, fault);
  return RunAction(host, test.action, test.params);
}

TEST(FaultSweep, AThrowingHostCallGivesFailureAndAnEmptyContainer) {
  for (const Case& test : Cases()) {
    const size_t calls = CountCallsUndisturbed(test);
    ASSERT_GE(calls, 2u) << test.name;
    for (size_t call = 1; call <= calls; ++call) {
      for (const Fault fault : {Fault::kThrowOnce, Fault::kThrowFromHere}) {
        EXPECT_NO_THROW({
          EXPECT_EQ(RunWithFault(test, call, fault), (Outcome{kFailure, "{}"}))
              << test.name << ", call " << call;
        });
      }
    }
  }
}

TEST(FaultSweep, AFailingHostCallGivesADocumentedCodeAndNoHalfWrittenResult) {
  for (const Case& test : Cases()) {
    const size_t calls = CountCallsUndisturbed(test);
    for (size_t call = 1; call <= calls; ++call) {
      EXPECT_NO_THROW({
        const Outcome outcome = RunWithFault(test, call, Fault::kAnswerFailure);
        EXPECT_THAT(outcome.code, AnyOf(kSuccess, kFailure, kAccessRefused, kFileNotFound))
            << test.name << ", call " << call;
        EXPECT_THAT(outcome.container,
                    AnyOf("{}", "{Result: Int32 0}", "{Result: Int32 5}", "{Result: Bool false}"))
            << test.name << ", call " << call;
      });
    }
  }
}

/// Runs the case's handler with allocation `failing` failing; tells how many were asked for.
Outcome RunShortOfMemory(const Case& test, size_t failing, bool andLater, size_t* allocations) {
  FakeHost host;
  RegisterModule(host);
  test.script(host);
  // A run that breaks off leaves answers over: no call fails, but the script may not be followed.
  host.FailCall(~size_t{0}, Fault::kAnswerFailure);
  ActionHandler handler = nullptr;
  for (const FakeHost::Registration& row : host.Registrations()) {
    if (row.signature.starts_with(test.action)) handler = row.handler;
  }
  ZelContainer params = test.params;

  allocationFault = {true, failing, andLater, 0};
  const ResultCode code = handler(&params);
  allocationFault.isArmed = false;

  *allocations = allocationFault.count;
  return {code, Describe(params)};
}

/// Fails allocation 1, 2, ... until a run gets by without the one that was to fail.
void SweepAllocations(const Case& test, bool andLater) {
  constexpr size_t kManyAllocations = 10000;
  for (size_t failing = 1; failing < kManyAllocations; ++failing) {
    size_t allocations = 0;
    const Outcome outcome = RunShortOfMemory(test, failing, andLater, &allocations);
    if (allocations < failing) {
      EXPECT_EQ(outcome.code, kSuccess) << test.name;
      EXPECT_GT(failing, 10u) << test.name << ": too few allocations to have looked at anything";
      return;
    }
    EXPECT_EQ(outcome, (Outcome{kFailure, "{}"})) << test.name << ", allocation " << failing;
  }
  FAIL() << test.name << " allocates without end";
}

TEST(FaultSweep, AFailingAllocationGivesFailureAndAnEmptyContainer) {
  for (const Case& test : Cases()) {
    SweepAllocations(test, false);
    SweepAllocations(test, true);
  }
}

std::vector<std::string> InitialiseWithFault(size_t call, Fault fault) {
  FakeHost host;
  host.AnswerText("ZelAgentGetDataDir", "C:/data/");
  host.Answer("PathCreate", 1);
  host.AnswerText("ZelAgentGetConfigDir", "C:/config/");
  host.AnswerText("ZelAgentGetConfigDir", "C:/config/");
  host.AnswerText("CompletePath", "C:/bin");
  host.FailCall(call, fault);
  EXPECT_NO_THROW(EXPECT_EQ(ModuleMain(3, 0, nullptr), 1u)) << call;
  return host.Transcript();
}

TEST(FaultSweep, InitialiseAnswersOneWhateverFails) {
  constexpr size_t kCalls = 8;
  for (size_t call = 1; call <= kCalls; ++call) {
    EXPECT_EQ(InitialiseWithFault(call, Fault::kThrowOnce).back(),
              "Error \"Module command failed: host call " + std::to_string(call) + " failed\"");
    EXPECT_EQ(InitialiseWithFault(call, Fault::kThrowFromHere).size(), call + 1);
    EXPECT_EQ(InitialiseWithFault(call, Fault::kAnswerFailure).size(), kCalls);
  }
}

TEST(FaultSweep, RegisterAnswersOneWhateverFails) {
  for (size_t call = 1; call <= 3 + kActionCount; ++call) {
    for (const Fault fault : {Fault::kThrowOnce, Fault::kThrowFromHere, Fault::kAnswerFailure}) {
      FakeHost host;
      host.Answer("ZelAgentGetDebugContext", 77);
      for (int i = 0; i < kActionCount; ++i) host.Answer("ActionDbRegisterAction", 0);
      host.FailCall(call, fault);
      EXPECT_NO_THROW(EXPECT_EQ(ModuleMain(1, 0, nullptr), 1u)) << call;
    }
  }
}

TEST(FaultSweep, TracingCommandsAnswerOneWhenTheLogThrows) {
  for (const uint32_t command : {2U, 4U, 5U}) {
    FakeHost host;
    host.FailCall(1, Fault::kThrowFromHere);
    EXPECT_NO_THROW(EXPECT_EQ(ModuleMain(command, 0, nullptr), 1u)) << command;
  }
}

}  // namespace
