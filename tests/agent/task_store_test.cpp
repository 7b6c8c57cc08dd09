#include "agent/task_database/task_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <limits>
#include <set>
#include <thread>

#include "agent/task_database/store_database.h"
#include "agent/task_database/store_list.h"
#include "agent/task_database/store_schema.h"
#include "agent/task_database/store_text.h"
#include "tests/agent/task_store_database.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Change = TaskStore::Change;

bool Never(const Task&) {
  return false;
}

class TaskStoreTest : public testing::Test {
 protected:
  int32_t Create(const std::string& requester, const std::string& priority = "",
                 const std::string& deviceGuid = "") {
    return store_.Create(
        {.name = "a task", .priority = priority, .requester = requester, .deviceGuid = deviceGuid},
        1);
  }

  std::vector<int32_t> Listed(const TaskFilter& filter, const TaskListBounds& bounds = {}) {
    std::vector<int32_t> ids;
    for (const Task& task : store_.List(filter, bounds)) ids.push_back(task.id);
    return ids;
  }

  int Count(const std::string& table) {
    int count = -1;
    *database_->Connect() << "SELECT COUNT(*) FROM " + table, soci::into(count);
    return count;
  }

  std::unique_ptr<TestDatabase> database_ = TestDatabase::Make();
  TaskStore store_{database_->Options()};
};

void InThreads(int count, const std::function<void(int)>& work) {
  std::latch start(count);
  std::vector<std::jthread> threads;
  for (int number = 0; number < count; ++number) {
    threads.emplace_back([&, number] {
      start.arrive_and_wait();
      work(number);
    });
  }
}

TEST_F(TaskStoreTest, ANewTaskComesBackWhole) {
  const NewTask task = {.name = "no paper",
                        .description = "third floor",
                        .priority = "high",
                        .requester = "ann",
                        .language = "de",
                        .userEmail = "ann@example.org",
                        .userDomain = "EXAMPLE",
                        .userLogin = "ann1",
                        .deviceGuid = "1-2-3",
                        .agent = "pc-1",
                        .consoleUser = "admin",
                        .note = "urgent"};
  EXPECT_EQ(store_.Create(task, 1'700'000'000'123), 1);

  const std::vector<Task> tasks = store_.List({}, {});
  ASSERT_EQ(tasks.size(), 1u);
  const Task& read = tasks[0];
  EXPECT_EQ(read.id, 1);
  EXPECT_EQ(read.state, TaskState::kOpen);
  EXPECT_EQ(read.createdMs, 1'700'000'000'123);
  EXPECT_EQ(read.changedMs, 1'700'000'000'123);
  EXPECT_EQ(read.closedMs, 0);
  EXPECT_EQ(read.name, "no paper");
  EXPECT_EQ(read.description, "third floor");
  EXPECT_EQ(read.priority, "high");
  EXPECT_EQ(read.requester, "ann");
  EXPECT_EQ(read.language, "de");
  EXPECT_EQ(read.userEmail, "ann@example.org");
  EXPECT_EQ(read.userDomain, "EXAMPLE");
  EXPECT_EQ(read.userLogin, "ann1");
  EXPECT_EQ(read.deviceGuid, "1-2-3");
  EXPECT_EQ(read.agent, "pc-1");
  EXPECT_EQ(read.consoleUser, "admin");
  EXPECT_EQ(read.note, "");
  ASSERT_EQ(read.notes.size(), 1u);
  EXPECT_EQ(read.notes[0].author, "ann");
  EXPECT_EQ(read.notes[0].text, "urgent");
  EXPECT_EQ(read.notes[0].createdMs, 1'700'000'000'123);
}

TEST_F(TaskStoreTest, TextsComeBackByteForByte) {
  std::string controls;
  for (char letter = 1; letter < 0x20; ++letter) controls += letter;
  const std::vector<std::string> texts = {"'; DROP TABLE tasks; --",
                                          "\"quoted\" \\back\\slash\\",
                                          ":name $1 ? %s ::text",
                                          "<b>&amp;</b>",
                                          "\xF0\x9F\x96\xA8 \xC3\xBC \xEF\xBF\xBF \xF4\x8F\xBF\xBF",
                                          "trailing blanks  \r\n\t ",
                                          " leading",
                                          controls + "\x7F",
                                          "",
                                          std::string(1024 * 1024, 'x'),
                                          "e\xCC\x81 is not \xC3\xA9"};
  for (const std::string& text : texts) {
    const std::string shorter = text.substr(0, 4096);
    const int32_t id = store_.Create({.name = shorter,
                                      .description = text,
                                      .priority = shorter,
                                      .requester = shorter,
                                      .language = shorter,
                                      .deviceGuid = shorter,
                                      .note = text},
                                     1);
    ASSERT_EQ(store_.AddNote(id, shorter, text + "!", 2, Always), Change::kDone);

    const std::vector<Task> tasks = store_.List(
        {.requester = shorter, .priority = shorter, .deviceGuid = shorter}, {.tasks = 1});
    ASSERT_EQ(tasks.size(), 1u) << text;
    EXPECT_EQ(tasks[0].id, id);
    EXPECT_EQ(tasks[0].name, shorter);
    EXPECT_EQ(tasks[0].description, text);
    EXPECT_EQ(tasks[0].priority, shorter);
    EXPECT_EQ(tasks[0].requester, shorter);
    EXPECT_EQ(tasks[0].language, shorter);
    EXPECT_EQ(tasks[0].deviceGuid, shorter);
    ASSERT_FALSE(tasks[0].notes.empty());
    EXPECT_EQ(tasks[0].notes.back().author, shorter);
    EXPECT_EQ(tasks[0].notes.back().text, text + "!");
    if (!text.empty()) {
      EXPECT_EQ(tasks[0].notes.front().text, text);
    }
  }
}

TEST_F(TaskStoreTest, TextsThatADatabaseWouldChangeAreRefused) {
  using namespace std::string_literals;
  for (const std::string& text :
       {"a\0b"s, "\xED\xA0\x80"s, "\xFF"s, "\xC0\xAF"s, "\xE2\x82"s, "\xF4\x90\x80\x80"s, "\x80"s,
        "\xE0\x80\xAF"s, "\xF0\x80\x80\xAF"s}) {
    EXPECT_THAT(What([&] { store_.Create({.name = text}, 1); }), HasSubstr("the name"));
    EXPECT_THAT(What([&] { store_.Create({.name = "a", .note = text}, 1); }),
                HasSubstr("the note"));
    EXPECT_THAT(What([&] { store_.AddNote(1, "ann", text, 1, Always); }), HasSubstr("the note"));
    EXPECT_THAT(What([&] { store_.List({.requester = text}, {}); }), HasSubstr("the requester"));
  }
  EXPECT_THAT(store_.List({}, {}), IsEmpty());
}

TEST_F(TaskStoreTest, NotesComeOldestFirstAndChangeTheTime) {
  const int32_t id = store_.Create({.name = "a", .requester = "ann", .note = "one"}, 10);
  EXPECT_EQ(store_.AddNote(id, "bob", "two", 20, Always), Change::kDone);
  EXPECT_EQ(store_.AddNote(id, "eve", "three", 15, Always), Change::kDone);

  const Task task = store_.List({}, {}).at(0);
  ASSERT_EQ(task.notes.size(), 3u);
  EXPECT_EQ(task.notes[0].text, "one");
  EXPECT_EQ(task.notes[1].text, "two");
  EXPECT_EQ(task.notes[1].author, "bob");
  EXPECT_EQ(task.notes[2].text, "three");
  EXPECT_EQ(task.createdMs, 10);
  EXPECT_EQ(task.changedMs, 15);
}

TEST_F(TaskStoreTest, ATaskIsClosedOnce) {
  const int32_t id = Create("ann");
  EXPECT_EQ(store_.Close(id, 7, Always), Change::kDone);
  EXPECT_EQ(store_.Close(id, 8, Always), Change::kAlreadyClosed);
  EXPECT_EQ(store_.AddNote(id, "ann", "too late", 9, Always), Change::kAlreadyClosed);
  EXPECT_EQ(store_.Close(id, 8, Never), Change::kRefused);
  EXPECT_EQ(store_.Close(id + 1, 8, Always), Change::kNoSuchTask);
  EXPECT_EQ(store_.AddNote(0, "ann", "text", 8, Always), Change::kNoSuchTask);
  EXPECT_EQ(store_.Close(-1, 8, Always), Change::kNoSuchTask);

  const Task task = store_.List({}, {}).at(0);
  EXPECT_EQ(task.state, TaskState::kClosed);
  EXPECT_EQ(task.closedMs, 7);
  EXPECT_EQ(task.changedMs, 7);
  EXPECT_THAT(task.notes, IsEmpty());
}

TEST_F(TaskStoreTest, WhoMayChangeIsDecidedOnTheTaskAsItStands) {
  const int32_t id = store_.Create({.name = "a", .requester = "ann", .agent = "pc-1"}, 5);
  std::string seen;
  EXPECT_EQ(store_.Close(id, 7,
                         [&seen](const Task& task) {
                           seen =
                               task.requester + " " + task.agent + " " + TaskStateText(task.state);
                           return false;
                         }),
            Change::kRefused);
  EXPECT_EQ(seen, "ann pc-1 open");
  EXPECT_EQ(store_.AddNote(id, "eve", "text", 7, Never), Change::kRefused);

  const Task task = store_.List({}, {}).at(0);
  EXPECT_EQ(task.state, TaskState::kOpen);
  EXPECT_EQ(task.changedMs, 5);
  EXPECT_THAT(task.notes, IsEmpty());
}

TEST_F(TaskStoreTest, AnErrorOfTheDecisionChangesNothing) {
  const int32_t id = Create("ann");
  const auto fails = [](const Task&) -> bool { throw std::logic_error("no"); };
  EXPECT_THROW(store_.Close(id, 7, fails), std::logic_error);
  EXPECT_EQ(store_.Close(id, 8, Always), Change::kDone);
}

TEST_F(TaskStoreTest, ListsTheNewestFirstByEveryCombinationOfFilters) {
  const std::vector<std::string> requesters = {"ann", "bob"}, priorities = {"high", "low"},
                                 devices = {"d1", "d2"};
  for (int number = 0; number < 48; ++number) {
    const auto at = [number](const auto& of, int divisor) { return of[(number / divisor) % 2]; };
    const int32_t id = Create(at(requesters, 1), at(priorities, 2), at(devices, 4));
    if ((number / 8) % 2 == 1) {
      ASSERT_EQ(store_.Close(id, 2, Always), Change::kDone);
    }
  }
  const std::vector<Task> all = store_.List({}, {});
  ASSERT_EQ(all.size(), 48u);

  for (int chosen = 0; chosen < 16; ++chosen) {
    const auto value = [chosen](int bit, const char* text) { return (chosen & bit) ? text : ""; };
    const TaskFilter filter = {.requester = value(1, "bob"),
                               .state = value(2, "closed"),
                               .priority = value(4, "low"),
                               .deviceGuid = value(8, "d2")};
    std::vector<int32_t> expected;
    for (const Task& task : all) {
      const bool isWanted = (filter.requester.empty() || task.requester == filter.requester) &&
                            (filter.state.empty() || TaskStateText(task.state) == filter.state) &&
                            (filter.priority.empty() || task.priority == filter.priority) &&
                            (filter.deviceGuid.empty() || task.deviceGuid == filter.deviceGuid);
      if (isWanted) expected.push_back(task.id);
    }
    EXPECT_EQ(Listed(filter), expected) << chosen;
    EXPECT_TRUE(std::is_sorted(expected.rbegin(), expected.rend()));
    expected.resize(2);
    EXPECT_EQ(Listed(filter, {.tasks = 2}), expected) << chosen;
  }
}

TEST_F(TaskStoreTest, FiltersCompareWholeTexts) {
  Create("ann");
  EXPECT_THAT(Listed({.requester = "an"}), IsEmpty());
  EXPECT_THAT(Listed({.requester = "ANN"}), IsEmpty());
  EXPECT_THAT(Listed({.requester = "ann "}), IsEmpty());
  EXPECT_THAT(Listed({.requester = "a%"}), IsEmpty());
  EXPECT_THAT(Listed({.state = "Open"}), IsEmpty());
  EXPECT_THAT(Listed({.state = "' OR '1' = '1"}), IsEmpty());
  EXPECT_THAT(Listed({.requester = "ann", .state = "open"}), ElementsAre(1));
}

TEST_F(TaskStoreTest, TextsWithTheSameKeyAreToldApart) {
  ASSERT_EQ(TextKey("costarring"), TextKey("liquid"));
  Create("costarring");
  Create("liquid");
  EXPECT_THAT(Listed({.requester = "liquid"}), ElementsAre(2));
  EXPECT_THAT(Listed({.requester = "costarring"}), ElementsAre(1));
}

TEST(TaskStoreTexts, KeysAreTheSameForEver) {
  EXPECT_EQ(TextKey(""), static_cast<int32_t>(0x811C9DC5));
  EXPECT_EQ(TextKey("foobar"), static_cast<int32_t>(0xBF9CF968));
}

TEST_F(TaskStoreTest, AListEndsBeforeTheTaskThatWouldExceedItsTexts) {
  for (int number = 0; number < 4; ++number) {
    store_.Create({.name = std::string(100, 'n'), .note = std::string(50, 't')}, 1);
  }
  EXPECT_THAT(Listed({}, {.textBytes = 856}), ElementsAre(4, 3, 2, 1));
  EXPECT_THAT(Listed({}, {.textBytes = 855}), ElementsAre(4, 3, 2));
  EXPECT_THAT(Listed({}, {.textBytes = 428}), ElementsAre(4, 3));
  EXPECT_THAT(Listed({}, {.textBytes = 427}), ElementsAre(4));
  ASSERT_EQ(store_.AddNote(3, "", std::string(1, 't'), 1, Always), Change::kDone);
  EXPECT_THAT(Listed({}, {.textBytes = 428}), ElementsAre(4));
  EXPECT_THAT(Listed({}, {.tasks = 0}), IsEmpty());
}

TEST_F(TaskStoreTest, AFirstTaskWithTooManyNotesKeepsTheNewest) {
  const int32_t id = store_.Create({.name = std::string(100, 'n')}, 1);
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    ASSERT_EQ(store_.AddNote(id, "x", std::string(9, letter), 2, Always), Change::kDone);
  }
  Create("ann");
  Create("bob");

  const auto firstLetters = [&](size_t textBytes) {
    const std::vector<Task> tasks =
        store_.List({.requester = ""}, {.tasks = 1, .textBytes = textBytes});
    EXPECT_EQ(tasks.size(), 1u);
    EXPECT_EQ(tasks.at(0).name.size(), 100u);
    std::string letters;
    for (const TaskNote& note : tasks.at(0).notes) letters += note.text.at(0);
    return letters;
  };
  ASSERT_EQ(store_.AddNote(id, "x", std::string(9, 'e'), 2, Always), Change::kDone);
  *database_->Connect() << "DELETE FROM tasks WHERE id > 1";
  EXPECT_EQ(firstLetters(470), "abcde");
  EXPECT_EQ(firstLetters(469), "bcde");
  EXPECT_EQ(firstLetters(250), "de");
  EXPECT_EQ(firstLetters(173), "");
  EXPECT_EQ(firstLetters(1), "");
}

TEST_F(TaskStoreTest, EveryCombinationOfFiltersIsReadFromItsIndex) {
  store_.CheckUsable();
  const std::unique_ptr<soci::session> sql = database_->Connect();
  // All keys are spread alike, so that nothing speaks for one index but the filter.
  *sql << "INSERT INTO tasks (state, created_ms, changed_ms, closed_ms, text_bytes, requester_key,"
          " priority_key, device_key, name, priority, requester, language, user_email, user_domain,"
          " user_login, device_guid, agent, console_user, description)"
          " WITH RECURSIVE numbers (n) AS"
          " (SELECT 1 UNION ALL SELECT n + 1 FROM numbers WHERE n < 20000)"
          " SELECT CASE WHEN n % 2 = 0 THEN 'open' ELSE 'closed' END, 1, 1, 0, 10, n / 2 % 3,"
          " n / 6 % 3, n / 18 % 3, 'n', 'p', 'r', '', '', '', '', 'd', '', '', '' FROM numbers";

  const char* const indexes[] = {
      "",       "requester",        "priority",        "requester_priority",
      "device", "requester_device", "priority_device", "requester_priority_device"};
  for (const char* state : {"", "open", "closed"}) {
    for (int chosen = 0; chosen < 8; ++chosen) {
      const TaskFilter filter = {.requester = (chosen & 1) ? "r" : "",
                                 .state = state,
                                 .priority = (chosen & 2) ? "p" : "",
                                 .deviceGuid = (chosen & 4) ? "d" : ""};
      const std::string plan =
          database_->Explain(ListQuery(filter, "id, name", database_->SqlDialect()));
      const std::string index = chosen != 0 ? indexes[chosen] : "state";
      if (chosen != 0 || state[0] != '\0') {
        EXPECT_THAT(plan, HasSubstr("tasks_by_" + index + " ")) << state << chosen;
        EXPECT_THAT(plan, testing::Not(HasSubstr("SCAN tasks"))) << state << chosen;
        EXPECT_THAT(plan, testing::Not(HasSubstr("tasks_pkey"))) << state << chosen;
      }
      EXPECT_THAT(plan, testing::Not(HasSubstr("TEMP B-TREE"))) << state << chosen;
      // Where two bounded halves are put together, that much is sorted.
      if (state[0] != '\0') {
        EXPECT_THAT(plan, testing::Not(HasSubstr("Sort "))) << state << chosen;
      }
      EXPECT_THAT(plan, testing::Not(HasSubstr("Seq Scan"))) << state << chosen;
      EXPECT_THAT(plan, testing::Not(HasSubstr("Bitmap"))) << state << chosen;
    }
  }
}

TEST_F(TaskStoreTest, OfManyTasksOfOneRequesterNoMoreAreReadThanListed) {
  store_.CheckUsable();
  const std::unique_ptr<soci::session> sql = database_->Connect();
  *sql << "INSERT INTO tasks (state, created_ms, changed_ms, closed_ms, text_bytes, requester_key,"
          " priority_key, device_key, name, priority, requester, language, user_email, user_domain,"
          " user_login, device_guid, agent, console_user, description)"
          " WITH RECURSIVE numbers (n) AS"
          " (SELECT 1 UNION ALL SELECT n + 1 FROM numbers WHERE n < 50000)"
          " SELECT CASE WHEN n % 7 < 3 THEN 'open' ELSE 'closed' END, 1, 1, 0, 10, n % 100,"
          " 1, 2, 'n', 'p', CASE WHEN n % 100 = 0 THEN 'r' ELSE 'r' || n % 100 END,"
          " '', '', '', '', 'd', '', '', 'some text that takes its room' FROM numbers";

  for (const char* state : {"", "open", "closed"}) {
    const TaskFilter filter = {.requester = "r", .state = state};
    const std::string plan =
        database_->Explain(ListQuery(filter, "id, name", database_->SqlDialect()));
    EXPECT_THAT(plan, HasSubstr("tasks_by_requester")) << state;
    EXPECT_THAT(plan, testing::Not(HasSubstr("Bitmap"))) << state << "\n" << plan;
    EXPECT_THAT(plan, testing::Not(HasSubstr("TEMP B-TREE"))) << state;
  }
}

TEST_F(TaskStoreTest, TasksCreatedAtOnceAreAllThereAndNoneTwice) {
  constexpr int kThreads = 32, kEach = 32;
  std::vector<std::vector<int32_t>> given(kThreads);
  InThreads(kThreads, [&](int number) {
    for (int count = 0; count < kEach; ++count) {
      const std::string name = std::to_string(number) + "/" + std::to_string(count);
      given[number].push_back(store_.Create({.name = name, .note = name}, 1));
    }
  });

  const std::vector<Task> tasks = store_.List({}, {.tasks = 10'000});
  ASSERT_EQ(tasks.size(), size_t{kThreads * kEach});
  for (const Task& task : tasks) {
    const size_t slash = task.name.find('/');
    const int thread = std::stoi(task.name), count = std::stoi(task.name.substr(slash + 1));
    EXPECT_EQ(given[thread][count], task.id);
    ASSERT_EQ(task.notes.size(), 1u);
    EXPECT_EQ(task.notes[0].text, task.name);
  }
}

TEST_F(TaskStoreTest, OneOfManyWhoCloseATaskAtOnceHasDoneIt) {
  for (int round = 0; round < 10; ++round) {
    const int32_t id = Create("ann");
    std::atomic<int> done = 0, late = 0;
    InThreads(4, [&](int) {
      const Change change = store_.Close(id, 1, Always);
      done += change == Change::kDone;
      late += change == Change::kAlreadyClosed;
    });
    EXPECT_EQ(done, 1);
    EXPECT_EQ(late, 3);
  }
}

TEST_F(TaskStoreTest, NotesAddedAtOnceAreAllThere) {
  const int32_t id = Create("ann");
  InThreads(8, [&](int) {
    for (int count = 0; count < 5; ++count) {
      EXPECT_EQ(store_.AddNote(id, "ann", "text", 1, Always), Change::kDone);
      EXPECT_EQ(store_.List({}, {}).size(), 1u);
    }
  });
  EXPECT_EQ(store_.List({}, {}).at(0).notes.size(), 40u);
}

TEST_F(TaskStoreTest, StoresThatStartAtOnceMakeOneSchema) {
  InThreads(8, [&](int) {
    TaskStore store(database_->Options());
    EXPECT_GT(store.Create({.name = "a"}, 1), 0);
  });
  EXPECT_EQ(store_.List({}, {}).size(), 8u);
  EXPECT_EQ(Count("schema_version"), 1);
}

TEST_F(TaskStoreTest, AnOlderSchemaIsBroughtUpToDateEachStepWhollyOrNotAtAll) {
  Create("ann");
  const std::string path = database_->Options().database;
  const std::unique_ptr<StoreDatabase> database = IsPostgres(path)
                                                      ? MakePostgresDatabase({.database = path})
                                                      : MakeSqliteDatabase({.database = path});
  const Deadline deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  const ConnectionPool::Loan connection = database->Writers().Take(deadline);
  const auto read = [this](const std::string& what) {
    int value = -1;
    *database_->Connect() << "SELECT " + what, soci::into(value);
    return value;
  };
  std::vector<Migration> steps = Migrations();
  steps.push_back({"CREATE TABLE later (x INTEGER NOT NULL)", "INSERT INTO later (x) VALUES (7)"});
  steps.push_back({"ALTER TABLE later ADD COLUMN y INTEGER", "this is no statement"});

  EXPECT_THROW(UpdateSchema(&*connection, deadline, steps), soci::soci_error);
  connection->Sql() << "ROLLBACK";
  EXPECT_EQ(read("version FROM schema_version"), 2);
  EXPECT_EQ(read("x FROM later"), 7);
  EXPECT_THROW(read("y FROM later"), soci::soci_error);

  steps.back().back() = "UPDATE later SET y = 8";
  UpdateSchema(&*connection, deadline, steps);
  EXPECT_EQ(read("version FROM schema_version"), 3);
  EXPECT_EQ(read("y FROM later"), 8);
  EXPECT_EQ(Count("tasks"), 1);
}

TEST_F(TaskStoreTest, ANewerSchemaIsNotTouched) {
  Create("ann");
  *database_->Connect() << "UPDATE schema_version SET version = 99";
  TaskStore store(database_->Options());
  for (const auto& call : std::vector<std::function<void()>>{
           [&] { store.Create({.name = "a"}, 1); }, [&] { store.Close(1, 1, Always); },
           [&] { store.List({}, {}); }, [&] { store.CheckUsable(); }}) {
    EXPECT_EQ(What(call), "the database has the schema version 99, this program knows version 1");
  }
  EXPECT_EQ(Count("tasks"), 1);
}

TEST_F(TaskStoreTest, IdentifiersAreNeverUsedTwice) {
  EXPECT_EQ(Create("ann"), 1);
  EXPECT_EQ(Create("ann"), 2);
  *database_->Connect() << "DELETE FROM tasks WHERE id = 2";
  EXPECT_EQ(Create("ann"), 3);
}

TEST_F(TaskStoreTest, RunningOutOfIdentifiersIsAnError) {
  Create("ann");
  database_->UseUpIdentifiers();
  EXPECT_EQ(Create("ann"), std::numeric_limits<int32_t>::max());
  EXPECT_NE(What([this] { Create("ann"); }), "no error");
  EXPECT_NE(What([this] { Create("ann"); }), "no error");
  EXPECT_EQ(Count("tasks"), 2);
}

TEST_F(TaskStoreTest, NotesGoWithTheirTask) {
  const int32_t id = store_.Create({.name = "a", .note = "text"}, 1);
  ASSERT_EQ(Count("notes"), 1);
  const std::unique_ptr<soci::session> sql = database_->Connect();
  *sql << "DELETE FROM tasks WHERE id = :id", soci::use(id);
  EXPECT_EQ(Count("notes"), 0);
}

TEST_F(TaskStoreTest, ADatabaseThatLostATableIsNotUsable) {
  store_.CheckUsable();
  *database_->Connect() << "DROP TABLE notes";
  EXPECT_THAT(What([this] { store_.CheckUsable(); }), HasSubstr("notes"));
}

}  // namespace
