#include "agent/task_database/task.h"

const char* TaskStateText(TaskState state) {
  return state == TaskState::kOpen ? "open" : "closed";
}
