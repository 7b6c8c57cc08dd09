#pragma once

#include <vector>

#include "agent/task_database/store_connection.h"

/// The statements that lead from one version to the next; @WORDS@ stand for what the dialect has.
using Migration = std::vector<const char*>;

/// From no schema to that of this program. What was released is never changed: add another step
/// instead.
const std::vector<Migration>& Migrations();

/// Brings the database's schema up to date, each step in a transaction of its own. Several
/// processes may do so at once. Throws soci::soci_error, with the steps before the one that failed
/// done; StoreError, before anything was touched, when the schema is newer than the last step.
void UpdateSchema(StoreConnection* connection, Deadline deadline,
                  const std::vector<Migration>& steps = Migrations());

/// Throws StoreError when the schema is newer than this program's; touches nothing.
void RequireKnownSchema(StoreConnection* connection);
