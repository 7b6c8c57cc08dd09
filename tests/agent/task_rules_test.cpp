#include "agent/task_database/task_rules.h"

#include <gtest/gtest.h>

#include <ostream>

namespace {

/// A task that was opened for "anna", by whom a row says.
Task OpenedBy(const std::string& agent, const std::string& consoleUser) {
  Task task;
  task.requester = "anna";
  task.agent = agent;
  task.consoleUser = consoleUser;
  return task;
}

CallingUser Caller(const std::string& agent, const std::string& login) {
  return {agent, login, false};
}
CallingUser Administrator(const std::string& agent, const std::string& login) {
  return {agent, login, true};
}

struct Row {
  const char* what;
  Task task;
  std::string requester;
  CallingUser caller;
  bool may;
};

void PrintTo(const Row& row, std::ostream* out) {
  *out << row.what;
}

class MayChange : public testing::TestWithParam<Row> {};

TEST_P(MayChange, IsDecidedByRequesterAndCaller) {
  const Row& row = GetParam();
  EXPECT_EQ(MayChangeTask(row.task, row.requester, row.caller), row.may);
}

INSTANTIATE_TEST_SUITE_P(
    ForAdministrators, MayChange,
    testing::Values(
        Row{"the task's requester", OpenedBy("pc-1", "bob"), "anna", Administrator("x", "r"), true},
        Row{"somebody else", OpenedBy("pc-1", "bob"), "eve", Administrator("x", "r"), true},
        Row{"nobody", OpenedBy("pc-1", "bob"), "", Administrator("x", "r"), true},
        Row{"the master itself", OpenedBy("pc-1", "bob"), "", Administrator("master", ""), true}));

INSTANTIATE_TEST_SUITE_P(
    ForAgentsThatVouchForNobody, MayChange,
    testing::Values(Row{"the requester", OpenedBy("pc-1", "bob"), "anna", Caller("pc-1", ""), true},
                    Row{"another agent", OpenedBy("pc-1", "bob"), "anna", Caller("pc-2", ""), true},
                    Row{"somebody else", OpenedBy("pc-1", "bob"), "eve", Caller("pc-1", ""), false},
                    Row{"nobody", OpenedBy("pc-1", ""), "", Caller("pc-1", ""), false},
                    Row{"other case", OpenedBy("pc-1", ""), "Anna", Caller("pc-1", ""), false},
                    Row{"a blank more", OpenedBy("pc-1", ""), "anna ", Caller("pc-1", ""), false},
                    Row{"the start of the name", OpenedBy("pc-1", ""), "ann", Caller("pc-1", ""),
                        false}));

INSTANTIATE_TEST_SUITE_P(
    ForConsoleUsers, MayChange,
    testing::Values(
        Row{"who has opened it", OpenedBy("pc-1", "bob"), "anna", Caller("pc-1", "bob"), true},
        Row{"who has, for another", OpenedBy("pc-1", "bob"), "eve", Caller("pc-1", "bob"), false},
        Row{"who has, for nobody", OpenedBy("pc-1", "bob"), "", Caller("pc-1", "bob"), false},
        Row{"another user", OpenedBy("pc-1", "bob"), "anna", Caller("pc-1", "carl"), false},
        Row{"the same login elsewhere", OpenedBy("pc-1", "bob"), "anna", Caller("pc-2", "bob"),
            false},
        Row{"a task of an agent's own", OpenedBy("pc-1", ""), "anna", Caller("pc-2", "carl"), true},
        Row{"one's own name", OpenedBy("pc-1", "bob"), "anna", Caller("pc-2", "anna"), true},
        Row{"one's own name, not the task's", OpenedBy("pc-1", "bob"), "carl",
            Caller("pc-1", "carl"), false},
        Row{"a task's requester as login alone", OpenedBy("pc-1", "bob"), "",
            Caller("pc-1", "anna"), false}));

TEST(MayChangeTask, IsNotGivenByTwoEmptyRequesters) {
  Task task = OpenedBy("pc-1", "");
  task.requester.clear();
  EXPECT_FALSE(MayChangeTask(task, "", Caller("pc-1", "")));
  EXPECT_FALSE(MayChangeTask(task, "", Caller("pc-1", "bob")));
  EXPECT_TRUE(MayChangeTask(task, "", Administrator("pc-1", "bob")));
}

TEST(NoteAuthor, IsTheRequesterElseTheUserElseTheAgent) {
  EXPECT_EQ(NoteAuthor("anna", Caller("pc-1", "bob")), "anna");
  EXPECT_EQ(NoteAuthor("", Caller("pc-1", "bob")), "bob");
  EXPECT_EQ(NoteAuthor("", Caller("pc-1", "")), "pc-1");
  EXPECT_EQ(NoteAuthor("", Administrator("pc-1", "root")), "root");
}

}  // namespace
