#pragma once

#include "agent/task_database/store_connection.h"

/// Brings the database's schema up to date, each step in a transaction of its own. Several
/// processes may do so at once. Throws soci::soci_error; StoreError, before anything was touched,
/// when the schema is newer than this program's.
void UpdateSchema(StoreConnection* connection, Deadline deadline);

/// Throws StoreError when the schema is newer than this program's; touches nothing.
void RequireKnownSchema(StoreConnection* connection);
