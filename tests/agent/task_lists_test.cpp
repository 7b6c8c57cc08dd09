// Lists of tasks: their order, filters, bounds, and who sees which.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "agent/libZelCore/json_codec.h"
#include "tests/agent/task_database_fixture.h"

namespace {

TEST_F(TaskDatabase, ListsTheNewestFirst) {
  std::vector<int64_t> ids;
  for (int i = 0; i < 5; ++i)
    ids.insert(ids.begin(), MustCreate(Agent("pc-1"), NewTaskFor("anna")));
  EXPECT_EQ(IdsOf(List(Agent("pc-2"))), ids);
}

TEST_F(TaskDatabase, AnswersAnEmptyListWithNothing) {
  const Reply reply = Invoke(Agent("pc-1"), "TrnDbTaskGetList", NewTaskFor("anna"));
  EXPECT_EQ(reply.code, 0u);
  EXPECT_EQ(reply.answer.CountKeys(), 0u);
}

TEST_F(TaskDatabase, CombinesFilters) {
  const auto create = [&](const char* requester, const char* priority) {
    ZelContainer request = NewTaskFor(requester);
    request.SetString("_DB_ATTR_PRIORITY_", priority, kNoIndex);
    return MustCreate(Agent("pc-1"), request);
  };
  const int64_t annaHigh = create("anna", "high");
  const int64_t annaLow = create("anna", "low");
  const int64_t bobHigh = create("bob", "high");
  const int64_t annaDone = create("anna", "high");
  ExpectYes(Close(Agent("pc-1"), annaDone, "anna"));

  const auto ids = [&](const char* requester, const char* state, const char* priority) {
    return IdsOf(List(Agent("pc-1"), With({{"_DB_ATTR_REQUESTEDBY_", requester},
                                           {"_DB_ATTR_STATUS_", state},
                                           {"_DB_ATTR_PRIORITY_", priority}})));
  };
  using Ids = std::vector<int64_t>;
  EXPECT_EQ(ids("", "", ""), (Ids{annaDone, bobHigh, annaLow, annaHigh}));
  EXPECT_EQ(ids("anna", "", ""), (Ids{annaDone, annaLow, annaHigh}));
  EXPECT_EQ(ids("", "open", ""), (Ids{bobHigh, annaLow, annaHigh}));
  EXPECT_EQ(ids("", "closed", ""), Ids{annaDone});
  EXPECT_EQ(ids("", "", "high"), (Ids{annaDone, bobHigh, annaHigh}));
  EXPECT_EQ(ids("anna", "open", "high"), Ids{annaHigh});
  EXPECT_EQ(ids("bob", "closed", ""), Ids{});
  for (const char* requester : {"ANNA", "ann", "anna ", "%", "_nna", "' OR '1'='1"})
    EXPECT_EQ(ids(requester, "", ""), Ids{}) << requester;
  EXPECT_EQ(ids("", "OPEN", ""), Ids{});
}

TEST_F(TaskDatabase, ListsNoMoreThanEightMebibytesOfText) {
  ZelContainer request = NewTaskFor("anna");
  request.SetString("_DB_ATTR_DESCRIPTION_", ZelString(std::string(1024 * 1024, 'x')), kNoIndex);
  int64_t newest = 0;
  for (int i = 0; i < 10; ++i) newest = MustCreate(Agent("pc-1"), request);
  const std::vector<ZelContainer> rows = List(Agent("pc-1"));
  EXPECT_EQ(rows.size(), 7u);
  EXPECT_EQ(NumberOf(rows.at(0), "ObjectId"), newest);
}

/// Agents take no larger reply from each other.
constexpr size_t kMaxReplyBytes = 64 * 1024 * 1024;

TEST_F(TaskDatabase, ListsNoMoreThanFitsIntoAReplyHoweverTheTextsAreWritten) {
  // Control characters take the most room in JSON.
  const ZelString text(std::string(1024 * 1024, '\x01'));
  ZelContainer request = NewTaskFor("anna");
  request.SetString("_DB_ATTR_DESCRIPTION_", text, kNoIndex);
  request.SetString("_DB_ATTR_NOTES_", text, kNoIndex);
  for (int i = 0; i < 5; ++i) MustCreate(Agent("pc-1"), request);

  const Reply reply = Invoke(Agent("pc-1"), "TrnDbTaskGetList", {});
  EXPECT_EQ(ListOf(reply.answer, "Values").size(), 3u);
  std::string json;
  EncodeContainer(reply.answer, &json);
  EXPECT_GT(json.size(), kMaxReplyBytes / 2);
  EXPECT_LT(json.size(), kMaxReplyBytes);
}

TEST_F(TaskDatabase, ListsTheNewestTaskWithTheNewestNotesThatFit) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  for (char letter = 'a'; letter < 'k'; ++letter)
    ExpectYes(AddNote(Agent("pc-1"), id, "anna", std::string(1024 * 1024, letter)));
  const std::vector<ZelContainer> notes = ListOf(Newest(), "_DB_ATTR_NOTES_");
  ASSERT_EQ(notes.size(), 7u);
  EXPECT_EQ(TextOf(notes.front(), "Text").front(), 'd');
  EXPECT_EQ(TextOf(notes.back(), "Text").front(), 'j');
}

class ShortLists : public TaskDatabase {
 protected:
  std::string MasterSettings() override { return "max_listed = 3\n"; }
};

TEST_F(ShortLists, HoldTheNewestTasks) {
  std::vector<int64_t> ids;
  for (int i = 0; i < 5; ++i)
    ids.insert(ids.begin(), MustCreate(Agent("pc-1"), NewTaskFor("anna")));
  ids.resize(3);
  EXPECT_EQ(IdsOf(List(Master())), ids);
}

class OwnDeviceOnly : public TaskDatabase {
 protected:
  std::string MasterSettings() override { return "visibility = device\n"; }

  int64_t CreateOn(const char* guid) {
    ZelContainer request = NewTaskFor("anna");
    request.SetString("GUID", guid, kNoIndex);
    return MustCreate(Agent("pc-1"), request);
  }
  static ZelContainer FromDevice(const char* guid) {
    ZelContainer request = With({{"GUID", guid}});
    request.SetBool("FromHCHL", true, kNoIndex);
    return request;
  }
};

TEST_F(OwnDeviceOnly, IsWhatTheListOfADeviceShows) {
  const int64_t first = CreateOn("guid-1");
  const int64_t second = CreateOn("guid-2");
  const int64_t none = CreateOn("");
  using Ids = std::vector<int64_t>;
  for (const Invoker& invoker : {Agent("pc-1"), UserOf("pc-1", "bob"), ConsoleUser("bob")}) {
    EXPECT_EQ(IdsOf(List(invoker, FromDevice("guid-1"))), Ids{first});
    EXPECT_EQ(IdsOf(List(invoker, FromDevice("guid-2"))), Ids{second});
    EXPECT_EQ(IdsOf(List(invoker, FromDevice("guid-3"))), Ids{});
    EXPECT_EQ(IdsOf(List(invoker, FromDevice(""))), Ids{});
    EXPECT_EQ(IdsOf(List(invoker, With({{"GUID", "guid-1"}}))), Ids{first});
    EXPECT_EQ(IdsOf(List(invoker)), Ids{});
  }
  for (const Invoker& invoker : {Master(), ConsoleUser("boss"), AdministratorOf("pc-1", "root")})
    EXPECT_EQ(IdsOf(List(invoker, FromDevice("guid-1"))), (Ids{none, second, first}));
}

TEST_F(TaskDatabase, ShowsADeviceTheTasksOfTheFleetByDefault) {
  MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  ZelContainer request = With({{"GUID", "guid-9"}});
  request.SetBool("FromHCHL", true, kNoIndex);
  EXPECT_EQ(List(Agent("pc-9"), request).size(), 1u);
}

}  // namespace
