// Requests about helpdesk tasks: a text that is taken is one that every database keeps, whoever
// may not change a task is refused, and a task that was opened comes back from the database as it
// was. The first byte of the input chooses who asks, the rest is the request in JSON, or the text
// of its fields.

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZelCore/json_codec.h"
#include "agent/task_database/store_text.h"
#include "agent/task_database/task_requests.h"
#include "agent/task_database/task_rows.h"
#include "agent/task_database/task_rules.h"
#include "agent/task_database/task_store.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

template <typename Operation>
bool IsTaken(Operation operation) {
  try {
    operation();
    return true;
  } catch (const RefusedRequest& refusal) {
    Require(std::string_view(refusal.what()).starts_with("the "));
    return false;
  }
}

void RequireKept(const std::string& text, size_t mostBytes) {
  Require(text.size() <= mostBytes && IsStorable(text));
}

void CheckTask(const NewTask& task) {
  RequireKept(task.description, kMaxLongTextBytes);
  RequireKept(task.note, kMaxLongTextBytes);
  for (const std::string* text :
       {&task.name, &task.priority, &task.requester, &task.language, &task.userEmail,
        &task.userDomain, &task.userLogin, &task.deviceGuid, &task.agent, &task.consoleUser})
    RequireKept(*text, kMaxShortTextBytes);
  Require(task.name.find_first_not_of(" \t\n\v\f\r") != std::string::npos);
}

// Into the database and back; the disk is slow, so not for every input.
void CheckKept(const NewTask& task) {
  static const Scratch scratch;
  static TaskStore store({.database = (scratch / "tasks.sqlite").native()});
  const int32_t id = store.Create(task, 1000);
  const auto tasks = store.List({}, {.tasks = 1});
  Require(tasks.size() == 1 && tasks[0].id == id);
  const Task& kept = tasks[0];
  Require(kept.name == task.name && kept.description == task.description);
  Require(kept.requester == task.requester && kept.userLogin == task.userLogin);
  Require(kept.notes.size() == (task.note.empty() ? 0 : 1));
  if (!task.note.empty()) Require(kept.notes[0].text == task.note);

  TaskFilter others;
  others.requester = task.requester + "x";
  for (const Task& other : store.List(others, {})) Require(other.requester == others.requester);
}

// Somebody else's task: a console user who did not open it and whose login it does not bear.
void CheckRule(const NewTask& opened, const std::string& requester) {
  Task task;
  static_cast<NewTask&>(task) = opened;
  task.consoleUser = "bob";
  const CallingUser stranger{"pc-2", "eve", false};
  if (requester != "eve") Require(!MayChangeTask(task, requester, stranger));
  Require(MayChangeTask(task, requester, {"pc-2", "root", true}));
}

void CheckRequest(const ZelContainer& parameters, const CallingUser& caller, bool isForDisk) {
  NewTask task;
  if (IsTaken([&] { CheckCaller(caller), task = ReadNewTask(parameters, caller); })) {
    CheckTask(task);
    if (isForDisk) CheckKept(task);
  }
  TaskChange change;
  if (IsTaken([&] { change = ReadTaskChange(parameters); })) {
    RequireKept(change.requester, kMaxShortTextBytes);
    CheckRule(task, change.requester);
    Require(!NoteAuthor(change.requester, {"pc-1", "", false}).empty());
  }
  IsTaken([&] { Require(!ReadNote(parameters).empty()); });
  ListRequest list;
  if (IsTaken([&] { list = ReadListRequest(parameters); }))
    RequireKept(list.filter.state + list.filter.priority, 2 * kMaxShortTextBytes);
}

// Messages of the database's libraries.
void CheckMessage(std::string_view text) {
  const std::string line = OneLine(text);
  Require(line.find('\n') == std::string::npos);
  Require(line.empty() || (line.front() != ' ' && line.back() != ' '));
}

// The database's name in the settings: what cannot be used is refused, without its password.
void CheckDatabaseName(const std::string& text) {
  if (text.empty() || text.starts_with('/')) return;
  try {
    const TaskStore store({.database = text + " password=TOP-SECRET"});
  } catch (const StoreError& error) {
    Require(std::string_view(error.what()).find("TOP-SECRET") == std::string_view::npos);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
  const bool isForDisk = data[0] % 32 == 0;
  CallingUser caller{"pc-1", data[0] % 2 == 0 ? "" : "ann", data[0] % 4 == 3};
  CheckRequest(DecodeContainer(text).container, caller, isForDisk);

  ZelContainer parameters;
  for (const char* key :
       {"ObjectName", "_DB_ATTR_DESCRIPTION_", "_DB_ATTR_PRIORITY_", "_DB_ATTR_REQUESTEDBY_",
        "_DB_ATTR_NOTES_", "_DB_ATTR_STATUS_", "UserLogin"})
    parameters.SetString(key, ZelString(std::string_view(text)), kNoIndex);
  caller.login = text;
  CheckRequest(parameters, caller, isForDisk);
  CheckMessage(text);
  CheckDatabaseName(text);
  return 0;
}
