#pragma once

#include <string>
#include <string_view>

#include "agent/libZelCore/calling_user.h"
#include "agent/task_database/task.h"

// docs/decisions/0021 says why the rules are these.

/// Whether `caller` may close the task or add a note to it, in the name of `requester`: an
/// administrator, or whoever the task was opened for.
bool MayChangeTask(const Task& task, std::string_view requester, const CallingUser& caller);

/// Who has written a note: `requester`; when that is empty the console user who calls, or the
/// agent where there is none.
std::string NoteAuthor(const std::string& requester, const CallingUser& caller);
