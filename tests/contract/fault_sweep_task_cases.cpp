#include <utility>

#include "tests/contract/fault_sweep_cases.h"

namespace {

void AnswerName(FakeHost& host) {
  host.AnswerText("ZelAgentGetName", "an agent whose name needs memory");
}

void AnswerDevice(FakeHost& host) {
  host.AnswerInvocation(0, [](ZelContainer& identity) {
    identity.SetString("GUID", "an identity that needs memory of its own", kNoIndex);
  });
  AnswerName(host);
}

void AnswerMaster(FakeHost& host, std::function<void(ZelContainer&)> answer) {
  host.AnswerInvocation(0, std::move(answer), "InvokeContainerToMasterWithTempTunnel");
}

void AnswerYes(FakeHost& host) {
  AnswerMaster(host, [](ZelContainer& answer) {
    answer.Clear();
    answer.SetBool("Result", true, kNoIndex);
  });
}

void AnswerRows(FakeHost& host) {
  AnswerMaster(host, [](ZelContainer& answer) {
    answer.Clear();
    for (uint32_t row = 0; row < 3; ++row) {
      answer.SetContainer("Values", Texts({{"_DB_ATTR_NAME_", kText}}), row);
    }
  });
}

ZelContainer OfTask(ZelContainer params) {
  params.SetInt32("ObjectId", 7, kNoIndex);
  return params;
}

/// An action that hands the master's verdict on.
Case VerdictCase(const char* name, const char* action, ZelContainer params,
                 std::vector<std::string> resultKeys) {
  resultKeys.emplace_back("Result");
  return {.name = name,
          .action = action,
          .params = std::move(params),
          .script =
              [](FakeHost& host) {
                AnswerDevice(host);
                AnswerYes(host);
              },
          .resultKeys = std::move(resultKeys)};
}

}  // namespace

std::vector<Case> CasesOfTaskActions() {
  return {
      VerdictCase("create a task", "CoreUtilsCreateTask",
                  Texts({{"_DB_ATTR_NAME_", kText}, {"UserPass", kText}, {"Language", kText}}),
                  {"_DB_ATTR_NAME_", "UserPass", "Language"}),
      VerdictCase("close a task", "CoreUtilsCloseTask",
                  OfTask(Texts({{"_DB_ATTR_REQUESTEDBY_", kText}})),
                  {"ObjectId", "_DB_ATTR_REQUESTEDBY_"}),
      VerdictCase("add a note", "CoreUtilsTaskAddNote", OfTask(Texts({{"_DB_ATTR_NOTES_", kText}})),
                  {"ObjectId", "_DB_ATTR_NOTES_"}),
      {.name = "list tasks",
       .action = "CoreUtilsTaskGetList",
       .params = Texts({{"_DB_ATTR_STATUS_", kText}}),
       .script =
           [](FakeHost& host) {
             AnswerDevice(host);
             AnswerRows(host);
           },
       .resultKeys = {"_DB_ATTR_STATUS_", "Values"},
       .failureKeys = {"_DB_ATTR_STATUS_"}},
      {.name = "check whether the master keeps tasks",
       .action = "CoreUtilsCheckTask",
       .params = Texts({{"Other", kText}}),
       .script =
           [](FakeHost& host) {
             AnswerName(host);
             AnswerYes(host);
           },
       .resultKeys = {"Other", "Result", "ErrorCode"}},
  };
}
