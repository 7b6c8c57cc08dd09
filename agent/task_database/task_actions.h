#pragma once

#include <cstdint>
#include <memory>
#include <utility>

#include "agent/task_database/task_store.h"
#include "libZelCore.h"

// The actions of the master's task database, as agents invoke them on behalf of their users.
//
// What they share
//
// - The parameters are cleared. `UserPass`, which some callers send along, is removed before
//   anything else and neither kept nor logged nor answered. `HttpProtocolRequestInfo` is not read:
//   who asks is what the connection proves and the asking agent vouches for (calling_user.h).
// - The code is 0 whenever the master did its work, "no" included: `Result` (Bool) is then false
//   and `Error` (text) says in one sentence what was wrong. It is 1, with `Result` false and
//   `Error`, when the database failed; the master's log holds an error line then.
// - Texts are refused, with the name of their parameter, when they hold a NUL character, are not
//   valid Unicode, or are longer than 1 MiB (`_DB_ATTR_DESCRIPTION_`, `_DB_ATTR_NOTES_`) or 4 KiB
//   (all others), counted in bytes of UTF-8. What is accepted comes back byte for byte. The names
//   of the asking agent and of its user are held to the same rule.
// - An absent parameter counts as empty (text), 0 (number), or false (flag). One of another type,
//   or a list, is refused. Over the network the agent's protocol refuses most of those already.
// - Times are milliseconds since 1970-01-01 00:00 UTC by the master's clock.
//
// Threads: any number of these actions may run at once.

/// What the actions work with.
struct TaskService {
  TaskService(TaskStoreOptions options, uint32_t maxListed, bool showsOwnDeviceOnly)
      : store(std::move(options)), maxListed(maxListed), showsOwnDeviceOnly(showsOwnDeviceOnly) {}

  TaskStore store;
  const uint32_t maxListed;       ///< tasks in one list
  const bool showsOwnDeviceOnly;  ///< `[master] visibility = device`
};

/// What the actions work with from now on; null: they fail with code 1. Actions that run keep what
/// they began with.
void SetTaskService(std::shared_ptr<TaskService> service);
std::shared_ptr<TaskService> CurrentTaskService();

/// Opens a task.
///
/// | parameter                | type   |                                                         |
/// |--------------------------|--------|---------------------------------------------------------|
/// | `ObjectName`             | text   | the task's name; neither empty nor blank                |
/// | `_DB_ATTR_DESCRIPTION_`  | text   |                                                         |
/// | `_DB_ATTR_PRIORITY_`     | text   | any word of the fleet's                                 |
/// | `_DB_ATTR_REQUESTEDBY_`  | text   | for whom it is opened                                   |
/// | `_DB_ATTR_NOTES_`        | text   | its first note; none when empty                         |
/// | `Language`               | text   |                                                         |
/// | `UserEmail`              | text   |                                                         |
/// | `UserDomain`             | text   |                                                         |
/// | `UserLogin`              | text   |                                                         |
/// | `UserPass`               | any    | removed                                                 |
/// | `GUID`                   | text   | the identity of the device; empty when not known        |
///
/// Answers `Result`, and `ObjectId` (Int32, from 1 on) when it is true.
uint32_t TrnDbCreateTask(ZelContainer* parameters);

/// Closes the task `ObjectId` (Int32) for `_DB_ATTR_REQUESTEDBY_` (text), where that one may
/// (task_rules.h). Answers `Result`; false for a task that is closed already.
uint32_t TrnDbCloseTask(ZelContainer* parameters);

/// Adds the note `_DB_ATTR_NOTES_` (text, not empty) to the open task `ObjectId` (Int32) for
/// `_DB_ATTR_REQUESTEDBY_` (text), where that one may (task_rules.h). The note's author is
/// `_DB_ATTR_REQUESTEDBY_`; when that is empty the console user, or the agent where there is none.
/// Answers `Result`.
uint32_t TrnDbTaskAddNote(ZelContainer* parameters);

/// Lists tasks, the newest first: those whose requester, state ("open", "closed") and priority are
/// exactly `_DB_ATTR_REQUESTEDBY_`, `_DB_ATTR_STATUS_` and `_DB_ATTR_PRIORITY_` (texts; an empty
/// one leaves all). At most `[master] max_listed` tasks and 8 MiB of text; the first task is always
/// there, with as many of its newest notes as fit. Under `[master] visibility = device` a request
/// gets, unless it comes from an administrator, only the tasks of the device `GUID` (none when that
/// is empty). Devices send the flag `FromHCHL` along, which changes nothing.
///
/// Answers `Values`, a list of containers, absent when there are none; nothing else on success.
///
/// | key                                                             | type                   |
/// |-----------------------------------------------------------------|------------------------|
/// | `ObjectId`                                                      | Int32                  |
/// | `GUID`, `_DB_ATTR_NAME_`, `_DB_ATTR_DESCRIPTION_`               | text                   |
/// | `_DB_ATTR_STATUS_`                                              | text: "open", "closed" |
/// | `_DB_ATTR_PRIORITY_`, `_DB_ATTR_REQUESTEDBY_`                   | text                   |
/// | `Language`, `UserEmail`, `UserDomain`, `UserLogin`              | text                   |
/// | `Agent`: the agent that asked for it                            | text                   |
/// | `ConsoleUser`: who called that agent; empty: nobody but itself  | text                   |
/// | `CreatedTime`, `ChangedTime`                                    | Int64                  |
/// | `ClosedTime`: only when closed                                  | Int64                  |
/// | `_DB_ATTR_NOTES_`: absent when there are none, the oldest first | list of containers     |
///
/// A note has `Author` (text), `CreatedTime` (Int64) and `Text` (text).
uint32_t TrnDbTaskGetList(ZelContainer* parameters);

/// Answers `Result`: whether tasks can be kept, that is, the database can be read and written; when
/// it cannot, `Error` says why and the code is 0 all the same. Looks at no parameter.
uint32_t TrnDbTaskCheckRequirements(ZelContainer* parameters);
