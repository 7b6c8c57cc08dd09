#include "agent/task_database/store_list.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "agent/task_database/store_rows.h"
#include "agent/task_database/store_tasks.h"
#include "agent/task_database/store_text.h"

namespace {

/// A text that tasks are looked for by.
struct Criterion {
  const char* column;
  const char* keyColumn;
  std::string TaskFilter::*text;
};

constexpr Criterion kCriteria[] = {
    {"requester", "requester_key", &TaskFilter::requester},
    {"priority", "priority_key", &TaskFilter::priority},
    {"device_guid", "device_key", &TaskFilter::deviceGuid},
};

bool IsState(const std::string& text) {
  return text == TaskStateText(TaskState::kOpen) || text == TaskStateText(TaskState::kClosed);
}

bool HasCriterion(const TaskFilter& filter) {
  return std::any_of(std::begin(kCriteria), std::end(kCriteria),
                     [&filter](const Criterion& one) { return !(filter.*one.text).empty(); });
}

/// Of one state, as all indexes order by it before they order by the identifier.
std::string QueryOfState(const TaskFilter& filter, const std::string& columns,
                         const std::string& state) {
  std::string query = "SELECT " + columns + " FROM tasks WHERE state = '" + state + "'";
  for (const Criterion& one : kCriteria) {
    if ((filter.*one.text).empty()) continue;
    query += std::string(" AND ") + one.keyColumn + " = :" + one.keyColumn;
    query += std::string(" AND ") + one.column + " = :" + one.column;
  }
  return query;
}

/// The values that ListQuery leaves open.
class ListValues {
 public:
  explicit ListValues(const TaskFilter& filter) : filter_(filter) {
    std::transform(std::begin(kCriteria), std::end(kCriteria), keys_,
                   [&filter](const Criterion& one) { return TextKey(filter.*one.text); });
  }

  void Give(soci::statement* statement) const {
    for (size_t at = 0; at < std::size(kCriteria); ++at) {
      const Criterion& one = kCriteria[at];
      if ((filter_.*one.text).empty()) continue;
      statement->exchange(soci::use(keys_[at], one.keyColumn));
      statement->exchange(soci::use(filter_.*one.text, one.column));
    }
  }

 private:
  const TaskFilter& filter_;
  int32_t keys_[std::size(kCriteria)] = {};
};

void Execute(soci::statement* statement, const std::string& query) {
  statement->alloc();
  statement->prepare(query, soci::details::st_one_time_query);
  statement->define_and_bind();
  statement->execute();
}

struct Bounded {
  int64_t tasks = 0;
  bool isFirstTooLong = false;  ///< it is then the only one
};

/// How many tasks of the list are within the bounds, by what is known of their texts' length.
Bounded CountWithin(StoreConnection* connection, const TaskFilter& filter,
                    const TaskListBounds& bounds) {
  const ListValues values(filter);
  int64_t textBytes = 0;
  soci::statement statement(connection->Sql());
  statement.exchange(soci::into(textBytes));
  values.Give(&statement);
  const int64_t bound = bounds.tasks;
  statement.exchange(soci::use(bound, "bound"));
  Execute(&statement, ListQuery(filter, "text_bytes, id", connection->SqlDialect()));

  Bounded counted;
  size_t total = 0;
  while (statement.fetch()) {
    total += static_cast<size_t>(textBytes);
    if (total > bounds.textBytes && counted.tasks > 0) break;
    ++counted.tasks;
    if (total > bounds.textBytes) {
      counted.isFirstTooLong = true;
      break;
    }
  }
  return counted;
}

std::vector<Task> ReadTasks(StoreConnection* connection, const TaskFilter& filter, int64_t count) {
  const ListValues values(filter);
  TaskRow row;
  soci::statement statement(connection->Sql());
  row.Receive(&statement);
  values.Give(&statement);
  statement.exchange(soci::use(count, "bound"));
  Execute(&statement, ListQuery(filter, kTaskColumns, connection->SqlDialect()));

  std::vector<Task> tasks;
  while (statement.fetch()) tasks.push_back(row.Take());
  return tasks;
}

/// Runs a query for the columns task_id, author, created_ms and text.
void ReadNotes(StoreConnection* connection, const std::string& query, std::vector<Task>* tasks) {
  std::unordered_map<int32_t, Task*> byId;
  for (Task& task : *tasks) byId[task.id] = &task;

  int32_t taskId = 0;
  TaskNote note;
  soci::statement statement(connection->Sql());
  statement.exchange(soci::into(taskId));
  statement.exchange(soci::into(note.author));
  statement.exchange(soci::into(note.createdMs));
  statement.exchange(soci::into(note.text));
  Execute(&statement, query);
  while (statement.fetch()) byId.at(taskId)->notes.push_back(std::exchange(note, TaskNote()));
}

std::string NotesOf(const std::vector<Task>& tasks) {
  std::string query = "SELECT task_id, author, created_ms, text FROM notes WHERE task_id IN (";
  for (const Task& task : tasks) query += std::to_string(task.id) + ",";
  query.back() = ')';
  return query + " ORDER BY task_id, id";
}

/// The newest notes of one task that are within the bound together.
std::string NewestNotesOf(const Task& task, size_t textBytes) {
  return "SELECT task_id, author, created_ms, text FROM notes WHERE id IN ("
         "SELECT id FROM (SELECT id, SUM(text_bytes) OVER (ORDER BY id DESC) AS total"
         " FROM notes WHERE task_id = " +
         std::to_string(task.id) + ") AS sums WHERE total <= " + std::to_string(textBytes) +
         ") ORDER BY id";
}

}  // namespace

std::string ListQuery(const TaskFilter& filter, const std::string& columns,
                      const Dialect& dialect) {
  const std::string bound = " LIMIT :bound";
  if (filter.state.empty() && !HasCriterion(filter)) {
    return "SELECT " + columns + " FROM tasks ORDER BY id DESC" + bound;
  }

  const std::string end = std::string(" ORDER BY ") + dialect.listOrder + bound;
  if (!filter.state.empty()) return QueryOfState(filter, columns, filter.state) + end;

  // Each half comes from the index in the right order.
  const auto half = [&](TaskState state) {
    const std::string query = QueryOfState(filter, columns, TaskStateText(state));
    return dialect.mergesUnions ? query : "(" + query + end + ")";
  };
  return "SELECT " + columns + " FROM (" + half(TaskState::kOpen) + " UNION ALL " +
         half(TaskState::kClosed) + ") AS listed" + end;
}

std::vector<Task> ListTasks(StoreConnection* connection, const TaskFilter& filter,
                            const TaskListBounds& bounds) {
  if (!filter.state.empty() && !IsState(filter.state)) return {};
  const Bounded bounded = CountWithin(connection, filter, bounds);
  if (bounded.tasks == 0) return {};

  std::vector<Task> tasks = ReadTasks(connection, filter, bounded.tasks);
  if (tasks.empty()) return tasks;
  if (!bounded.isFirstTooLong) {
    ReadNotes(connection, NotesOf(tasks), &tasks);
    return tasks;
  }
  const size_t own = static_cast<size_t>(TextBytes(tasks.front()));
  const size_t left = bounds.textBytes - std::min(own, bounds.textBytes);
  ReadNotes(connection, NewestNotesOf(tasks.front(), left), &tasks);
  return tasks;
}
