#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "tests/agent/temporary_directory.h"

/// A PostgreSQL server of the test program's own, on a socket in a directory of its own. It ends
/// with the program, however that ends. As the server refuses to run as root, root has it run as
/// the user "postgres".
class PostgresServer {
 public:
  /// The one of this program, started when it is first asked for. Throws std::runtime_error.
  static PostgresServer& Get();
  /// Ends it, if there is one.
  static void End();

  ~PostgresServer();
  PostgresServer(const PostgresServer&) = delete;
  PostgresServer& operator=(const PostgresServer&) = delete;

  /// Waits until it can be connected to. Throws std::runtime_error.
  void Start();
  /// Ends it without any good-bye, as a crash would, and waits for that.
  void Kill();

  std::string ConnectString(const std::string& database) const;
  /// Makes an empty database and returns how to connect to it.
  std::string MakeDatabase(const std::string& encoding = "UTF8");
  /// Runs one statement. Throws std::runtime_error.
  void Execute(const std::string& database, const std::string& statement) const;

 private:
  PostgresServer();
  pid_t Launch(const std::string& program, const std::vector<std::string>& arguments) const;

  TemporaryDirectory directory_;
  pid_t process_ = 0;
  int databases_ = 0;
};
