#include <libpq-fe.h>
#include <poll.h>
#include <soci/postgresql/soci-postgresql.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>
#include <utility>

#include "agent/task_database/store_database.h"
#include "agent/task_database/store_schema.h"
#include "agent/task_database/store_text.h"
#include "agent/task_database/store_watchdog.h"

const Dialect kPostgresDialect = {
    .smallIdentity = "INTEGER GENERATED ALWAYS AS IDENTITY PRIMARY KEY",
    .bigIdentity = "BIGINT GENERATED ALWAYS AS IDENTITY PRIMARY KEY",
    .countVersionTable = "SELECT COUNT(*) FROM pg_class WHERE oid = to_regclass('schema_version')",
    // The number stands for this schema and means nothing else.
    .lockSchema = "SELECT pg_advisory_xact_lock(7460110500)",
    .lockRow = " FOR UPDATE",
    .listKey = "(-id)",
    .listOrder = "(-id)",
    .mergesUnions = false,
};

const char* const kPostgresPlanning =
    "SET LOCAL enable_bitmapscan = off; SET LOCAL enable_seqscan = off; SET LOCAL jit = off";

namespace {

/// The parameters of a connection, by libpq's names.
using Parameters = std::map<std::string, std::string>;

/// Throws StoreError. Neither the string nor what libpq says of it is told, as they may hold the
/// password.
Parameters ParseParameters(const std::string& text) {
  Parameters parameters;
  const std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)> options(
      PQconninfoParse(text.c_str(), nullptr), &PQconninfoFree);
  for (const PQconninfoOption* option = options.get(); option && option->keyword; ++option) {
    if (option->val != nullptr) parameters[option->keyword] = option->val;
  }
  if (!parameters.empty()) return parameters;
  throw StoreError(
      "the connection string of the database is not well formed (a file is named by its full "
      "path)");
}

std::string ConnectString(const Parameters& parameters) {
  std::string text;
  for (const auto& [name, value] : parameters) {
    text += name + "='";
    for (const char letter : value) {
      if (letter == '\'' || letter == '\\') text += '\\';
      text += letter;
    }
    text += "' ";
  }
  return text;
}

/// The parameters with those that the store relies on, and bounds where none were given.
Parameters Completed(Parameters parameters, uint32_t timeoutMs) {
  parameters["client_encoding"] = "UTF8";
  parameters.try_emplace("fallback_application_name", "zelagent");
  parameters.try_emplace("tcp_user_timeout", std::to_string(timeoutMs));
  parameters.try_emplace("keepalives_idle", "30");  // in seconds, as the next
  parameters.try_emplace("keepalives_interval", "10");
  parameters.try_emplace("keepalives_count", "3");
  return parameters;
}

Parameters WithTimeout(Parameters parameters, Deadline deadline) {
  // In seconds, libpq takes 1 for 2.
  const int64_t seconds = std::max<int64_t>(Remaining(deadline).count() / 1000, 2);
  parameters.try_emplace("connect_timeout", std::to_string(seconds));
  return parameters;
}

class PostgresConnection : public StoreConnection {
 public:
  PostgresConnection(StoreWatchdog* watchdog, const Parameters& parameters, Deadline deadline)
      : watchdog_(watchdog) {
    try {
      Open(ConnectString(WithTimeout(parameters, deadline)), deadline);
    } catch (const soci::soci_error& error) {
      throw Explain(error);
    }
  }

  const Dialect& SqlDialect() const override { return kPostgresDialect; }

  /// A server that ends a connection says so: nothing else is to come while nothing was asked.
  bool IsAlive() override {
    if (PQstatus(Handle()) != CONNECTION_OK) return false;
    pollfd socket = {.fd = PQsocket(Handle()), .events = POLLIN, .revents = 0};
    return poll(&socket, 1, 0) == 0;
  }

  void BeginReading(Deadline deadline) override {
    Begin(std::string("BEGIN ISOLATION LEVEL REPEATABLE READ READ ONLY; ") + kPostgresPlanning,
          deadline);
  }
  void BeginWriting(Deadline deadline) override {
    Begin("BEGIN ISOLATION LEVEL READ COMMITTED READ WRITE", deadline);
  }

  void Commit() override {
    try {
      sql_ << "COMMIT";
      watch_.reset();
    } catch (const soci::soci_error& error) {
      if (PQstatus(Handle()) == CONNECTION_OK) throw;
      throw StoreError(
          "it is not known whether the change was made, the connection to PostgreSQL "
          "broke meanwhile: " +
          Reason(error));
    }
  }

  StoreError Explain(const soci::soci_error& error) const override {
    return StoreError("PostgreSQL: " + Reason(error));
  }

 private:
  PGconn* Handle() {
    return static_cast<soci::postgresql_session_backend*>(sql_.get_backend())->conn_;
  }

  std::string Reason(const soci::soci_error& error) const {
    const bool isOver = watch_ && watch_->IsOver();
    return isOver ? "the server did not answer in time" : OneLine(error.get_error_message());
  }

  void Open(const std::string& connectString, Deadline deadline) {
    sql_.open(soci::postgresql, connectString);
    // The details of an error hold the texts of the task.
    PQsetErrorVerbosity(Handle(), PQERRORS_TERSE);
    watch_.emplace(watchdog_, PQsocket(Handle()), deadline);
    sql_ << TimeOuts("SET", deadline);
    const char* encoding = PQparameterStatus(Handle(), "server_encoding");
    if (encoding == nullptr || std::string_view(encoding) != "UTF8") {
      throw StoreError(std::string("the database must have the encoding UTF8, not ") +
                       (encoding ? encoding : "an unknown one"));
    }
    UpdateSchema(this, deadline);
    // Transactions set their own.
    sql_ << "RESET statement_timeout; RESET lock_timeout";
    watch_.reset();
  }

  /// Those of the server, for each statement.
  static std::string TimeOuts(const std::string& set, Deadline deadline) {
    const std::string milliseconds = std::to_string(Remaining(deadline).count());
    return set + " statement_timeout = " + milliseconds + "; " + set +
           " lock_timeout = " + milliseconds;
  }

  /// All in one message, which the server answers when it has done all.
  void Begin(const std::string& begin, Deadline deadline) {
    watch_.emplace(watchdog_, PQsocket(Handle()), deadline);
    sql_ << begin + "; " + TimeOuts("SET LOCAL", deadline);
  }

  StoreWatchdog* const watchdog_;
  /// From the begin of a transaction to its end, or that of the connection.
  std::optional<StoreWatchdog::Watch> watch_;
};

class PostgresDatabase : public StoreDatabase {
 public:
  explicit PostgresDatabase(const TaskStoreOptions& options)
      : parameters_(Completed(ParseParameters(options.database), options.timeoutMs)),
        connections_(options.connections, [this](Deadline deadline) {
          return std::make_unique<PostgresConnection>(&watchdog_, parameters_, deadline);
        }) {}

  ConnectionPool& Readers() override { return connections_; }
  ConnectionPool& Writers() override { return connections_; }
  bool HasOneWriter() const override { return false; }

 private:
  const Parameters parameters_;
  StoreWatchdog watchdog_;
  ConnectionPool connections_;
};

}  // namespace

bool IsPostgres(const std::string& database) {
  return !database.starts_with('/');
}

std::unique_ptr<StoreDatabase> MakePostgresDatabase(const TaskStoreOptions& options) {
  return std::make_unique<PostgresDatabase>(options);
}
