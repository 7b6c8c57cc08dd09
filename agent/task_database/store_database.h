#pragma once

#include <memory>

#include "agent/task_database/store_pool.h"

extern const Dialect kSqliteDialect;
extern const Dialect kPostgresDialect;
/// Statements that leave PostgreSQL's planner, within one transaction, the indexes that are made
/// for the queries. It would else, before it has statistics of a table that grew, collect and sort
/// all tasks that match instead of reading the newest of them.
extern const char* const kPostgresPlanning;

/// The connections to one database.
class StoreDatabase {
 public:
  virtual ~StoreDatabase() = default;
  virtual ConnectionPool& Readers() = 0;
  virtual ConnectionPool& Writers() = 0;
  /// Whether changes wait for each other anyway, whatever they change.
  virtual bool HasOneWriter() const = 0;
};

/// Make no connection yet.
std::unique_ptr<StoreDatabase> MakeSqliteDatabase(const TaskStoreOptions& options);
/// Throws StoreError when the options are no connection string.
std::unique_ptr<StoreDatabase> MakePostgresDatabase(const TaskStoreOptions& options);

/// Whether TaskStoreOptions::database means PostgreSQL.
bool IsPostgres(const std::string& database);
