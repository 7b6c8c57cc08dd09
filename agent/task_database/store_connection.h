#pragma once

#include <soci/soci.h>

#include <chrono>
#include <string>

#include "agent/task_database/task_store.h"

using Deadline = std::chrono::steady_clock::time_point;

/// What is left until then, at least 1 ms: neither database knows a time-out of zero.
std::chrono::milliseconds Remaining(Deadline deadline);

/// What the two databases say differently.
struct Dialect {
  const char* smallIdentity;      ///< the type of a 32-bit primary key that counts up
  const char* bigIdentity;        ///< the same with 64 bits
  const char* countVersionTable;  ///< a query: 1 when the table schema_version is there
  const char* lockSchema;         ///< a statement that keeps other migrations out; empty: none
  const char* lockRow;            ///< ends a query whose row will be changed
  /// The end of the indexes of lists, and their order, newest first. PostgreSQL would sometimes
  /// rather walk through all tasks by their identifier than use the index of what is looked for,
  /// and find the first one late; a negated identifier leaves it that index alone.
  const char* listKey;
  const char* listOrder;
  /// Whether a union of queries that are in order each is read in order, no further than needed;
  /// otherwise each of them needs a bound.
  bool mergesUnions;
};

/// One connection to a database, used by one thread at a time. After an exception, whichever, it
/// is closed instead of being used again; a transaction that had begun is then undone.
class StoreConnection {
 public:
  virtual ~StoreConnection() = default;

  soci::session& Sql() { return sql_; }
  virtual const Dialect& SqlDialect() const = 0;

  /// Whether it can be used, as far as can be told without asking the database.
  virtual bool IsAlive() = 0;

  /// Begin a transaction. Those that read see one state of all tables; those that write may not
  /// read before they hold the locks that they need. Throw soci::soci_error.
  virtual void BeginReading(Deadline deadline) = 0;
  virtual void BeginWriting(Deadline deadline) = 0;
  /// Throws soci::soci_error, or StoreError when it is not known whether the change was made.
  virtual void Commit() = 0;

  /// What to tell of an error of this connection.
  virtual StoreError Explain(const soci::soci_error& error) const = 0;

 protected:
  soci::session sql_;
};
