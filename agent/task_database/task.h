#pragma once

#include <cstdint>
#include <string>
#include <vector>

// What the master knows of a helpdesk task. All texts are UTF-8 without NUL; all times are
// milliseconds since 1970-01-01 00:00 UTC.

/// One remark on a task.
struct TaskNote {
  std::string author = {};
  int64_t createdMs = 0;
  std::string text = {};
};

/// What a task is opened with.
struct NewTask {
  std::string name = {};
  std::string description = {};
  std::string priority = {};   ///< the fleet's own words, such as "high"
  std::string requester = {};  ///< for whom it was opened, as the caller said
  std::string language = {};
  std::string userEmail = {};
  std::string userDomain = {};
  std::string userLogin = {};
  std::string deviceGuid = {};   ///< of the device it was opened on; empty when not known
  std::string agent = {};        ///< the name of the agent that asked
  std::string consoleUser = {};  ///< who called that agent, as it vouches; empty: nobody but itself
  std::string note = {};         ///< becomes the first note, by the requester; empty: none
};

enum class TaskState { kOpen, kClosed };

/// "open" or "closed", as callers see it and the database keeps it.
const char* TaskStateText(TaskState state);

struct Task : NewTask {
  int32_t id = 0;  ///< from 1 on, never used twice
  TaskState state = TaskState::kOpen;
  int64_t createdMs = 0;
  int64_t changedMs = 0;        ///< of the last change: creation, note, closing
  int64_t closedMs = 0;         ///< 0 while open
  std::vector<TaskNote> notes;  ///< oldest first; `note` is empty in a task that was read
};

/// What a list is narrowed down to: all that is given must be equal, an empty text leaves all.
struct TaskFilter {
  std::string requester = {};
  std::string state = {};
  std::string priority = {};
  std::string deviceGuid = {};
};

/// How long a list may get.
struct TaskListBounds {
  uint32_t tasks = 200;
  size_t textBytes = 8 * 1024 * 1024;  ///< of all texts together, 64 more for each
                                       ///< note; the first task is always there
};
