#include "agent/task_database/task_actions.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <set>
#include <string>
#include <vector>

#include "tests/agent/task_database_fixture.h"

namespace {

using std::chrono::milliseconds;

constexpr size_t kLong = 1024 * 1024;

int64_t NowMs() {
  return std::chrono::duration_cast<milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// ---- what a task is ----

TEST_F(TaskDatabase, GivesATaskBackAsItWasOpened) {
  const int64_t before = NowMs();
  ZelContainer request = With({{"GUID", "8d4e"},
                               {"ObjectName", "printer"},
                               {"_DB_ATTR_DESCRIPTION_", "no paper"},
                               {"_DB_ATTR_PRIORITY_", "high"},
                               {"_DB_ATTR_REQUESTEDBY_", "anna"},
                               {"_DB_ATTR_NOTES_", "soon, please"},
                               {"Language", "de"},
                               {"UserEmail", "anna@example.net"},
                               {"UserDomain", "EXAMPLE"},
                               {"UserLogin", "anna.m"},
                               {"UserPass", "pw"},
                               {"Unasked", "x"}});
  const Reply reply = Create(UserOf("pc-1", "bob"), request);
  ExpectYes(reply);
  EXPECT_EQ(KeysOf(reply.answer), (std::set<std::string>{"ObjectId", "Result"}));
  EXPECT_EQ(reply.answer.EntryAt(1).Type(), ZelValueType::kInt32);

  const ZelContainer row = Newest();
  EXPECT_EQ(row.CountKeys(), 16u);
  EXPECT_EQ(NumberOf(row, "ObjectId"), NumberOf(reply.answer, "ObjectId"));
  EXPECT_EQ(TextOf(row, "GUID"), "8d4e");
  EXPECT_EQ(TextOf(row, "_DB_ATTR_NAME_"), "printer");
  EXPECT_EQ(TextOf(row, "_DB_ATTR_DESCRIPTION_"), "no paper");
  EXPECT_EQ(TextOf(row, "_DB_ATTR_STATUS_"), "open");
  EXPECT_EQ(TextOf(row, "_DB_ATTR_PRIORITY_"), "high");
  EXPECT_EQ(TextOf(row, "_DB_ATTR_REQUESTEDBY_"), "anna");
  EXPECT_EQ(TextOf(row, "Language"), "de");
  EXPECT_EQ(TextOf(row, "UserEmail"), "anna@example.net");
  EXPECT_EQ(TextOf(row, "UserDomain"), "EXAMPLE");
  EXPECT_EQ(TextOf(row, "UserLogin"), "anna.m");
  EXPECT_EQ(TextOf(row, "Agent"), "pc-1");
  EXPECT_EQ(TextOf(row, "ConsoleUser"), "bob");
  EXPECT_GE(NumberOf(row, "CreatedTime"), before);
  EXPECT_LE(NumberOf(row, "CreatedTime"), NowMs());
  EXPECT_EQ(NumberOf(row, "ChangedTime"), NumberOf(row, "CreatedTime"));
  EXPECT_EQ(row.CountValues("ClosedTime"), 0);

  const std::vector<ZelContainer> notes = ListOf(row, "_DB_ATTR_NOTES_");
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_EQ(notes[0].CountKeys(), 3u);
  EXPECT_EQ(TextOf(notes[0], "Author"), "anna");
  EXPECT_EQ(TextOf(notes[0], "Text"), "soon, please");
  EXPECT_EQ(NumberOf(notes[0], "CreatedTime"), NumberOf(row, "CreatedTime"));
}

TEST_F(TaskDatabase, OpensATaskWithANameAlone) {
  MustCreate(Agent("pc-1"), With({{"ObjectName", "x"}}));
  const ZelContainer row = Newest();
  EXPECT_EQ(TextOf(row, "_DB_ATTR_NAME_"), "x");
  for (const char* key :
       {"GUID", "_DB_ATTR_DESCRIPTION_", "_DB_ATTR_PRIORITY_", "ConsoleUser",
        "_DB_ATTR_REQUESTEDBY_", "Language", "UserEmail", "UserDomain", "UserLogin"}) {
    EXPECT_EQ(TextOf(row, key), "");
  }
  EXPECT_EQ(row.CountValues("_DB_ATTR_NOTES_"), 0);
}

TEST_F(TaskDatabase, OpensNoTaskWithoutAName) {
  const std::string error = "\"ObjectName\" must not be empty";
  ExpectNo(Create(Agent("pc-1"), {}), error);
  for (const char* name : {"", " ", " \t\r\n\v\f"})
    ExpectNo(Create(Agent("pc-1"), With({{"ObjectName", name}})), error);
  EXPECT_TRUE(List(Master()).empty());
}

TEST_F(TaskDatabase, TakesTheNameOfWhoAsksFromTheConnectionAlone) {
  ZelContainer info = With({{"HttpProtocolRequestUser", "pc-9"}});
  ZelContainer request = NewTaskFor("anna");
  request.SetContainer("HttpProtocolRequestInfo", info, kNoIndex);
  request.SetString("DACurrentConsoleUser", "eve", kNoIndex);
  MustCreate(Agent("pc-1"), request);
  EXPECT_EQ(TextOf(Newest(), "Agent"), "pc-1");
  EXPECT_EQ(TextOf(Newest(), "ConsoleUser"), "");
}

TEST_F(TaskDatabase, OpensTasksOfTheMasterItselfAndOfItsConsoleUsers) {
  MustCreate(Master(), NewTaskFor("anna"));
  EXPECT_EQ(TextOf(Newest(), "Agent"), "master-1");
  EXPECT_EQ(TextOf(Newest(), "ConsoleUser"), "");
  MustCreate(ConsoleUser("bob"), NewTaskFor("anna"));
  EXPECT_EQ(TextOf(Newest(), "Agent"), "master-1");
  EXPECT_EQ(TextOf(Newest(), "ConsoleUser"), "bob");
}

// ---- changes ----

TEST_F(TaskDatabase, ClosesATaskOnce) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  const Reply reply = Close(Agent("pc-1"), id, "anna");
  ExpectYes(reply);
  EXPECT_EQ(KeysOf(reply.answer), std::set<std::string>{"Result"});

  const ZelContainer row = Newest();
  EXPECT_EQ(TextOf(row, "_DB_ATTR_STATUS_"), "closed");
  EXPECT_GE(NumberOf(row, "ClosedTime"), NumberOf(row, "CreatedTime"));
  EXPECT_EQ(NumberOf(row, "ChangedTime"), NumberOf(row, "ClosedTime"));

  const std::string error = "the task " + std::to_string(id) + " is closed already";
  ExpectNo(Close(Agent("pc-1"), id, "anna"), error);
  ExpectNo(Close(Master(), id, ""), error);
  EXPECT_EQ(Newest(), row);
}

TEST_F(TaskDatabase, AddsNoNoteToAClosedTask) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  ExpectYes(Close(Agent("pc-1"), id, "anna"));
  ExpectNo(AddNote(Agent("pc-1"), id, "anna", "one more"), "is closed already");
  EXPECT_EQ(Newest().CountValues("_DB_ATTR_NOTES_"), 0);
}

TEST_F(TaskDatabase, ListsNotesFromTheOldestWithTheirAuthors) {
  const int64_t id = MustCreate(UserOf("pc-1", "bob"), NewTaskFor("anna"));
  ExpectYes(AddNote(UserOf("pc-1", "bob"), id, "anna", "first"));
  ExpectYes(AddNote(AdministratorOf("pc-2", "root"), id, "", "second"));
  ExpectYes(AddNote(Master(), id, "", "third"));
  ExpectYes(AddNote(ConsoleUser("boss"), id, "carl", "fourth"));

  std::vector<std::pair<std::string, std::string>> notes;
  for (const ZelContainer& note : ListOf(Newest(), "_DB_ATTR_NOTES_"))
    notes.emplace_back(TextOf(note, "Author"), TextOf(note, "Text"));
  EXPECT_THAT(notes, testing::ElementsAre(
                         testing::Pair("anna", "first"), testing::Pair("root", "second"),
                         testing::Pair("master-1", "third"), testing::Pair("carl", "fourth")));
}

TEST_F(TaskDatabase, NamesTheFirstNotesAuthorLikeThatOfAnyOther) {
  ZelContainer request = With({{"ObjectName", "x"}, {"_DB_ATTR_NOTES_", "note"}});
  MustCreate(UserOf("pc-1", "bob"), request);
  EXPECT_EQ(TextOf(ListOf(Newest(), "_DB_ATTR_NOTES_").at(0), "Author"), "bob");
  MustCreate(Agent("pc-1"), request);
  EXPECT_EQ(TextOf(ListOf(Newest(), "_DB_ATTR_NOTES_").at(0), "Author"), "pc-1");
}

TEST_F(TaskDatabase, IsChangedByThoseWhoMayAlone) {
  struct Row {
    Invoker invoker;
    std::string requester;
    bool may;
  };
  // tests/agent/task_rules_test.cpp has the whole table: this looks at how callers get there.
  const Row rows[] = {
      {Agent("pc-2"), "eve", false},
      {Agent("pc-2"), "", false},
      {Agent("pc-2"), "anna", true},
      {UserOf("pc-1", "bob"), "anna", true},
      {UserOf("pc-1", "carl"), "anna", false},
      {UserOf("pc-2", "anna"), "anna", true},
      {AdministratorOf("pc-2", "root"), "", true},
      {Master(), "", true},
      {ConsoleUser("boss"), "", true},
      {ConsoleUser("bob"), "anna", false},
      {ConsoleUser("nobody"), "anna", false},
  };
  for (const Row& row : rows) {
    const int64_t id = MustCreate(UserOf("pc-1", "bob"), NewTaskFor("anna"));
    const std::string who = row.invoker.owner + "/" + row.invoker.login + "/" + row.requester;
    SCOPED_TRACE(who);
    if (row.may) {
      ExpectYes(AddNote(row.invoker, id, row.requester, "note"));
      ExpectYes(Close(row.invoker, id, row.requester));
    } else {
      ExpectNo(AddNote(row.invoker, id, row.requester, "note"), "there is no task");
      ExpectNo(Close(row.invoker, id, row.requester), "there is no task");
      EXPECT_EQ(TextOf(Newest(), "_DB_ATTR_STATUS_"), "open");
      EXPECT_EQ(Newest().CountValues("_DB_ATTR_NOTES_"), 0);
    }
  }
}

TEST_F(TaskDatabase, BelievesNoConsoleUserWhatOnlyAgentsMaySay) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  const Invoker liar{"bob", "root", true, true};
  ExpectNo(Close(liar, id, "eve"), "there is no task");
  ExpectNo(AddNote(liar, id, "", "x"), "there is no task");
  MustCreate(liar, NewTaskFor("anna"));
  EXPECT_EQ(TextOf(Newest(), "ConsoleUser"), "bob");
  EXPECT_EQ(TextOf(Newest(), "Agent"), "master-1");
}

TEST_F(TaskDatabase, TellsNoTaskAndAnothersTaskApartToAdministratorsAlone) {
  const int64_t others = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  const int64_t missing = others + 1;
  const auto sentence = [&](const Invoker& invoker, int64_t id) {
    std::string error = Close(invoker, id, "eve").Error();
    EXPECT_EQ(AddNote(invoker, id, "eve", "x").Error(), error);
    const std::string number = std::to_string(id);
    const size_t at = error.find(number);
    return at == std::string::npos ? error : error.replace(at, number.size(), "N");
  };
  for (const Invoker& invoker : {Agent("pc-2"), UserOf("pc-1", "eve"), ConsoleUser("bob")})
    EXPECT_EQ(sentence(invoker, others), sentence(invoker, missing));

  ExpectYes(Close(Agent("pc-1"), others, "anna"));
  EXPECT_EQ(sentence(Agent("pc-2"), others), sentence(Agent("pc-2"), missing));
  EXPECT_EQ(Close(Master(), missing, "").Error(), "there is no task " + std::to_string(missing));
}

TEST_F(TaskDatabase, HasNoTasksBeyondTheirNumbers) {
  MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  for (const int64_t id :
       {int64_t{0}, int64_t{-1}, int64_t{2}, int64_t{INT32_MIN}, int64_t{INT32_MAX}}) {
    for (const Invoker& invoker : {Agent("pc-1"), Master()}) {
      ExpectNo(Close(invoker, id, "anna"), "there is no task " + std::to_string(id));
      ExpectNo(AddNote(invoker, id, "anna", "x"), "there is no task " + std::to_string(id));
    }
  }
  ExpectNo(Invoke(Master(), "TrnDbCloseTask", {}), "there is no task 0");
}

}  // namespace
