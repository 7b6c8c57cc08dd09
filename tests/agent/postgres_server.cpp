#include "tests/agent/postgres_server.h"

#include <fcntl.h>
#include <grp.h>
#include <libpq-fe.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <thread>

namespace {

constexpr const char* kPrograms = "/usr/lib/postgresql/15/bin/";
constexpr const char* kUser = "postgres";

std::unique_ptr<PostgresServer>& TheServer() {
  static std::unique_ptr<PostgresServer> server;
  return server;
}

const passwd& User() {
  const passwd* user = getpwnam(kUser);
  if (user == nullptr) throw std::runtime_error("there is no user postgres");
  return *user;
}

/// In the child: all that is between the fork and the program. The signal comes last, as a change
/// of the user takes it back.
void BecomeUser(uid_t user, gid_t group, pid_t parent, int output) {
  dup2(output, STDOUT_FILENO);
  dup2(output, STDERR_FILENO);
  if (geteuid() == 0) {
    if (setgroups(0, nullptr) != 0 || setgid(group) != 0 || setuid(user) != 0) _exit(126);
  }
  prctl(PR_SET_PDEATHSIG, SIGQUIT);
  if (getppid() != parent) _exit(126);
}

}  // namespace

PostgresServer& PostgresServer::Get() {
  if (!TheServer()) TheServer().reset(new PostgresServer());
  return *TheServer();
}

void PostgresServer::End() {
  TheServer().reset();
}

PostgresServer::PostgresServer() {
  if (geteuid() == 0 && chown(directory_.Native().c_str(), User().pw_uid, User().pw_gid) != 0) {
    throw std::runtime_error("cannot give the server its directory");
  }
  const std::string data = (directory_.Native() / "data").string();
  int status = 0;
  const pid_t initialiser = Launch("initdb", {"-D", data, "-U", kUser, "-A", "trust", "-E", "UTF8",
                                              "--locale=C.UTF-8", "--no-sync"});
  if (waitpid(initialiser, &status, 0) != initialiser || status != 0) {
    throw std::runtime_error("initdb failed: " + ReadFile(directory_.Native() / "log"));
  }
  Start();
}

PostgresServer::~PostgresServer() {
  Kill();
}

void PostgresServer::Start() {
  process_ = Launch("postgres", {"-D", (directory_.Native() / "data").string(), "-k",
                                 directory_.Native().string(), "-c", "listen_addresses=", "-c",
                                 "fsync=off", "-c", "shared_buffers=16MB"});
  const std::string connectString = ConnectString("postgres");
  for (int attempt = 0; attempt < 3000; ++attempt) {
    if (PQping(connectString.c_str()) == PQPING_OK) return;
    if (waitpid(process_, nullptr, WNOHANG) != 0) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  throw std::runtime_error("the server did not start: " + ReadFile(directory_.Native() / "log"));
}

void PostgresServer::Kill() {
  if (process_ == 0) return;
  kill(process_, SIGQUIT);
  waitpid(process_, nullptr, 0);
  process_ = 0;
}

std::string PostgresServer::ConnectString(const std::string& database) const {
  return "host='" + directory_.Native().string() + "' user=" + kUser + " dbname=" + database;
}

std::string PostgresServer::MakeDatabase(const std::string& encoding) {
  const std::string name = "test" + std::to_string(++databases_);
  Execute("postgres",
          "CREATE DATABASE " + name + " TEMPLATE template0 LOCALE 'C' ENCODING '" + encoding + "'");
  return ConnectString(name);
}

void PostgresServer::Execute(const std::string& database, const std::string& statement) const {
  const std::unique_ptr<PGconn, decltype(&PQfinish)> connection(
      PQconnectdb(ConnectString(database).c_str()), &PQfinish);
  const std::unique_ptr<PGresult, decltype(&PQclear)> result(
      PQexec(connection.get(), statement.c_str()), &PQclear);
  const ExecStatusType status = PQresultStatus(result.get());
  if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
    throw std::runtime_error(PQerrorMessage(connection.get()));
  }
}

pid_t PostgresServer::Launch(const std::string& program,
                             const std::vector<std::string>& arguments) const {
  // What the child needs is prepared here: other threads' locks may be held in it for ever.
  const std::string path = kPrograms + program;
  std::vector<char*> words = {const_cast<char*>(path.c_str())};
  for (const std::string& argument : arguments)
    words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  char locale[] = "LC_ALL=C.UTF-8";
  char* environment[] = {locale, nullptr};
  const uid_t user = geteuid() == 0 ? User().pw_uid : geteuid();
  const gid_t group = geteuid() == 0 ? User().pw_gid : getegid();
  const int output =
      open((directory_.Native() / "log").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  const pid_t parent = getpid();

  const pid_t child = fork();
  if (child < 0) throw std::runtime_error("cannot start " + path);
  if (child == 0) {
    BecomeUser(user, group, parent, output);
    if (chdir("/") == 0) execve(path.c_str(), words.data(), environment);
    _exit(127);
  }
  close(output);
  return child;
}
