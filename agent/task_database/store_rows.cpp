#include "agent/task_database/store_rows.h"

#include <utility>

const char* const kTaskColumns =
    "id, state, created_ms, changed_ms, closed_ms, name, description, priority, requester, "
    "language, "
    "user_email, user_domain, user_login, device_guid, agent, console_user";

void TaskRow::Receive(soci::statement* statement) {
  const auto receive = [statement](auto& value) { statement->exchange(soci::into(value)); };
  receive(task_.id);
  receive(state_);
  receive(task_.createdMs);
  receive(task_.changedMs);
  receive(task_.closedMs);
  receive(task_.name);
  receive(task_.description);
  receive(task_.priority);
  receive(task_.requester);
  receive(task_.language);
  receive(task_.userEmail);
  receive(task_.userDomain);
  receive(task_.userLogin);
  receive(task_.deviceGuid);
  receive(task_.agent);
  receive(task_.consoleUser);
}

Task TaskRow::Take() {
  task_.state = state_ == TaskStateText(TaskState::kOpen) ? TaskState::kOpen : TaskState::kClosed;
  return std::exchange(task_, Task());
}
