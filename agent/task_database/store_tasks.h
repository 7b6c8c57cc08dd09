#pragma once

#include <optional>

#include "agent/task_database/store_connection.h"

// What is done to tasks within a transaction. All throw soci::soci_error or StoreError.

/// The length of the task's texts, without those of its notes.
int64_t TextBytes(const NewTask& task);

int32_t InsertTask(StoreConnection* connection, const NewTask& task, int64_t nowMs);

/// A task without its notes, which nobody else changes until the transaction's end.
std::optional<Task> LockTask(StoreConnection* connection, int32_t id);

void CloseTask(StoreConnection* connection, int32_t id, int64_t nowMs);
void InsertNote(StoreConnection* connection, int32_t id, const TaskNote& note);

/// Writes something that means nothing, so that what would fail fails.
void TryChanges(StoreConnection* connection);
