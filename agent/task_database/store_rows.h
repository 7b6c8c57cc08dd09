#pragma once

#include <soci/soci.h>

#include "agent/task_database/task.h"

/// The columns of `tasks` that TaskRow takes.
extern const char* const kTaskColumns;

/// Receives rows of kTaskColumns.
class TaskRow {
 public:
  /// Has the statement put its rows here, one after the other.
  void Receive(soci::statement* statement);
  /// The row that was received; its texts are moved out.
  Task Take();

 private:
  Task task_;
  std::string state_;
};
