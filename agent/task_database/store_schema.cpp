#include "agent/task_database/store_schema.h"

#include <string>
#include <string_view>
#include <vector>

namespace {

// The *_key columns are TextKey() of the texts beside them. Every combination of what a list can be
// narrowed down to has its index, which ends with the order that lists have: however rare or common
// the combination is, as many entries are read as tasks are listed.
const std::vector<Migration> kMigrations = {
    {
        "CREATE TABLE tasks ("
        " id @SMALL_IDENTITY@,"
        " state TEXT NOT NULL,"
        " created_ms BIGINT NOT NULL,"
        " changed_ms BIGINT NOT NULL,"
        " closed_ms BIGINT NOT NULL,"
        " text_bytes BIGINT NOT NULL,"  // of all texts of the task and its notes
        " requester_key INTEGER NOT NULL,"
        " priority_key INTEGER NOT NULL,"
        " device_key INTEGER NOT NULL,"
        " name TEXT NOT NULL,"
        " priority TEXT NOT NULL,"
        " requester TEXT NOT NULL,"
        " language TEXT NOT NULL,"
        " user_email TEXT NOT NULL,"
        " user_domain TEXT NOT NULL,"
        " user_login TEXT NOT NULL,"
        " device_guid TEXT NOT NULL,"
        " agent TEXT NOT NULL,"
        " console_user TEXT NOT NULL,"
        " description TEXT NOT NULL)",

        "CREATE TABLE notes ("
        " id @BIG_IDENTITY@,"
        " task_id INTEGER NOT NULL REFERENCES tasks (id) ON DELETE CASCADE,"
        " created_ms BIGINT NOT NULL,"
        " text_bytes BIGINT NOT NULL,"
        " author TEXT NOT NULL,"
        " text TEXT NOT NULL)",

        "CREATE INDEX notes_by_task ON notes (task_id, id)",

        "CREATE INDEX tasks_by_state ON tasks (state, @LIST_KEY@)",
        "CREATE INDEX tasks_by_requester ON tasks (requester_key, state, @LIST_KEY@)",
        "CREATE INDEX tasks_by_priority ON tasks (priority_key, state, @LIST_KEY@)",
        "CREATE INDEX tasks_by_device ON tasks (device_key, state, @LIST_KEY@)",
        "CREATE INDEX tasks_by_requester_priority"
        " ON tasks (requester_key, priority_key, state, @LIST_KEY@)",
        "CREATE INDEX tasks_by_requester_device"
        " ON tasks (requester_key, device_key, state, @LIST_KEY@)",
        "CREATE INDEX tasks_by_priority_device"
        " ON tasks (priority_key, device_key, state, @LIST_KEY@)",
        "CREATE INDEX tasks_by_requester_priority_device"
        " ON tasks (requester_key, priority_key, device_key, state, @LIST_KEY@)",
    },
};

std::string InDialect(std::string statement, const Dialect& dialect) {
  const auto replace = [&statement](std::string_view word, const char* by) {
    const size_t at = statement.find(word);
    if (at != std::string::npos) statement.replace(at, word.size(), by);
  };
  replace("@SMALL_IDENTITY@", dialect.smallIdentity);
  replace("@BIG_IDENTITY@", dialect.bigIdentity);
  replace("@LIST_KEY@", dialect.listKey);
  return statement;
}

/// 0 where there is none yet.
int ReadVersion(StoreConnection* connection) {
  int tables = 0;
  connection->Sql() << connection->SqlDialect().countVersionTable, soci::into(tables);
  if (tables == 0) return 0;

  int version = 0;
  connection->Sql() << "SELECT COALESCE(MAX(version), 0) FROM schema_version", soci::into(version);
  return version;
}

void RequireKnown(int version, int lastVersion) {
  if (version <= lastVersion) return;
  throw StoreError("the database has the schema version " + std::to_string(version) +
                   ", this program knows version " + std::to_string(lastVersion));
}

int LastVersion(const std::vector<Migration>& steps) {
  return static_cast<int>(steps.size());
}

/// Makes the next step; false when there is none left.
bool Migrate(StoreConnection* connection, Deadline deadline, const std::vector<Migration>& steps) {
  soci::session& sql = connection->Sql();
  const Dialect& dialect = connection->SqlDialect();
  connection->BeginWriting(deadline);
  if (dialect.lockSchema[0] != '\0') sql << dialect.lockSchema;

  // Another process may have been here while this one waited for the lock.
  const int version = ReadVersion(connection);
  RequireKnown(version, LastVersion(steps));
  if (version == LastVersion(steps)) {
    connection->Commit();
    return false;
  }

  if (version == 0) {
    sql << "CREATE TABLE schema_version (version INTEGER NOT NULL)";
    sql << "INSERT INTO schema_version (version) VALUES (0)";
  }
  for (const char* statement : steps[static_cast<size_t>(version)]) {
    sql << InDialect(statement, dialect);
  }
  const int next = version + 1;
  sql << "UPDATE schema_version SET version = :version", soci::use(next, "version");
  connection->Commit();
  return next < LastVersion(steps);
}

}  // namespace

const std::vector<Migration>& Migrations() {
  return kMigrations;
}

void RequireKnownSchema(StoreConnection* connection) {
  RequireKnown(ReadVersion(connection), LastVersion(Migrations()));
}

void UpdateSchema(StoreConnection* connection, Deadline deadline,
                  const std::vector<Migration>& steps) {
  const int version = ReadVersion(connection);
  RequireKnown(version, LastVersion(steps));
  if (version == LastVersion(steps)) return;
  while (Migrate(connection, deadline, steps)) {
  }
}
