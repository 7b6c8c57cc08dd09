// The master's module as the agent drives it: its commands, what it must not give away, a database
// that cannot be used, and many callers at once.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "tests/agent/task_database_fixture.h"

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

TEST_F(TaskDatabase, DescribesItselfAndItsActions) {
  std::vector<TCHAR> text(1024);
  EXPECT_EQ(ModuleMain(kDescription, 0, text.data()), 1u);
  EXPECT_THAT(std::string(ZelString(text.data()).Utf8()),
              StartsWith("Helpdesk tasks of the fleet"));
  EXPECT_EQ(ModuleMain(kVersion, 0, text.data()), 1u);
  EXPECT_THAT(std::string(ZelString(text.data()).Utf8()), testing::MatchesRegex("[0-9.]+"));

  EXPECT_THAT(core_->Actions().Signature("TrnDbCreateTask"), HasSubstr("string ObjectName"));
  EXPECT_THAT(core_->Actions().Signature("TrnDbCloseTask"), HasSubstr("int ObjectId"));
  EXPECT_THAT(core_->Actions().Signature("TrnDbTaskAddNote"), HasSubstr("string _DB_ATTR_NOTES_"));
  EXPECT_THAT(core_->Actions().Signature("TrnDbTaskGetList"), HasSubstr("boolean FromHCHL"));
  EXPECT_EQ(core_->Actions().Signature("TrnDbTaskCheckRequirements"),
            "TrnDbTaskCheckRequirements ()");
}

TEST_F(TaskDatabase, AnswersOtherCommandsAsModulesDo) {
  EXPECT_EQ(ModuleMain(8, 0, nullptr), 1u);
  EXPECT_EQ(ModuleMain(9, 0, nullptr), 1u);
  for (const uint32_t command : {0u, 10u, ~0u}) EXPECT_EQ(ModuleMain(command, 0, nullptr), 5u);
}

TEST_F(TaskDatabase, IsAFileOfTheAgentsDataByDefault) {
  MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  EXPECT_TRUE(fs::exists(Home() / "data" / "TaskDatabase" / "tasks.db"));
  EXPECT_THAT(Log(), HasSubstr("TaskDatabase/tasks.db"));
}

TEST_F(TaskDatabase, KeepsItsTasksWhenTheModuleIsStoppedAndStarted) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  StopModule();
  StartModule();
  EXPECT_EQ(NumberOf(Newest(), "ObjectId"), id);
}

TEST_F(TaskDatabase, FailsWithAReasonWhereItsModuleIsNotInitialised) {
  ASSERT_EQ(ModuleMain(kCleanUp, 0, nullptr), 1u);
  for (const char* action : {"TrnDbCreateTask", "TrnDbCloseTask", "TrnDbTaskAddNote",
                             "TrnDbTaskGetList", "TrnDbTaskCheckRequirements"}) {
    ExpectNo(Invoke(Agent("pc-1"), action, NewTaskFor("anna")), "not open", 1);
  }
}

// ---- what must not get out ----

TEST_F(TaskDatabase, KeepsThePasswordNowhere) {
  const std::string password = "correct-horse-42";
  const ZelContainer requests[] = {
      With({{"ObjectName", "x"}, {"UserPass", password}}),
      With({{"ObjectName", ""}, {"UserPass", password}}),
      With({{"ObjectName", "x"}, {"UserLogin", "\xFF"}, {"UserPass", password}}),
  };
  const auto searched = [&](const Reply& reply) {
    for (size_t i = 0; i < reply.answer.CountKeys(); ++i) {
      const ZelContainer::Entry entry = reply.answer.EntryAt(i);
      if (entry.Type() != ZelValueType::kString) continue;
      EXPECT_THAT(std::string(entry.StringAt(0)), Not(HasSubstr(password)));
    }
    EXPECT_EQ(reply.answer.CountValues("UserPass"), 0);
  };
  for (const ZelContainer& request : requests) {
    for (const char* action : {"TrnDbCreateTask", "TrnDbCloseTask", "TrnDbTaskAddNote",
                               "TrnDbTaskGetList", "TrnDbTaskCheckRequirements"}) {
      searched(Invoke(Agent("pc-1"), action, request));
    }
  }
  ASSERT_EQ(List(Master()).size(), 1u);
  EXPECT_THAT(AllFiles(), Not(HasSubstr(password)));
  EXPECT_THAT(AllFiles(), HasSubstr("master-1"));
  StopModule();
  EXPECT_THAT(AllFiles(), Not(HasSubstr(password)));
}

TEST_F(TaskDatabase, WritesNoTextOfATaskIntoTheLog) {
  const std::string secret = "a-private-matter";
  ZelContainer request;
  for (const char* key :
       {"ObjectName", "_DB_ATTR_DESCRIPTION_", "_DB_ATTR_PRIORITY_", "_DB_ATTR_REQUESTEDBY_",
        "_DB_ATTR_NOTES_", "Language", "UserEmail", "UserDomain", "UserLogin", "GUID"})
    request.SetString(key, ZelString(secret), kNoIndex);
  const int64_t id = MustCreate(Agent("pc-1"), request);
  ExpectYes(AddNote(Agent("pc-1"), id, secret, secret));
  ExpectNo(Close(Agent("pc-1"), id, secret + "?"), "there is no task");
  ExpectYes(Close(Agent("pc-1"), id, secret));
  EXPECT_EQ(Invoke(Agent("pc-1"), "TrnDbTaskGetList", request).code, 0u);
  EXPECT_THAT(Log(), Not(HasSubstr(secret)));
  EXPECT_THAT(Log(), HasSubstr("Task " + std::to_string(id) + " closed for agent \"pc-1\""));
}

TEST_F(TaskDatabase, WritesOneShortLineForWhateverAnAgentIsCalled) {
  const Invoker odd = Agent("x\nerror [core] \"forged\"" + std::string(3000, 'y'));
  MustCreate(odd, NewTaskFor("anna"));
  ExpectNo(Create(odd, {}), "must not be empty");
  const std::string log = Log();
  EXPECT_THAT(log, HasSubstr("x\\x0aerror [core]"));
  EXPECT_THAT(log, Not(HasSubstr("\nerror [core]")));
  EXPECT_THAT(log, Not(HasSubstr(std::string(200, 'y'))));
}

// ---- a database that cannot be used ----

TEST_F(TaskDatabase, TellsThatItCanBeUsed) {
  const Reply reply = Invoke(Agent("pc-1"), "TrnDbTaskCheckRequirements", With({{"Unasked", "x"}}));
  ExpectYes(reply);
  EXPECT_EQ(reply.answer.CountKeys(), 1u);
}

class BrokenDatabase : public TaskDatabase {
 protected:
  void ExpectFailures() {
    const ZelContainer change = Change(1, "anna", "note");
    ExpectNo(Create(Agent("pc-1"), NewTaskFor("anna")), "", 1);
    ExpectNo(Invoke(Agent("pc-1"), "TrnDbCloseTask", change), "", 1);
    ExpectNo(Invoke(Agent("pc-1"), "TrnDbTaskAddNote", change), "", 1);
    ExpectNo(Invoke(Agent("pc-1"), "TrnDbTaskGetList", {}), "", 1);
    const Reply check = Invoke(Agent("pc-1"), "TrnDbTaskCheckRequirements", {});
    ExpectNo(check, "", 0);
    EXPECT_THAT(check.Error(), Not(IsEmpty()));
    EXPECT_THAT(Log(), HasSubstr("warning [TaskDatabase] The task database cannot be used"));
    EXPECT_THAT(Log(), HasSubstr("error [TaskDatabase] The task database cannot be used"));
    EXPECT_THAT(Log(), HasSubstr("error [TaskDatabase] TrnDbCreateTask failed: "));
    // A bad request is none of the database's business, whatever its state.
    ExpectNo(Create(Agent("pc-1"), {}), "must not be empty", 0);
  }
};

class DirectoryAsDatabase : public BrokenDatabase {
 protected:
  std::string MasterSettings() override {
    fs::create_directories(home_.Native() / "directory");
    return "database = " + (home_.Native() / "directory").string() + "\n";
  }
};

TEST_F(DirectoryAsDatabase, IsAFailureOfEachActionAndNotOfTheAgent) {
  ExpectFailures();
}

class GarbageAsDatabase : public BrokenDatabase {
 protected:
  fs::path File() const { return home_.Native() / "garbage.db"; }
  std::string MasterSettings() override {
    WriteFile(File(), std::string(10000, '?'));
    return "database = " + File().string() + "\n";
  }
};

TEST_F(GarbageAsDatabase, IsAFailureOfEachActionAndLeftAsItIs) {
  ExpectFailures();
  EXPECT_EQ(ReadFile(File()), std::string(10000, '?'));
}

TEST_F(GarbageAsDatabase, IsForgottenWhenTheDatabaseIsThere) {
  ExpectNo(Create(Agent("pc-1"), NewTaskFor("anna")), "", 1);
  fs::remove(File());
  ExpectYes(Create(Agent("pc-1"), NewTaskFor("anna")));
}

class ServerThatIsNotThere : public BrokenDatabase {
 protected:
  std::string MasterSettings() override {
    return "database = postgresql://zel:hunter2-pw@" + (home_.Native() / "no").string() + "/x\n";
  }
};

TEST_F(ServerThatIsNotThere, IsAFailureOfEachActionThatTellsNoPassword) {
  ExpectFailures();
  const Reply reply = Invoke(Agent("pc-1"), "TrnDbTaskCheckRequirements", {});
  EXPECT_THAT(reply.Error(), Not(HasSubstr("hunter2-pw")));
  EXPECT_THAT(Log(), Not(HasSubstr("hunter2-pw")));
}

class MisspeltDatabase : public BrokenDatabase {
 protected:
  std::string MasterSettings() override {
    return "database = postgress://zel:hunter2-pw@db/tasks\n";
  }
};

TEST_F(MisspeltDatabase, IsAFailureOfEachActionThatTellsNoPassword) {
  ExpectFailures();
  EXPECT_THAT(Log(), HasSubstr("the PostgreSQL database that [master] database names"));
  EXPECT_THAT(Log(), HasSubstr("a file is named by its full path"));
  EXPECT_THAT(Log(), Not(HasSubstr("hunter2-pw")));
  const Reply reply = Invoke(Agent("pc-1"), "TrnDbTaskCheckRequirements", {});
  EXPECT_THAT(reply.Error(), Not(HasSubstr("hunter2-pw")));
}

class RelativeFileAsDatabase : public BrokenDatabase {
 protected:
  std::string MasterSettings() override { return "database = relative-tasks.db\n"; }
};

TEST_F(RelativeFileAsDatabase, IsAFailureOfEachActionAndMakesNoFile) {
  ExpectFailures();
  EXPECT_THAT(Log(), HasSubstr("a file is named by its full path"));
  EXPECT_FALSE(fs::exists("relative-tasks.db"));
}

// ---- many at once ----

TEST_F(TaskDatabase, OpensTasksForManyAtOnce) {
  constexpr int kThreads = 16;
  constexpr int kTimes = 10;
  std::vector<std::vector<int64_t>> ids(kThreads);
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      const Invoker agent = Agent("pc-" + std::to_string(i));
      for (int j = 0; j < kTimes; ++j) {
        ids[i].push_back(MustCreate(agent, NewTaskFor("anna")));
        if (j % 4 == 0) ExpectYes(AddNote(agent, ids[i].back(), "anna", "note"));
      }
      ExpectYes(Close(agent, ids[i].back(), "anna"));
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::set<int64_t> unique;
  for (const std::vector<int64_t>& some : ids) unique.insert(some.begin(), some.end());
  EXPECT_EQ(unique.size(), static_cast<size_t>(kThreads * kTimes));
  EXPECT_EQ(List(Master()).size(), static_cast<size_t>(kThreads * kTimes));
  EXPECT_EQ(List(Master(), With({{"_DB_ATTR_STATUS_", "closed"}})).size(), size_t{kThreads});
}

TEST_F(TaskDatabase, IsClosedByOneOfManyWhoTry) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  std::atomic<int> done = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      bool result = false;
      const Reply reply = Close(Agent("pc-1"), id, "anna");
      EXPECT_EQ(reply.code, 0u);
      reply.answer.GetBool("Result", &result, kNoIndex);
      done += result;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(done, 1);
}

TEST_F(TaskDatabase, LetsActionsEndThatRunWhileItsModuleStops) {
  std::atomic<bool> isOver = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!isOver) {
        const Reply reply = Create(Agent("pc-1"), NewTaskFor("anna"));
        if (reply.code != 0) ExpectNo(reply, "not open", 1);
      }
    });
  }
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(ModuleMain(kCleanUp, 0, nullptr), 1u);
    EXPECT_EQ(ModuleMain(kInitialise, 0, nullptr), 1u);
  }
  isOver = true;
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
