#include "agent/task_database/task_rows.h"

#include <string>
#include <utility>

#include "agent/task_database/task_keys.h"

namespace {

constexpr const char* kCreatedKey = "CreatedTime";

void SetText(ZelContainer* row, const char* key, std::string&& text) {
  row->SetString(key, ZelString(std::move(text)), kNoIndex);
}

/// A task that was opened for nobody in particular has a first note without an author: it is of
/// whoever opened the task.
void CompleteAuthor(const Task& task, TaskNote* note) {
  if (note->author.empty()) note->author = task.consoleUser.empty() ? task.agent : task.consoleUser;
}

ZelContainer RowOf(TaskNote&& note) {
  ZelContainer row;
  SetText(&row, "Author", std::move(note.author));
  row.SetInt64(kCreatedKey, note.createdMs, kNoIndex);
  SetText(&row, "Text", std::move(note.text));
  return row;
}

}  // namespace

ZelContainer RowOf(Task&& task) {
  for (TaskNote& note : task.notes) CompleteAuthor(task, &note);
  ZelContainer row;
  row.SetInt32(kObjectIdKey, task.id, kNoIndex);
  SetText(&row, kDeviceGuidKey, std::move(task.deviceGuid));
  SetText(&row, "_DB_ATTR_NAME_", std::move(task.name));
  SetText(&row, kDescriptionKey, std::move(task.description));
  SetText(&row, kStateKey, TaskStateText(task.state));
  SetText(&row, kPriorityKey, std::move(task.priority));
  SetText(&row, kRequesterKey, std::move(task.requester));
  SetText(&row, kLanguageKey, std::move(task.language));
  SetText(&row, kUserEmailKey, std::move(task.userEmail));
  SetText(&row, kUserDomainKey, std::move(task.userDomain));
  SetText(&row, kUserLoginKey, std::move(task.userLogin));
  SetText(&row, "Agent", std::move(task.agent));
  SetText(&row, "ConsoleUser", std::move(task.consoleUser));
  row.SetInt64(kCreatedKey, task.createdMs, kNoIndex);
  row.SetInt64("ChangedTime", task.changedMs, kNoIndex);
  if (task.state == TaskState::kClosed) row.SetInt64("ClosedTime", task.closedMs, kNoIndex);
  uint32_t index = 0;
  for (TaskNote& note : task.notes) row.SetContainer(kNotesKey, RowOf(std::move(note)), index++);
  return row;
}
