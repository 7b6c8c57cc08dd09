#pragma once

#include "agent/task_database/task.h"
#include "libZel.h"

/// A task with its notes as a row of a list, see `TrnDbTaskGetList`. Its texts are moved.
ZelContainer RowOf(Task&& task);
