#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "agent/zelctl/task_commands.h"
#include "agent/zelctl/task_output.h"
#include "agent/zelctl/text_output.h"
#include "tests/agent/zelctl_agent.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char kYes[] = R"({"code":0,"container":{"Result":true}})";
constexpr char kNo[] = R"({"code":0,"container":{"Result":false}})";
constexpr char kNotInvoked[] = R"({"code":32003,"container":{"Result":false,"ErrorCode":32003}})";

/// 2026-03-01 12:30 and some, as the clock on the wall shows it here.
int64_t ExampleTimeMs() {
  std::tm time = {};
  time.tm_year = 126;
  time.tm_mon = 2;
  time.tm_mday = 1;
  time.tm_hour = 12;
  time.tm_min = 30;
  time.tm_isdst = -1;
  return int64_t{std::mktime(&time)} * 1000 + 456;
}

std::string Text(const std::string& key, const std::string& value) {
  return "\"" + key + "\":\"" + value + "\"";
}

/// A task as the agent answers it; `more` starts with a comma.
std::string TaskJson(int id, const std::string& name, const std::string& more = "") {
  const std::string time = std::to_string(ExampleTimeMs());
  return R"({"ObjectId":)" + std::to_string(id) + "," + Text("_DB_ATTR_NAME_", name) + "," +
         Text("_DB_ATTR_STATUS_", "open") + R"(,"CreatedTime":)" + time + R"(,"ChangedTime":)" +
         time + more + "}";
}

std::string ListJson(const std::string& rows) {
  return R"({"code":0,"container":{"Values":[)" + rows + "]}}";
}

TaskAddOptions Named(const std::string& name) {
  TaskAddOptions options;
  options.name = name;
  return options;
}

class ZelctlTasks : public ZelctlTest {
 protected:
  ZelctlTasks() {
    for (const char* action : {"CoreUtilsCreateTask", "CoreUtilsTaskAddNote", "CoreUtilsCloseTask",
                               "CoreUtilsCheckTask"}) {
      replies_[action] = kYes;
    }
  }

  /// What is shown of a list.
  std::string Listed(const std::string& rows, bool isLong = false) {
    replies_["CoreUtilsTaskGetList"] = ListJson(rows);
    TaskListOptions options;
    options.isLong = isLong;
    return ListTasks(client_, options).text;
  }

  std::string EmptyListRemark(const TaskListOptions& options) {
    return ListTasks(client_, options).remark;
  }
};

TEST_F(ZelctlTasks, OpensATaskForTheLogin) {
  const Result result = AddTask(client_, Named("Printer on fire"));
  EXPECT_EQ(result.text, "The task is open.\n");
  EXPECT_EQ(result.json, kYes);
  EXPECT_EQ(result.problem, "");
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsCreateTask"));
  EXPECT_THAT(bodies_, ElementsAre(R"({"_DB_ATTR_NAME_":"Printer on fire",)"
                                   R"("_DB_ATTR_REQUESTEDBY_":"admin"})"));
}

TEST_F(ZelctlTasks, SendsEverythingThatWasGivenOfATask) {
  AddTask(client_, {"Printer", "It \"burns\".\nStill.", "high", "ann", "call me", "pt-BR",
                    "ann@example.net", "EXAMPLE", "amiller"});
  EXPECT_THAT(bodies_, ElementsAre(R"({"_DB_ATTR_NAME_":"Printer",)"
                                   R"("_DB_ATTR_DESCRIPTION_":"It \"burns\".\nStill.",)"
                                   R"("_DB_ATTR_PRIORITY_":"high","_DB_ATTR_REQUESTEDBY_":"ann",)"
                                   R"("_DB_ATTR_NOTES_":"call me","Language":"pt-BR",)"
                                   R"("UserEmail":"ann@example.net","UserDomain":"EXAMPLE",)"
                                   R"("UserLogin":"amiller"})"));
}

TEST_F(ZelctlTasks, AddsNotesAndClosesInTheNameOfTheLoginOrAnotherOne) {
  EXPECT_EQ(AddTaskNote(client_, {7, "", "done?"}).text, "The note is added.\n");
  AddTaskNote(client_, {7, "ann", "yes"});
  EXPECT_EQ(CloseTask(client_, {7, "", ""}).text, "The task is closed.\n");
  CloseTask(client_, {2147483647, "ann", ""});
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsTaskAddNote", "CoreUtilsTaskAddNote",
                                    "CoreUtilsCloseTask", "CoreUtilsCloseTask"));
  EXPECT_THAT(
      bodies_,
      ElementsAre(R"({"ObjectId":7,"_DB_ATTR_REQUESTEDBY_":"admin","_DB_ATTR_NOTES_":"done?"})",
                  R"({"ObjectId":7,"_DB_ATTR_REQUESTEDBY_":"ann","_DB_ATTR_NOTES_":"yes"})",
                  R"({"ObjectId":7,"_DB_ATTR_REQUESTEDBY_":"admin"})",
                  R"({"ObjectId":2147483647,"_DB_ATTR_REQUESTEDBY_":"ann"})"));
}

TEST_F(ZelctlTasks, FailsWhenTheMasterSaysNo) {
  for (const char* action : {"CoreUtilsCreateTask", "CoreUtilsTaskAddNote", "CoreUtilsCloseTask"}) {
    replies_[action] = kNo;
  }
  const Failure refused = FailureOf([&] { AddTask(client_, Named("x")); });
  EXPECT_EQ(refused.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(refused.what(),
               "the master refused, or could not be asked; the agent's log says why "
               "(CoreUtilsCreateTask)");
  EXPECT_EQ(refused.Reply(), kNo);
  EXPECT_THAT(FailureOf([&] {
                AddTaskNote(client_, {1, "", "x"});
              }).what(),
              EndsWith("(CoreUtilsTaskAddNote)"));
  EXPECT_THAT(FailureOf([&] {
                CloseTask(client_, {1, "", ""});
              }).what(),
              EndsWith("(CoreUtilsCloseTask)"));
}

TEST_F(ZelctlTasks, TellsACodeThatAnActionDoesNotHave) {
  replies_["CoreUtilsCloseTask"] = kFailed;
  replies_["CoreUtilsTaskGetList"] = kFailed;
  EXPECT_STREQ(FailureOf([&] {
                 CloseTask(client_, {1, "", ""});
               }).what(),
               "CoreUtilsCloseTask: code 1: failure");
  EXPECT_STREQ(FailureOf([&] { ListTasks(client_, {}); }).what(),
               "CoreUtilsTaskGetList: code 1: failure");
}

TEST_F(ZelctlTasks, TakesNoReplyWithoutAVerdictForAYes) {
  replies_["CoreUtilsCreateTask"] = kGood;
  replies_["CoreUtilsCheckTask"] = R"({"code":0,"container":{"Result":"true"}})";
  const Failure failure = FailureOf([&] { AddTask(client_, Named("x")); });
  EXPECT_EQ(failure.Status(), ExitStatus::kAgentRefused);
  EXPECT_STREQ(failure.what(), "CoreUtilsCreateTask: the reply has no usable Result");
  EXPECT_EQ(FailureOf([&] { CheckTasks(client_); }).Status(), ExitStatus::kAgentRefused);
}

TEST_F(ZelctlTasks, SendsOnlyTheFiltersThatWereGiven) {
  replies_["CoreUtilsTaskGetList"] = ListJson(TaskJson(1, "x"));
  ListTasks(client_, {});
  ListTasks(client_, {"closed", "high", "ann", false});
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsTaskGetList", "CoreUtilsTaskGetList"));
  EXPECT_THAT(bodies_, ElementsAre("{}", R"({"_DB_ATTR_STATUS_":"closed",)"
                                         R"("_DB_ATTR_PRIORITY_":"high",)"
                                         R"("_DB_ATTR_REQUESTEDBY_":"ann"})"));
}

TEST_F(ZelctlTasks, ListsTasksInTheMastersOrder) {
  const std::string ann =
      "," + Text("_DB_ATTR_PRIORITY_", "high") + "," + Text("_DB_ATTR_REQUESTEDBY_", "ann");
  EXPECT_EQ(Listed(TaskJson(12, "Printer on fire", ann) + "," + TaskJson(3, "No paper")),
            "ID  STATUS  PRIORITY  CREATED           REQUESTER  NAME\n"
            "12  open    high      2026-03-01 12:30  ann        Printer on fire\n"
            "3   open              2026-03-01 12:30             No paper\n");
  EXPECT_EQ(ListTasks(client_, {}).json, replies_["CoreUtilsTaskGetList"]);
}

TEST_F(ZelctlTasks, ShortensWhatWouldPushTheNamesAway) {
  const std::string exact(24, 'e');
  std::string umlauts;
  for (int i = 0; i < 25; ++i) umlauts += "ü";
  const std::string text = Listed(TaskJson(
      1, std::string(200, 'n'),
      "," + Text("_DB_ATTR_PRIORITY_", exact) + "," + Text("_DB_ATTR_REQUESTEDBY_", umlauts)));
  EXPECT_THAT(text, HasSubstr("  " + exact + "  "));
  EXPECT_THAT(text, HasSubstr("  " + umlauts.substr(0, 46) + "…  "));
  EXPECT_THAT(text, HasSubstr(std::string(200, 'n') + "\n"));
}

TEST_F(ZelctlTasks, LetsNoTextActOnTheTerminal) {
  const std::string hostile = R"(a\u001b[2J\u0007\u202eb\u009bc\nd\r)";
  const std::string shown = R"(a\x1b[2J\x07\u202eb\u009bc\nd\r)";
  EXPECT_THAT(Listed(TaskJson(1, hostile)), EndsWith("  " + shown + "\n"));

  std::string texts;
  for (const char* key :
       {"_DB_ATTR_DESCRIPTION_", "_DB_ATTR_PRIORITY_", "_DB_ATTR_REQUESTEDBY_", "Language",
        "UserEmail", "UserDomain", "UserLogin", "Agent", "ConsoleUser"}) {
    texts += "," + Text(key, hostile);
  }
  const std::string note =
      "{" + Text("Author", hostile) + "," + Text("Text", hostile) + R"(,"CreatedTime":0})";
  const std::string task = TaskJson(1, hostile, texts + R"(,"_DB_ATTR_NOTES_":[)" + note + "]");
  for (const bool isLong : {false, true}) {
    const std::string text = Listed(task, isLong);
    EXPECT_EQ(text, EscapeForTerminal(text, true));
    EXPECT_THAT(text, HasSubstr(isLong ? "requester: " + shown : "open"));
  }
}

TEST_F(ZelctlTasks, ShowsEverythingOfATask) {
  const std::string time = std::to_string(ExampleTimeMs() + 60'000);
  const std::string more =
      "," + Text("_DB_ATTR_DESCRIPTION_", R"(It burns.\r\n\n2  Not a task\n)") + "," +
      Text("_DB_ATTR_REQUESTEDBY_", "ann") + "," + Text("UserEmail", "ann@example.net") + "," +
      Text("UserDomain", "EXAMPLE") + "," + Text("UserLogin", "amiller") + "," +
      Text("Language", "en") + "," + Text("Agent", "pc-1") + "," + Text("ConsoleUser", "admin") +
      R"(,"_DB_ATTR_NOTES_":[{)" + Text("Author", "bob") + R"(,"CreatedTime":)" + time + "," +
      Text("Text", R"(Where?\nHere?)") + R"(}],"ClosedTime":)" + time;
  EXPECT_EQ(Listed(TaskJson(12, "Printer", more) + "," + TaskJson(3, "No paper"), true),
            "12  Printer\n"
            "  status:    open\n"
            "  requester: ann\n"
            "  opened at: admin at pc-1\n"
            "  user:      EXAMPLE\\amiller\n"
            "  e-mail:    ann@example.net\n"
            "  language:  en\n"
            "  created:   2026-03-01 12:30\n"
            "  changed:   2026-03-01 12:30\n"
            "  closed:    2026-03-01 12:31\n"
            "\n"
            "    It burns.\n"
            "\n"
            "    2  Not a task\n"
            "\n"
            "  2026-03-01 12:31  bob\n"
            "    Where?\n"
            "    Here?\n"
            "\n"
            "3  No paper\n"
            "  status:    open\n"
            "  created:   2026-03-01 12:30\n"
            "  changed:   2026-03-01 12:30\n");
}

TEST_F(ZelctlTasks, SaysThatAListIsEmpty) {
  const Result result = ListTasks(client_, {});
  EXPECT_EQ(result.remark, "there are no tasks");
  EXPECT_EQ(result.text, "");
  EXPECT_EQ(result.problem, "");
  EXPECT_EQ(result.json, kGood);
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsTaskGetList", "CoreUtilsCheckTask"));
  EXPECT_EQ(EmptyListRemark({"open", "", "", false}), "there are no such tasks");
  EXPECT_EQ(EmptyListRemark({"", "", "ann", true}), "there are no such tasks");
}

TEST_F(ZelctlTasks, TakesAMasterThatIsAwayForNoEmptyList) {
  replies_["CoreUtilsCheckTask"] = kNotInvoked;
  const Failure failure = FailureOf([&] { ListTasks(client_, {}); });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(),
               "the master could not be asked; the agent's log says why "
               "(CoreUtilsCheckTask: code 32003: the master could not be invoked)");
  EXPECT_EQ(failure.Reply(), kNotInvoked);

  replies_["CoreUtilsCheckTask"] = kNo;
  EXPECT_STREQ(FailureOf([&] { ListTasks(client_, {}); }).what(),
               "the master cannot keep tasks; the agent's log says why (CoreUtilsCheckTask)");
}

TEST_F(ZelctlTasks, DoesNotCheckTheMasterOfAListThatIsNotEmpty) {
  replies_["CoreUtilsCheckTask"] = kNotInvoked;
  EXPECT_THAT(Listed(TaskJson(1, "x")), Not(testing::IsEmpty()));
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsTaskGetList"));
}

TEST_F(ZelctlTasks, TellsWhetherTheMasterKeepsTasks) {
  const Result result = CheckTasks(client_);
  EXPECT_EQ(result.text, "The master keeps tasks.\n");
  EXPECT_EQ(result.json, kYes);
  EXPECT_THAT(bodies_, ElementsAre("{}"));

  replies_["CoreUtilsCheckTask"] = kNo;
  const Failure refusal = FailureOf([&] { CheckTasks(client_); });
  EXPECT_EQ(refusal.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(refusal.what(),
               "the master cannot keep tasks; the agent's log says why (CoreUtilsCheckTask)");
  EXPECT_EQ(refusal.Reply(), kNo);

  replies_["CoreUtilsCheckTask"] = kNotInvoked;
  const Failure failure = FailureOf([&] { CheckTasks(client_); });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_THAT(failure.what(), StartsWith("the master could not be asked"));
}

}  // namespace
