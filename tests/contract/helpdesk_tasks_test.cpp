#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

using Change = std::function<void(ZelContainer&)>;

constexpr const char* kAskingForTheIdentity =
    "ActionDbInvokeContainer(null, \"\", \"IdentityGetGUID\", {}, null, ~0, ~0, false)";
constexpr const char* kAskingForTheName = "ZelAgentGetName()";
constexpr const char* kInfo = "HttpProtocolRequestInfo: {HttpProtocolRequestUser: String \"pc-7\"}";
constexpr uint32_t kFailures[] = {1,
                                  12,
                                  32003,
                                  0x7FFFFFFF,
                                  kInvokeUnknownAction,
                                  kInvokeFailed,
                                  kInvokeNotConfigured,
                                  kInvokeUnreachable,
                                  kInvokeRefused,
                                  kInvokeBadReply,
                                  ~0U};

std::string AskingTheMaster(const std::string& action, const std::string& request) {
  return "InvokeContainerToMasterWithTempTunnel(\"" + action + "\", {" + request +
         "}, null, null, ~0, ~0)";
}

/// "key: String "text"", as a container shows it.
std::string Text(const std::string& key, const std::string& text) {
  return key + ": String \"" + text + "\"";
}

/// The keys that say which device asks.
std::string Device(const std::string& guid = "guid-9") {
  return Text("GUID", guid) + ", " + kInfo;
}

ZelContainer With(ZelContainer container, const char* key, const char* text) {
  container.SetString(key, text, kNoIndex);
  return container;
}

ZelContainer WithNumber(ZelContainer container, const char* key, int64_t number) {
  constexpr int64_t kMost = std::numeric_limits<int32_t>::max();
  if (number > kMost || number < -kMost - 1) {
    container.SetInt64(key, number, kNoIndex);
  } else {
    container.SetInt32(key, static_cast<int32_t>(number), kNoIndex);
  }
  return container;
}

/// What the master answers: nothing of the request is left.
Change Answers(const Change& change) {
  return [change](ZelContainer& container) {
    container.Clear();
    change(container);
  };
}

Change AnswersResult(bool result) {
  return Answers([result](ZelContainer& answer) { answer.SetBool("Result", result, kNoIndex); });
}

struct MasterAnswer {
  uint32_t code;
  Change change;
  bool verdict;
};

/// A yes, and everything that is none.
std::vector<MasterAnswer> MasterAnswers() {
  std::vector<MasterAnswer> answers = {
      {0, AnswersResult(true), true},
      {0, AnswersResult(false), false},
      {0, Answers([](ZelContainer&) {}), false},
      {0, {}, false},
      {0, Answers([](ZelContainer& a) { a.SetString("Result", "true", kNoIndex); }), false},
      {0, Answers([](ZelContainer& a) { a.SetInt32("Result", 1, kNoIndex); }), false},
      {0, Answers([](ZelContainer& a) { a.SetInt64("Result", 1, kNoIndex); }), false},
      {0, Answers([](ZelContainer& a) { a.SetBool("Result", true, 0); }), false},
      {0, Answers([](ZelContainer& a) { a.SetContainer("Result", {}, kNoIndex); }), false},
      {0, Answers([](ZelContainer& a) { a.SetBool("result", true, kNoIndex); }), false},
  };
  for (const uint32_t code : kFailures) {
    answers.push_back({code, AnswersResult(true), false});
    answers.push_back({code, {}, false});
  }
  return answers;
}

class TaskTest : public ModuleTest {
 protected:
  void AnswerMaster(uint32_t code, const Change& change) {
    host.AnswerInvocation(code, change, "InvokeContainerToMasterWithTempTunnel");
  }
  /// Who this device is; `change` is what the identity action makes of its container.
  void AnswerDevice(const Change& change = SetsGuid, uint32_t code = 0) {
    host.AnswerInvocation(code, change);
    host.AnswerText("ZelAgentGetName", "pc-7");
  }
  static void SetsGuid(ZelContainer& container) { container.SetString("GUID", "guid-9", kNoIndex); }

  /// What the master is asked when the action runs with `params`.
  std::string Request(const std::string& action, const ZelContainer& params) {
    host.ForgetTranscript();
    AnswerMaster(0, AnswersResult(true));
    EXPECT_EQ(Run(action, params).code, kSuccess);
    return host.Transcript().back();
  }

  /// Expects the identity, the name and the master to have been asked, and nothing to be logged.
  void ExpectThreeCalls() const {
    EXPECT_THAT(host.Transcript(),
                ElementsAre(kAskingForTheIdentity, kAskingForTheName,
                            ::testing::StartsWith("InvokeContainerToMasterWithTempTunnel(")));
  }

  /// Expects the action to write the verdict beside its parameters, and nothing else.
  void ExpectVerdicts(const std::string& action, const ZelContainer& params) {
    for (const MasterAnswer& answer : MasterAnswers()) {
      host.ForgetTranscript();
      AnswerDevice();
      AnswerMaster(answer.code, answer.change);
      ZelContainer expected = params;
      expected.SetBool("Result", answer.verdict, kNoIndex);
      EXPECT_EQ(Run(action, params), (Outcome{kSuccess, Describe(expected)})) << answer.code;
      ExpectThreeCalls();
    }
  }

  /// Expects an absent text, or a value of another type, to count as the empty text.
  void ExpectTextsToBeOptional(const std::string& action, const ZelContainer& params) {
    for (size_t i = 0; i < params.CountKeys(); ++i) {
      const ZelContainer::Entry entry = params.EntryAt(i);
      if (entry.Type() != ZelValueType::kString) continue;
      const std::string key(entry.Key());
      AnswerDevice();
      const std::string request = Request(action, With(params, key.c_str(), ""));

      for (const ZelContainer& variant : WithoutText(params, key.c_str())) {
        AnswerDevice();
        EXPECT_EQ(Request(action, variant), request) << Describe(variant);
      }
    }
  }

  /// Expects numbers of tasks to travel as they are, and what is no number of 32 bits as 0.
  void ExpectObjectIds(const std::string& action, const ZelContainer& params) {
    constexpr int64_t kMost = std::numeric_limits<int32_t>::max();
    for (const int64_t id : {int64_t{0}, int64_t{1}, int64_t{-1}, kMost, -kMost - 1}) {
      ExpectObjectId(action, WithNumber(params, "ObjectId", id), id);
    }
    for (const int64_t id : {kMost + 1, -kMost - 2, int64_t{1} << 32}) {
      ExpectObjectId(action, WithNumber(params, "ObjectId", id), 0);
    }
    ZelContainer other = params;
    other.Remove("ObjectId");
    ExpectObjectId(action, other, 0);
    ExpectObjectId(action, With(params, "ObjectId", "7"), 0);
    other.SetBool("ObjectId", true, kNoIndex);
    ExpectObjectId(action, other, 0);
    other.SetContainer("ObjectId", {}, kNoIndex);
    ExpectObjectId(action, other, 0);
    other.Remove("ObjectId");
    other.SetInt32("ObjectId", 7, 0);
    ExpectObjectId(action, other, 0);
    other.Remove("ObjectId");
    other.SetInt64("ObjectId", 7, kNoIndex);
    ExpectObjectId(action, other, 7);
  }

  /// Expects the request that `describe` tells for an identity, whatever the identity action
  /// answers and leaves.
  void ExpectIdentityBorne(const std::string& action, const ZelContainer& params,
                           const std::function<std::string(const std::string& guid)>& describe) {
    for (const uint32_t code : kFailures) {
      AnswerDevice(SetsGuid, code);
      EXPECT_EQ(Request(action, params), describe("guid-9")) << code;
      ExpectThreeCalls();
    }
    const Change nothing[] = {
        {},
        [](ZelContainer& c) { c.SetString("GUID", "", kNoIndex); },
        [](ZelContainer& c) { c.SetInt32("GUID", 9, kNoIndex); },
        [](ZelContainer& c) { c.SetString("GUID", "guid-9", 0); },
        [](ZelContainer& c) {
          c.SetContainer("GUID", Texts({{"GUID", "guid-9"}}), kNoIndex);
        },
    };
    for (const Change& change : nothing) {
      for (const uint32_t code : {0U, 1U}) {
        AnswerDevice(change, code);
        EXPECT_THAT(Request(action, params), ::testing::HasSubstr(Text("GUID", ""))) << code;
        ExpectThreeCalls();
      }
    }
  }

  void ExpectObjectId(const std::string& action, const ZelContainer& params, int64_t id) {
    AnswerDevice();
    EXPECT_THAT(Request(action, params),
                ::testing::HasSubstr(", ObjectId: Int32 " + std::to_string(id) + ", "))
        << Describe(params);
  }
};

// ---- CoreUtilsCreateTask ----

ZelContainer NewTask() {
  return Texts({{"UserPass", "p"},
                {"Language", "de"},
                {"_DB_ATTR_NAME_", "Printer"},
                {"_DB_ATTR_DESCRIPTION_", "It prints blank pages."},
                {"_DB_ATTR_PRIORITY_", "high"},
                {"_DB_ATTR_REQUESTEDBY_", "ann"},
                {"_DB_ATTR_NOTES_", "Since noon."},
                {"UserEmail", "ann@example.org"},
                {"UserDomain", "OFFICE"},
                {"UserLogin", "amiller"}});
}

/// Behind the identity.
std::string NewTaskRequest() {
  return std::string(kInfo) + ", " + Text("ObjectName", "Printer") + ", " +
         Text("_DB_ATTR_DESCRIPTION_", "It prints blank pages.") + ", " +
         Text("_DB_ATTR_PRIORITY_", "high") + ", " + Text("_DB_ATTR_REQUESTEDBY_", "ann") + ", " +
         Text("_DB_ATTR_NOTES_", "Since noon.") + ", " + Text("UserEmail", "ann@example.org") +
         ", " + Text("Language", "de");
}

std::string NewTaskUser() {
  return Text("UserDomain", "OFFICE") + ", " + Text("UserLogin", "amiller") + ", " +
         Text("UserPass", "p") + ", ";
}

using CreateTask = TaskTest;

TEST_F(CreateTask, HandsTheTaskToTheMaster) {
  AnswerDevice();
  AnswerMaster(0, Answers([](ZelContainer& answer) {
                 answer.SetBool("Result", true, kNoIndex);
                 answer.SetInt32("ObjectId", 12, kNoIndex);
               }));

  ZelContainer expected = NewTask();
  expected.SetBool("Result", true, kNoIndex);
  EXPECT_EQ(Run("CoreUtilsCreateTask", NewTask()), (Outcome{kSuccess, Describe(expected)}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kAskingForTheIdentity, kAskingForTheName,
                  AskingTheMaster("TrnDbCreateTask", Text("GUID", "guid-9") + ", " + NewTaskUser() +
                                                         NewTaskRequest())));
}

TEST_F(CreateTask, HoldsNoOtherUp) {
  const ZelContainer other = With(NewTask(), "_DB_ATTR_NAME_", "Screen");
  AnswerDevice();
  AnswerMaster(0, [this, other](ZelContainer& answer) {
    ExpectNotToWait([this, other] {
      AnswerDevice([](ZelContainer& c) { c.SetString("GUID", "guid-10", kNoIndex); });
      AnswerMaster(0, AnswersResult(false));
      ZelContainer refused = other;
      refused.SetBool("Result", false, kNoIndex);
      EXPECT_EQ(Run("CoreUtilsCreateTask", other), (Outcome{kSuccess, Describe(refused)}));
    });
    EXPECT_THAT(host.Transcript().back(), ::testing::HasSubstr(Text("GUID", "guid-10")));
    EXPECT_THAT(host.Transcript().back(), ::testing::HasSubstr(Text("ObjectName", "Screen")));
    AnswersResult(true)(answer);
  });

  ZelContainer accepted = NewTask();
  accepted.SetBool("Result", true, kNoIndex);
  EXPECT_EQ(Run("CoreUtilsCreateTask", NewTask()), (Outcome{kSuccess, Describe(accepted)}));
}

TEST_F(CreateTask, NamesThePersonAheadOfADeviceWithoutIdentity) {
  AnswerDevice({});
  EXPECT_EQ(Request("CoreUtilsCreateTask", NewTask()),
            AskingTheMaster("TrnDbCreateTask",
                            NewTaskUser() + Text("GUID", "") + ", " + NewTaskRequest()));
}

TEST_F(CreateTask, AsksWithEmptyTextsWhenNothingIsGiven) {
  AnswerDevice({});
  host.ForgetTranscript();
  AnswerMaster(0, AnswersResult(true));

  EXPECT_EQ(Run("CoreUtilsCreateTask", {}), (Outcome{kSuccess, "{Result: Bool true}"}));

  std::string request;
  for (const char* key : {"UserDomain", "UserLogin", "UserPass", "GUID"}) {
    request += Text(key, "") + ", ";
  }
  request += kInfo;
  for (const char* key : {"ObjectName", "_DB_ATTR_DESCRIPTION_", "_DB_ATTR_PRIORITY_",
                          "_DB_ATTR_REQUESTEDBY_", "_DB_ATTR_NOTES_", "UserEmail", "Language"}) {
    request += ", " + Text(key, "");
  }
  EXPECT_THAT(host.Transcript(), ElementsAre(kAskingForTheIdentity, kAskingForTheName,
                                             AskingTheMaster("TrnDbCreateTask", request)));
}

TEST_F(CreateTask, TakesWhatIsNoTextAsEmpty) {
  ExpectTextsToBeOptional("CoreUtilsCreateTask", NewTask());
}

TEST_F(CreateTask, HandsTextsOnAsTheyAre) {
  AnswerDevice();
  EXPECT_THAT(Request("CoreUtilsCreateTask",
                      With(NewTask(), "_DB_ATTR_DESCRIPTION_", "  Größe: 5\" \\ 日本\r\n\t")),
              ::testing::HasSubstr("_DB_ATTR_DESCRIPTION_: String \"  Größe: 5\" \\ "
                                   "日本\\x0d\\x0a\\x09\", "));
}

TEST_F(CreateTask, BearsAFailingIdentityAction) {
  ExpectIdentityBorne("CoreUtilsCreateTask", NewTask(), [](const std::string& guid) {
    return AskingTheMaster("TrnDbCreateTask",
                           Text("GUID", guid) + ", " + NewTaskUser() + NewTaskRequest());
  });
}

TEST_F(CreateTask, SendsWhatElseTheIdentityActionLeft) {
  AnswerDevice([](ZelContainer& identity) {
    identity.SetInt32("Extra", 5, kNoIndex);
    identity.SetInt32("Language", 6, kNoIndex);
    identity.SetContainer("HttpProtocolRequestInfo",
                          Texts({{"HttpProtocolRequestUser", "x"}, {"More", "y"}}), kNoIndex);
    SetsGuid(identity);
  });

  EXPECT_EQ(Request("CoreUtilsCreateTask", Texts({{"Language", "de"}})),
            AskingTheMaster("TrnDbCreateTask",
                            "Extra: Int32 5, " + Text("Language", "de") + ", " + kInfo + ", " +
                                Text("GUID", "guid-9") + ", " + Text("UserDomain", "") + ", " +
                                Text("UserLogin", "") + ", " + Text("UserPass", "") + ", " +
                                Text("ObjectName", "") + ", " + Text("_DB_ATTR_DESCRIPTION_", "") +
                                ", " + Text("_DB_ATTR_PRIORITY_", "") + ", " +
                                Text("_DB_ATTR_REQUESTEDBY_", "") + ", " +
                                Text("_DB_ATTR_NOTES_", "") + ", " + Text("UserEmail", "")));
}

TEST_F(CreateTask, TellsTheMastersVerdictBesideItsParameters) {
  ExpectVerdicts("CoreUtilsCreateTask", NewTask());
}

TEST_F(CreateTask, SendsNothingElseOfTheCallers) {
  AnswerDevice();
  AnswerMaster(0, AnswersResult(false));
  const ZelContainer params = Texts({{"GUID", "mine"},
                                     {"ObjectName", "mine"},
                                     {"HttpProtocolRequestInfo", "mine"},
                                     {"DACurrentConsoleUser", "mine"},
                                     {"Result", "mine"}});

  EXPECT_EQ(Run("CoreUtilsCreateTask", params),
            (Outcome{kSuccess,
                     "{GUID: String \"mine\", ObjectName: String \"mine\", "
                     "HttpProtocolRequestInfo: String \"mine\", DACurrentConsoleUser: String "
                     "\"mine\", Result: Bool false}"}));

  for (const std::string& line : host.Transcript()) {
    EXPECT_EQ(line.find("mine"), std::string::npos) << line;
  }
}

// ---- CoreUtilsCloseTask ----

ZelContainer Closing() {
  return WithNumber(Texts({{"_DB_ATTR_REQUESTEDBY_", "ann"}}), "ObjectId", 7);
}

std::string ClosingRequest(const std::string& guid) {
  return AskingTheMaster("TrnDbCloseTask", Device(guid) + ", ObjectId: Int32 7, " +
                                               Text("_DB_ATTR_REQUESTEDBY_", "ann"));
}

using CloseTask = TaskTest;

TEST_F(CloseTask, AsksTheMasterToCloseTheTask) {
  AnswerDevice();
  AnswerMaster(0, AnswersResult(true));

  EXPECT_EQ(Run("CoreUtilsCloseTask", Closing()),
            (Outcome{kSuccess,
                     "{_DB_ATTR_REQUESTEDBY_: String \"ann\", ObjectId: Int32 7, Result: Bool "
                     "true}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAskingForTheIdentity, kAskingForTheName, ClosingRequest("guid-9")));
}

TEST_F(CloseTask, AsksForTaskZeroOfNobodyWhenNothingIsGiven) {
  AnswerDevice({});
  host.ForgetTranscript();
  AnswerMaster(0, AnswersResult(false));

  EXPECT_EQ(Run("CoreUtilsCloseTask", {}), (Outcome{kSuccess, "{Result: Bool false}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kAskingForTheIdentity, kAskingForTheName,
                  AskingTheMaster("TrnDbCloseTask", Device("") + ", ObjectId: Int32 0, " +
                                                        Text("_DB_ATTR_REQUESTEDBY_", ""))));
}

TEST_F(CloseTask, TakesWhatIsNoTextAsEmpty) {
  ExpectTextsToBeOptional("CoreUtilsCloseTask", Closing());
}

TEST_F(CloseTask, SendsNumbersOfThirtyTwoBitsAsTheyAreAndAllElseAsZero) {
  ExpectObjectIds("CoreUtilsCloseTask", Closing());
}

TEST_F(CloseTask, BearsAFailingIdentityAction) {
  ExpectIdentityBorne("CoreUtilsCloseTask", Closing(), ClosingRequest);
}

TEST_F(CloseTask, SendsWhatElseTheIdentityActionLeft) {
  AnswerDevice([](ZelContainer& identity) {
    identity.SetInt32("Extra", 5, kNoIndex);
    identity.SetString("ObjectId", "9", kNoIndex);
  });
  EXPECT_EQ(Request("CoreUtilsCloseTask", Closing()),
            AskingTheMaster("TrnDbCloseTask", "Extra: Int32 5, ObjectId: Int32 7, " + Device("") +
                                                  ", " + Text("_DB_ATTR_REQUESTEDBY_", "ann")));
}

TEST_F(CloseTask, TellsTheMastersVerdictBesideItsParameters) {
  ExpectVerdicts("CoreUtilsCloseTask", Closing());
}

// ---- CoreUtilsTaskAddNote ----

ZelContainer Note() {
  return With(Closing(), "_DB_ATTR_NOTES_", "Toner is empty.");
}

std::string NoteRequest(const std::string& guid) {
  return AskingTheMaster("TrnDbTaskAddNote", Device(guid) + ", ObjectId: Int32 7, " +
                                                 Text("_DB_ATTR_REQUESTEDBY_", "ann") + ", " +
                                                 Text("_DB_ATTR_NOTES_", "Toner is empty."));
}

using TaskAddNote = TaskTest;

TEST_F(TaskAddNote, HandsTheNoteToTheMaster) {
  AnswerDevice();
  AnswerMaster(0, AnswersResult(true));

  EXPECT_EQ(Run("CoreUtilsTaskAddNote", Note()),
            (Outcome{kSuccess,
                     "{_DB_ATTR_REQUESTEDBY_: String \"ann\", ObjectId: Int32 7, "
                     "_DB_ATTR_NOTES_: String \"Toner is empty.\", Result: Bool true}"}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAskingForTheIdentity, kAskingForTheName, NoteRequest("guid-9")));
}

TEST_F(TaskAddNote, AsksWithAnEmptyNoteOnTaskZeroWhenNothingIsGiven) {
  AnswerDevice({});
  host.ForgetTranscript();
  AnswerMaster(0, AnswersResult(false));

  EXPECT_EQ(Run("CoreUtilsTaskAddNote", {}), (Outcome{kSuccess, "{Result: Bool false}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kAskingForTheIdentity, kAskingForTheName,
                  AskingTheMaster("TrnDbTaskAddNote", Device("") + ", ObjectId: Int32 0, " +
                                                          Text("_DB_ATTR_REQUESTEDBY_", "") + ", " +
                                                          Text("_DB_ATTR_NOTES_", ""))));
}

TEST_F(TaskAddNote, TakesWhatIsNoTextAsEmpty) {
  ExpectTextsToBeOptional("CoreUtilsTaskAddNote", Note());
}

TEST_F(TaskAddNote, SendsNumbersOfThirtyTwoBitsAsTheyAreAndAllElseAsZero) {
  ExpectObjectIds("CoreUtilsTaskAddNote", Note());
}

TEST_F(TaskAddNote, BearsAFailingIdentityAction) {
  ExpectIdentityBorne("CoreUtilsTaskAddNote", Note(), NoteRequest);
}

TEST_F(TaskAddNote, SendsWhatElseTheIdentityActionLeft) {
  AnswerDevice([](ZelContainer& identity) {
    identity.SetInt32("Extra", 5, kNoIndex);
    identity.SetInt32("_DB_ATTR_NOTES_", 6, kNoIndex);
  });
  EXPECT_EQ(Request("CoreUtilsTaskAddNote", Note()),
            AskingTheMaster("TrnDbTaskAddNote", "Extra: Int32 5, " +
                                                    Text("_DB_ATTR_NOTES_", "Toner is empty.") +
                                                    ", " + Device("") + ", ObjectId: Int32 7, " +
                                                    Text("_DB_ATTR_REQUESTEDBY_", "ann")));
}

TEST_F(TaskAddNote, TellsTheMastersVerdictBesideItsParameters) {
  ExpectVerdicts("CoreUtilsTaskAddNote", Note());
}

// ---- CoreUtilsTaskGetList ----

ZelContainer Filters() {
  return Texts({{"_DB_ATTR_PRIORITY_", "high"},
                {"_DB_ATTR_STATUS_", "open"},
                {"_DB_ATTR_REQUESTEDBY_", "ann"}});
}

std::string ListRequest(const std::string& guid) {
  return AskingTheMaster("TrnDbTaskGetList",
                         Device(guid) + ", " + Text("_DB_ATTR_REQUESTEDBY_", "ann") + ", " +
                             Text("_DB_ATTR_STATUS_", "open") + ", " +
                             Text("_DB_ATTR_PRIORITY_", "high") + ", FromHCHL: Bool true");
}

/// `params` with these rows behind them.
std::string WithRows(ZelContainer params, const std::vector<ZelContainer>& rows) {
  for (size_t i = 0; i < rows.size(); ++i) {
    params.SetContainer("Values", rows[i], static_cast<uint32_t>(i));
  }
  return Describe(params);
}

class TaskGetList : public TaskTest {
 protected:
  /// Runs it with what the master makes of its empty answer.
  Outcome List(const ZelContainer& params, const Change& change, uint32_t code = 0) {
    host.ForgetTranscript();
    AnswerDevice();
    AnswerMaster(code, Answers(change));
    return Run("CoreUtilsTaskGetList", params);
  }
  static Change HoldsRows(std::vector<ZelContainer> rows) {
    return [rows = std::move(rows)](ZelContainer& answer) {
      for (size_t i = 0; i < rows.size(); ++i) {
        answer.SetContainer("Values", rows[i], static_cast<uint32_t>(i));
      }
    };
  }
};

TEST_F(TaskGetList, AsksTheMasterForTheTasksThatTheFiltersLeave) {
  ZelContainer first = WithNumber(Texts({{"_DB_ATTR_NAME_", "Printer"}}), "ObjectId", 12);
  first.SetContainer("_DB_ATTR_NOTES_", Texts({{"Text", "a note"}}), 0);
  const ZelContainer second = Texts({{"GUID", "guid-3"}});

  EXPECT_EQ(List(Filters(), HoldsRows({first, second})),
            (Outcome{kSuccess, WithRows(Filters(), {first, second})}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAskingForTheIdentity, kAskingForTheName, ListRequest("guid-9")));
}

TEST_F(TaskGetList, AsksWithEmptyFiltersWhenNothingIsGiven) {
  AnswerDevice({});
  host.ForgetTranscript();
  AnswerMaster(0, Answers([](ZelContainer&) {}));

  EXPECT_EQ(Run("CoreUtilsTaskGetList", {}), (Outcome{kSuccess, "{}"}));

  EXPECT_THAT(
      host.Transcript(),
      ElementsAre(kAskingForTheIdentity, kAskingForTheName,
                  AskingTheMaster("TrnDbTaskGetList",
                                  Device("") + ", " + Text("_DB_ATTR_REQUESTEDBY_", "") + ", " +
                                      Text("_DB_ATTR_STATUS_", "") + ", " +
                                      Text("_DB_ATTR_PRIORITY_", "") + ", FromHCHL: Bool true")));
}

TEST_F(TaskGetList, TakesWhatIsNoTextAsEmpty) {
  ExpectTextsToBeOptional("CoreUtilsTaskGetList", Filters());
}

TEST_F(TaskGetList, BearsAFailingIdentityAction) {
  ExpectIdentityBorne("CoreUtilsTaskGetList", Filters(), ListRequest);
}

TEST_F(TaskGetList, SendsWhatElseTheIdentityActionLeft) {
  AnswerDevice([](ZelContainer& identity) {
    identity.SetInt32("Extra", 5, kNoIndex);
    identity.SetBool("FromHCHL", false, kNoIndex);
  });
  EXPECT_EQ(
      Request("CoreUtilsTaskGetList", {}),
      AskingTheMaster("TrnDbTaskGetList", "Extra: Int32 5, FromHCHL: Bool true, " + Device("") +
                                              ", " + Text("_DB_ATTR_REQUESTEDBY_", "") + ", " +
                                              Text("_DB_ATTR_STATUS_", "") + ", " +
                                              Text("_DB_ATTR_PRIORITY_", "")));
}

TEST_F(TaskGetList, HandsEveryRowOnInItsPlace) {
  std::vector<ZelContainer> rows;
  for (int32_t id = 300; id > 0; --id) rows.push_back(WithNumber({}, "ObjectId", id));
  rows[7] = ZelContainer();

  EXPECT_EQ(List({}, HoldsRows(rows)), (Outcome{kSuccess, WithRows({}, rows)}));
}

TEST_F(TaskGetList, HandsNothingOnButTheRows) {
  EXPECT_EQ(List(Filters(),
                 [](ZelContainer& answer) {
                   answer.SetBool("Result", true, kNoIndex);
                   answer.SetString("Error", "x", kNoIndex);
                   answer.SetContainer("Values", Texts({{"A", "1"}}), 0);
                   answer.SetInt32("ObjectId", 4, kNoIndex);
                 }),
            (Outcome{kSuccess, WithRows(Filters(), {Texts({{"A", "1"}})})}));
}

TEST_F(TaskGetList, WritesNoTableWithoutRows) {
  for (const Change& change : std::vector<Change>{
           [](ZelContainer&) {},
           [](ZelContainer& answer) { answer.SetBool("Result", true, kNoIndex); },
           [](ZelContainer& answer) { answer.SetBool("Result", false, kNoIndex); }}) {
    EXPECT_EQ(List(Filters(), change), (Outcome{kSuccess, Describe(Filters())}));
  }
}

TEST_F(TaskGetList, WritesNothingWhenTheMasterWasNotInvoked) {
  for (const uint32_t code : kFailures) {
    EXPECT_EQ(List(
                  Filters(),
                  [](ZelContainer& answer) {
                    answer.SetBool("Result", true, kNoIndex);
                    answer.SetContainer("Values", Texts({{"A", "1"}}), 0);
                  },
                  code),
              (Outcome{kSuccess, Describe(Filters())}))
        << code;
    ExpectThreeCalls();
  }
}

TEST_F(TaskGetList, LeavesTheCallersRowsWhereTheMasterHasNone) {
  ZelContainer params;
  HoldsRows({Texts({{"Mine", "1"}})})(params);
  const Outcome untouched{kSuccess, "{Values: [{Mine: String \"1\"}]}"};

  EXPECT_EQ(List(params, [](ZelContainer&) {}), untouched);
  EXPECT_EQ(List(params, HoldsRows({Texts({{"A", "1"}})}), 1), untouched);
}

TEST_F(TaskGetList, MakesAnEmptyRowOfWhatIsNone) {
  EXPECT_EQ(List({},
                 [](ZelContainer& answer) {
                   answer.SetString("Values", "x", 0);
                   answer.SetString("Values", "y", 1);
                 }),
            (Outcome{kSuccess, "{Values: [{}, {}]}"}));
}

TEST_F(TaskGetList, MakesATableOfASingleRow) {
  EXPECT_EQ(List({},
                 [](ZelContainer& answer) {
                   answer.SetContainer("Values", Texts({{"A", "1"}}), kNoIndex);
                 }),
            (Outcome{kSuccess, "{Values: [{A: String \"1\"}]}"}));
}

TEST_F(TaskGetList, ReplacesTheCallersRowsWhereTheMasterHasSome) {
  ZelContainer params;
  HoldsRows({Texts({{"Mine", "1"}}), Texts({{"Mine", "2"}})})(params);

  EXPECT_EQ(List(params, HoldsRows({Texts({{"A", "1"}})})),
            (Outcome{kSuccess, "{Values: [{A: String \"1\"}, {Mine: String \"2\"}]}"}));
}

// ---- CoreUtilsCheckTask ----

class CheckTask : public TaskTest {
 protected:
  Outcome Check(const ZelContainer& params, uint32_t code, const Change& change) {
    host.ForgetTranscript();
    host.AnswerText("ZelAgentGetName", "pc-7");
    AnswerMaster(code, change);
    return Run("CoreUtilsCheckTask", params);
  }
};

TEST_F(CheckTask, AsksWithTheAgentsNameAlone) {
  const ZelContainer params = With(NewTask(), "GUID", "mine");
  ZelContainer expected = params;
  expected.SetBool("Result", true, kNoIndex);
  expected.SetInt32("ErrorCode", 0, kNoIndex);

  EXPECT_EQ(Check(params, 0, AnswersResult(true)), (Outcome{kSuccess, Describe(expected)}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kAskingForTheName, AskingTheMaster("TrnDbTaskCheckRequirements", kInfo)));
}

TEST_F(CheckTask, SucceedsWhenTheMasterSaysNo) {
  EXPECT_EQ(Check({}, 0, AnswersResult(false)),
            (Outcome{kSuccess, "{Result: Bool false, ErrorCode: Int32 0}"}));
}

TEST_F(CheckTask, TellsTheVerdictAndWhetherTheMasterWasInvoked) {
  for (const MasterAnswer& answer : MasterAnswers()) {
    const ResultCode code = answer.code == 0 ? 0 : 32003;
    EXPECT_EQ(Check({}, answer.code, answer.change),
              (Outcome{code, std::string("{Result: Bool ") + (answer.verdict ? "true" : "false") +
                                 ", ErrorCode: Int32 " + std::to_string(code) + "}"}))
        << answer.code;
    EXPECT_THAT(
        host.Transcript(),
        ElementsAre(kAskingForTheName, AskingTheMaster("TrnDbTaskCheckRequirements", kInfo)));
  }
}

TEST_F(CheckTask, ReplacesResultsThatTheCallerSent) {
  EXPECT_EQ(Check(Texts({{"ErrorCode", "x"}, {"Other", "y"}, {"Result", "z"}}), 1, {}),
            (Outcome{32003, "{ErrorCode: Int32 32003, Other: String \"y\", Result: Bool false}"}));
}

}  // namespace
