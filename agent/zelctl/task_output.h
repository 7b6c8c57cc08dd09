#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "libZel/container.h"

// Helpdesk tasks as CoreUtilsTaskGetList tells them, for people. Their texts are those of other
// people: nothing of them acts on the terminal, or passes for something that zelctl says.

struct TaskNoteRow {
  std::string author;
  int64_t createdMs = 0;
  std::string text;
};

/// Times are milliseconds since 1970-01-01 00:00 UTC.
struct TaskRow {
  int32_t id = 0;
  std::string name;
  std::string description;
  std::string status;
  std::string priority;
  std::string requester;
  std::string language;
  std::string userEmail;
  std::string userDomain;
  std::string userLogin;
  std::string agent;
  std::string consoleUser;
  int64_t createdMs = 0;
  int64_t changedMs = 0;
  int64_t closedMs = 0;  ///< 0: not closed
  std::vector<TaskNoteRow> notes;
};

/// The rows of the answer, in its order.
std::vector<TaskRow> ReadTaskRows(const ZelContainer& listing);

/// A table with a line for each task; empty without rows. Priorities and requesters are shortened.
std::string FormatTasks(const std::vector<TaskRow>& rows);
/// Each task with all that is known of it, a blank line between two.
std::string FormatTasksInFull(const std::vector<TaskRow>& rows);
