#include "agent/task_database/store_tasks.h"

#include <limits>
#include <string>

#include "agent/task_database/store_rows.h"
#include "agent/task_database/store_text.h"

namespace {

/// What a stored note takes of a list's bound. Notes count for more than their texts: a list with
/// a great many tiny ones would otherwise be far longer than its bound once it is sent.
int64_t TextBytes(const TaskNote& note) {
  constexpr size_t kFrameBytes = 64;
  return static_cast<int64_t>(kFrameBytes + note.author.size() + note.text.size());
}

void InsertNoteRow(soci::session& sql, int32_t id, const TaskNote& note) {
  const int64_t bytes = TextBytes(note);
  sql << "INSERT INTO notes (task_id, created_ms, text_bytes, author, text)"
         " VALUES (:task_id, :created_ms, :text_bytes, :author, :text)",
      soci::use(id, "task_id"), soci::use(note.createdMs, "created_ms"),
      soci::use(bytes, "text_bytes"), soci::use(note.author, "author"),
      soci::use(note.text, "text");
}

}  // namespace

int64_t TextBytes(const NewTask& task) {
  size_t bytes = 0;
  for (const std::string* text :
       {&task.name, &task.description, &task.priority, &task.requester, &task.language,
        &task.userEmail, &task.userDomain, &task.userLogin, &task.deviceGuid, &task.agent,
        &task.consoleUser}) {
    bytes += text->size();
  }
  return static_cast<int64_t>(bytes);
}

int32_t InsertTask(StoreConnection* connection, const NewTask& task, int64_t nowMs) {
  using soci::use;
  const TaskNote note{task.requester, nowMs, task.note};
  const std::string state = TaskStateText(TaskState::kOpen);
  const int64_t bytes = TextBytes(task) + (task.note.empty() ? 0 : TextBytes(note));
  const int32_t requesterKey = TextKey(task.requester);
  const int32_t priorityKey = TextKey(task.priority);
  const int32_t deviceKey = TextKey(task.deviceGuid);

  int64_t id = 0;
  connection->Sql()
      << "INSERT INTO tasks (state, created_ms, changed_ms, closed_ms, text_bytes,"
         " requester_key, priority_key, device_key, name, description, priority,"
         " requester, language, user_email, user_domain, user_login, device_guid,"
         " agent, console_user)"
         " VALUES (:state, :created_ms, :changed_ms, 0, :text_bytes,"
         " :requester_key, :priority_key, :device_key, :name, :description, :priority,"
         " :requester, :language, :user_email, :user_domain, :user_login,"
         " :device_guid, :agent, :console_user)"
         " RETURNING id",
      use(state, "state"), use(nowMs, "created_ms"), use(nowMs, "changed_ms"),
      use(bytes, "text_bytes"), use(requesterKey, "requester_key"),
      use(priorityKey, "priority_key"), use(deviceKey, "device_key"), use(task.name, "name"),
      use(task.description, "description"), use(task.priority, "priority"),
      use(task.requester, "requester"), use(task.language, "language"),
      use(task.userEmail, "user_email"), use(task.userDomain, "user_domain"),
      use(task.userLogin, "user_login"), use(task.deviceGuid, "device_guid"),
      use(task.agent, "agent"), use(task.consoleUser, "console_user"), soci::into(id);

  // PostgreSQL's column ends there by itself, SQLite counts with 64 bits.
  if (id < 1 || id > std::numeric_limits<int32_t>::max()) {
    throw StoreError("there are no identifiers left for another task");
  }
  const auto taskId = static_cast<int32_t>(id);
  if (!task.note.empty()) InsertNoteRow(connection->Sql(), taskId, note);
  return taskId;
}

std::optional<Task> LockTask(StoreConnection* connection, int32_t id) {
  TaskRow row;
  soci::statement statement(connection->Sql());
  row.Receive(&statement);
  statement.exchange(soci::use(id, "id"));
  statement.alloc();
  statement.prepare(std::string("SELECT ") + kTaskColumns + " FROM tasks WHERE id = :id" +
                        connection->SqlDialect().lockRow,
                    soci::details::st_one_time_query);
  statement.define_and_bind();
  if (!statement.execute(true)) return std::nullopt;
  return row.Take();
}

void CloseTask(StoreConnection* connection, int32_t id, int64_t nowMs) {
  const std::string state = TaskStateText(TaskState::kClosed);
  connection->Sql() << "UPDATE tasks SET state = :state, changed_ms = :changed_ms,"
                       " closed_ms = :closed_ms WHERE id = :id",
      soci::use(state, "state"), soci::use(nowMs, "changed_ms"), soci::use(nowMs, "closed_ms"),
      soci::use(id, "id");
}

void InsertNote(StoreConnection* connection, int32_t id, const TaskNote& note) {
  InsertNoteRow(connection->Sql(), id, note);
  const int64_t bytes = TextBytes(note);
  connection->Sql() << "UPDATE tasks SET changed_ms = :changed_ms,"
                       " text_bytes = text_bytes + :text_bytes WHERE id = :id",
      soci::use(note.createdMs, "changed_ms"), soci::use(bytes, "text_bytes"), soci::use(id, "id");
}

void TryChanges(StoreConnection* connection) {
  soci::session& sql = connection->Sql();
  // No row has this identifier, but the right to do so is asked for.
  sql << "INSERT INTO notes (task_id, created_ms, text_bytes, author, text)"
         " SELECT task_id, created_ms, text_bytes, author, text FROM notes WHERE task_id = 0";
  sql << "INSERT INTO tasks (state, created_ms, changed_ms, closed_ms, text_bytes, requester_key,"
         " priority_key, device_key, name, description, priority, requester, language, user_email,"
         " user_domain, user_login, device_guid, agent, console_user)"
         " SELECT state, created_ms, changed_ms, closed_ms, text_bytes, requester_key,"
         " priority_key, device_key, name, description, priority, requester, language, user_email,"
         " user_domain, user_login, device_guid, agent, console_user FROM tasks WHERE id = 0";
  sql << "UPDATE tasks SET changed_ms = changed_ms WHERE id = 0";
  // This one goes to the disk.
  sql << "UPDATE schema_version SET version = version";
}
