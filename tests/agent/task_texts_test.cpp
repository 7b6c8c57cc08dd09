// What the actions of the master's module accept as texts, numbers and flags.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tests/agent/task_database_fixture.h"

namespace {

constexpr size_t kLongText = 1024 * 1024;
constexpr size_t kShort = 4 * 1024;

struct TextField {
  const char* key;
  const char* rowKey;
  size_t maxBytes;
};
constexpr TextField kTextFields[] = {
    {"ObjectName", "_DB_ATTR_NAME_", kShort},
    {"_DB_ATTR_DESCRIPTION_", "_DB_ATTR_DESCRIPTION_", kLongText},
    {"_DB_ATTR_PRIORITY_", "_DB_ATTR_PRIORITY_", kShort},
    {"_DB_ATTR_REQUESTEDBY_", "_DB_ATTR_REQUESTEDBY_", kShort},
    {"_DB_ATTR_NOTES_", "_DB_ATTR_NOTES_", kLongText},
    {"Language", "Language", kShort},
    {"UserEmail", "UserEmail", kShort},
    {"UserDomain", "UserDomain", kShort},
    {"UserLogin", "UserLogin", kShort},
    {"GUID", "GUID", kShort},
};

std::string FieldOf(const ZelContainer& row, const TextField& field) {
  if (field.rowKey != std::string_view("_DB_ATTR_NOTES_")) return TextOf(row, field.rowKey);
  const std::vector<ZelContainer> notes = ListOf(row, field.rowKey);
  return notes.size() == 1 ? TextOf(notes[0], "Text") : "";
}

class TaskTexts : public TaskDatabase, public testing::WithParamInterface<TextField> {
 protected:
  Reply CreateWith(const ZelString& text) {
    ZelContainer request = NewTaskFor("anna");
    request.SetString(GetParam().key, text, kNoIndex);
    return Create(Agent("pc-1"), request);
  }
  std::string Named(const std::string& problem) {
    return "the parameter \"" + std::string(GetParam().key) + "\" " + problem;
  }
};

TEST_P(TaskTexts, ComeBackByteForByte) {
  const std::string accepted[] = {
      "it's \"quoted\" \\ `x` $1 :name ?",
      "'); DROP TABLE tasks; --",
      "<script>alert(1)</script>&amp;",
      "line\r\nline\n\ttab\x01\x1f\x7f",
      " blanks around ",
      "%s %S %n \xF0\x9F\x96\xA8 \xC3\xBC \xE2\x80\xAE \xEF\xBB\xBF \xEF\xBF\xBF",
      std::string(GetParam().maxBytes, 'x'),
  };
  for (const std::string& text : accepted) {
    ExpectYes(CreateWith(ZelString(text)));
    EXPECT_TRUE(FieldOf(Newest(), GetParam()) == text) << text.substr(0, 100);
  }
}

TEST_P(TaskTexts, AreRefusedAboveTheirBound) {
  const std::string problem = "is longer than " + std::to_string(GetParam().maxBytes) + " bytes";
  ExpectNo(CreateWith(ZelString(std::string(GetParam().maxBytes + 1, 'x'))), Named(problem));
  // Bytes count, not characters.
  std::string umlauts(1, 'x');
  while (umlauts.size() <= GetParam().maxBytes) umlauts += "\xC3\xBC";
  ExpectNo(CreateWith(ZelString(umlauts)), Named(problem));
  EXPECT_TRUE(List(Master()).empty());
}

TEST_P(TaskTexts, AreRefusedWithNulOrWithoutBeingUnicode) {
  ExpectNo(CreateWith(ZelString(std::string_view("a\0b", 3))), Named("holds a NUL character"));
  ExpectNo(CreateWith(ZelString(std::string_view("\0", 1))), Named("holds a NUL character"));
  for (const char* bytes : {"a\xFF", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"})
    ExpectNo(CreateWith(ZelString(bytes)), Named("is not valid Unicode"));
  const TCHAR lone[] = {'a', 0xD83D, 'b', 0};
  ExpectNo(CreateWith(ZelString(lone)), Named("is not valid Unicode"));
  EXPECT_TRUE(List(Master()).empty());
}

TEST_P(TaskTexts, AreRefusedWhenTheyAreOfAnotherType) {
  const std::string problem = Named("must be a text");
  const std::function<void(ZelContainer*)> setters[] = {
      [](ZelContainer* request) { request->SetInt32(GetParam().key, 1, kNoIndex); },
      [](ZelContainer* request) { request->SetInt64(GetParam().key, 1, kNoIndex); },
      [](ZelContainer* request) { request->SetBool(GetParam().key, true, kNoIndex); },
      [](ZelContainer* request) { request->SetContainer(GetParam().key, {}, kNoIndex); },
      [](ZelContainer* request) {
        request->Remove(GetParam().key);
        request->SetString(GetParam().key, "one", 0);
        request->SetString(GetParam().key, "two", 1);
      },
  };
  for (const auto& set : setters) {
    ZelContainer request = NewTaskFor("anna");
    set(&request);
    ExpectNo(Create(Agent("pc-1"), request), problem);
  }
  EXPECT_TRUE(List(Master()).empty());
}

INSTANTIATE_TEST_SUITE_P(OfEachParameter, TaskTexts, testing::ValuesIn(kTextFields),
                         [](const auto& info) {
                           std::string name = info.param.key;
                           std::erase(name, '_');
                           return name;
                         });

TEST_F(TaskDatabase, HoldsTheTextsOfChangesAndFiltersToTheSameRules) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  const std::string tooLong(kShort + 1, 'x');
  const std::string bad = "\xED\xA0\x80";
  ExpectNo(Close(Agent("pc-1"), id, tooLong), "\"_DB_ATTR_REQUESTEDBY_\" is longer");
  ExpectNo(Close(Master(), id, bad), "\"_DB_ATTR_REQUESTEDBY_\" is not valid Unicode");
  ExpectNo(AddNote(Master(), id, bad, "n"), "\"_DB_ATTR_REQUESTEDBY_\" is not valid Unicode");
  ExpectNo(AddNote(Agent("pc-1"), id, "anna", bad), "\"_DB_ATTR_NOTES_\" is not valid Unicode");
  ExpectNo(AddNote(Agent("pc-1"), id, "anna", std::string(kLongText + 1, 'x')),
           "\"_DB_ATTR_NOTES_\" is longer than 1048576 bytes");
  ExpectNo(AddNote(Agent("pc-1"), id, "anna", ""), "\"_DB_ATTR_NOTES_\" must not be empty");
  for (const char* key :
       {"_DB_ATTR_REQUESTEDBY_", "_DB_ATTR_STATUS_", "_DB_ATTR_PRIORITY_", "GUID"}) {
    const auto list = [&](const ZelContainer& filter) {
      return Invoke(Agent("pc-1"), "TrnDbTaskGetList", filter);
    };
    ExpectNo(list(With({{key, tooLong}})), std::string(key) + "\" is longer than 4096 bytes");
    ExpectNo(list(With({{key, bad}})), std::string(key) + "\" is not valid Unicode");
    ExpectNo(list(With({{key, std::string("\0", 1)}})), std::string(key) + "\" holds a NUL");
    ZelContainer number;
    number.SetInt32(key, 1, kNoIndex);
    ExpectNo(list(number), std::string(key) + "\" must be a text");
  }
  const ZelContainer row = Newest();
  EXPECT_EQ(TextOf(row, "_DB_ATTR_STATUS_"), "open");
  EXPECT_EQ(row.CountValues("_DB_ATTR_NOTES_"), 0);
}

TEST_F(TaskDatabase, TakesANoteOfOneMebibyte) {
  const int64_t id = MustCreate(Agent("pc-1"), NewTaskFor("anna"));
  const std::string note(kLongText, 'x');
  ExpectYes(AddNote(Agent("pc-1"), id, "anna", note));
  const std::vector<ZelContainer> notes = ListOf(Newest(), "_DB_ATTR_NOTES_");
  ASSERT_EQ(notes.size(), 1u);
  EXPECT_TRUE(TextOf(notes[0], "Text") == note);
}

TEST_F(TaskDatabase, RefusesIdentifiersOfAnotherType) {
  ZelContainer request = Change(1, "anna", "note");
  request.SetString("ObjectId", "1", kNoIndex);
  ExpectNo(Invoke(Master(), "TrnDbCloseTask", request), "\"ObjectId\" must be an integer");
  ExpectNo(Invoke(Master(), "TrnDbTaskAddNote", request), "\"ObjectId\" must be an integer");
  request.SetInt64("ObjectId", int64_t{1} << 31, kNoIndex);
  ExpectNo(Invoke(Master(), "TrnDbCloseTask", request), "\"ObjectId\" must be an integer");
  request.SetBool("ObjectId", true, kNoIndex);
  ExpectNo(Invoke(Master(), "TrnDbCloseTask", request), "\"ObjectId\" must be an integer");
}

TEST_F(TaskDatabase, AcceptsNoNamesOfAgentsThatItCouldNotKeep) {
  ExpectNo(Create(Agent(std::string(kShort + 1, 'a')), NewTaskFor("anna")),
           "the name of the asking agent is longer than 4096 bytes");
  ExpectNo(Create(Agent("pc\xFF"), NewTaskFor("anna")),
           "the name of the asking agent is not valid Unicode");
  EXPECT_TRUE(List(Master()).empty());
}

}  // namespace
