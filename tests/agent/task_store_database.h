#pragma once

#include <soci/soci.h>

#include <memory>
#include <string>

#include "agent/task_database/store_connection.h"

/// An empty database for one test. The tests of the store are built into one program for each kind
/// of database, which says what Make() makes.
class TestDatabase {
 public:
  static std::unique_ptr<TestDatabase> Make();

  virtual ~TestDatabase() = default;
  virtual TaskStoreOptions Options() const = 0;
  /// Another connection to it.
  virtual std::unique_ptr<soci::session> Connect() const = 0;
  virtual const Dialect& SqlDialect() const = 0;
  /// How the database would run the query of a list, in its own words.
  virtual std::string Explain(const std::string& query) const = 0;
  /// Has the next task be given the highest identifier.
  virtual void UseUpIdentifiers() const = 0;
};
