#pragma once

#include <gtest/gtest.h>
#include <soci/soci.h>

#include <chrono>
#include <functional>
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

/// What went wrong.
inline std::string What(const std::function<void()>& action) {
  try {
    action();
  } catch (const StoreError& error) {
    return error.what();
  }
  return "no error";
}

/// The same; it must not have taken longer than a store with a short time-out may.
inline std::string WhatInTime(const std::function<void()>& action) {
  const auto start = std::chrono::steady_clock::now();
  const std::string what = What(action);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  return what;
}

inline bool Always(const Task&) {
  return true;
}
