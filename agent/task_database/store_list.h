#pragma once

#include <string>
#include <vector>

#include "agent/task_database/store_connection.h"

/// The newest tasks that the filter leaves, with their notes, as many as the bounds allow. Within a
/// transaction that reads. Throws soci::soci_error.
std::vector<Task> ListTasks(StoreConnection* connection, const TaskFilter& filter,
                            const TaskListBounds& bounds);

/// The query for these columns, `id` among them, of the tasks that the filter leaves, newest first,
/// with the values that it names left open.
std::string ListQuery(const TaskFilter& filter, const std::string& columns, const Dialect& dialect);
