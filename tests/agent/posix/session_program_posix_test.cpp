#include "agent/libZelCore/session_program.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/platform/posix/forked_program.h"
#include "agent/libZelCore/platform/posix/session_environment.h"
#include "tests/agent/temporary_directory.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr std::chrono::seconds kPatience{20};

/// A program with an environment of its own choice, as the user "nobody" where that is possible.
class Process {
 public:
  Process(uid_t user, std::vector<std::string> environment) {
    std::vector<char*> variables;
    for (std::string& variable : environment) variables.push_back(variable.data());
    variables.push_back(nullptr);
    char name[] = "sleep";
    char time[] = "600";
    char* const arguments[] = {name, time, nullptr};
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    process_ = ::fork();
    if (process_ == 0) {
      if (::geteuid() == 0 && ::setuid(user) != 0) ::_exit(1);
      ::execve("/bin/sleep", arguments, variables.data());
      ::_exit(1);
    }
    // Closed by the new program.
    ::close(ends[1]);
    char byte;
    EXPECT_EQ(::read(ends[0], &byte, 1), 0);
    ::close(ends[0]);
  }
  ~Process() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

 private:
  pid_t process_;
};

/// Somebody else where this process may act for others.
uid_t SomeUser() {
  constexpr uid_t kNobody = 65534;
  return ::geteuid() == 0 ? kNobody : ::geteuid();
}

UserSession SessionOf(uid_t user, const char* id, const char* display) {
  UserSession session;
  session.id = id;
  session.userId = user;
  session.isGraphical = true;
  session.display = display;
  return session;
}

std::vector<std::string> EnvironmentOf(const UserSession& session) {
  Account account;
  EXPECT_TRUE(ReadAccount(session.userId, &account));
  return SessionEnvironment(account, session);
}

TEST(SessionEnvironment, TakesDesktopAndLanguageFromAProcessOfTheSession) {
  const uid_t user = SomeUser();
  const Process other(user, {"XDG_SESSION_ID=zel-test-1", "DISPLAY=:901", "LANG=fr_FR.UTF-8"});
  const Process process(user, {"XDG_SESSION_ID=zel-test-2", "DISPLAY=:902", "LANG=de_AT.UTF-8",
                               "LC_TIME=C", "XAUTHORITY=/run/a b", "LD_PRELOAD=/tmp/evil.so",
                               "PATH=/tmp/evil", "HOME=/tmp", "LC_x/y=z", "GTK_MODULES=evil"});
  const auto environment = EnvironmentOf(SessionOf(user, "zel-test-2", ":902"));

  EXPECT_THAT(environment, Contains("DISPLAY=:902"));
  EXPECT_THAT(environment, Contains("XAUTHORITY=/run/a b"));
  EXPECT_THAT(environment, Contains("LANG=de_AT.UTF-8"));
  EXPECT_THAT(environment, Contains("LC_TIME=C"));
  EXPECT_THAT(environment, Contains("XDG_SESSION_ID=zel-test-2"));
  EXPECT_THAT(environment,
              Contains("PATH=/usr/local/bin:/usr/bin:/bin:/usr/local/games:/usr/games"));
  for (const char* const evil : {"LD_", "GTK_", "LC_x"})
    EXPECT_THAT(environment, Not(Contains(StartsWith(evil))));
  EXPECT_THAT(environment, Not(Contains(HasSubstr("evil"))));
}

TEST(SessionEnvironment, FindsASessionWithoutNameByItsDisplay) {
  const uid_t user = SomeUser();
  const Process process(user, {"DISPLAY=:903", "LANG=de_AT.UTF-8"});

  EXPECT_THAT(EnvironmentOf(SessionOf(user, "tty7", ":903")), Contains("LANG=de_AT.UTF-8"));
}

TEST(SessionEnvironment, FindsADisplayThatTheSystemDoesNotTell) {
  const uid_t user = SomeUser();
  const Process compositor(user, {"XDG_SESSION_ID=zel-test-6", "WAYLAND_DISPLAY=wayland-0"});
  const Process other(user, {"XDG_SESSION_ID=zel-test-7", "DISPLAY=:906"});
  const Process remote(user, {"DISPLAY=localhost:10.0"});
  const UserSession session = SessionOf(user, "zel-test-6", "");
  EXPECT_THAT(EnvironmentOf(session), Contains("WAYLAND_DISPLAY=wayland-0"));
  EXPECT_THAT(EnvironmentOf(session), Not(Contains(StartsWith("DISPLAY="))));
  {
    const Process service(user, {"DISPLAY=:907", "XAUTHORITY=/run/cookie"});
    EXPECT_THAT(EnvironmentOf(session), Contains("DISPLAY=:907"));
    EXPECT_THAT(EnvironmentOf(session), Contains("XAUTHORITY=/run/cookie"));
    EXPECT_THAT(EnvironmentOf(session), Contains("XDG_SESSION_ID=zel-test-6"));
  }
  const Process own(user, {"XDG_SESSION_ID=zel-test-6", "DISPLAY=:908"});
  const Process later(user, {"DISPLAY=:907"});
  EXPECT_THAT(EnvironmentOf(session), Contains("DISPLAY=:908"));
}

TEST(SessionEnvironment, LeavesOutWhatIsTooLong) {
  const uid_t user = SomeUser();
  const Process process(user, {"DISPLAY=:904", "LANG=" + std::string(5000, 'x')});

  EXPECT_THAT(EnvironmentOf(SessionOf(user, "tty7", ":904")), Not(Contains(StartsWith("LANG="))));
}

/// A script, and the file that it writes.
class StartedInASession : public testing::Test {
 protected:
  StartedInASession() {
    // Programs of other users come through.
    ::chmod(directory_.Native().c_str(), 0777);
  }

  StartedProgram Start(const std::string& script, const std::vector<std::string>& options = {}) {
    const std::filesystem::path program = directory_.Native() / "program";
    WriteFile(program, "#!/bin/sh\n" + script);
    ::chmod(program.c_str(), 0755);
    return StartInSession(program, SessionOf(SomeUser(), "zel-test-5", ":905"), options);
  }
  /// What the script has written into its file, once that is there.
  std::string Result() const {
    const std::filesystem::path file = directory_.Native() / "result";
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!std::filesystem::exists(file) && std::chrono::steady_clock::now() < end)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return ReadFile(file);
  }
  std::string WriteResult(const std::string& commands) const {
    const std::string path = (directory_.Native() / "result").string();
    return "{ " + commands + "; } > " + path + ".new; mv " + path + ".new " + path + "\n";
  }

  TemporaryDirectory directory_;
};

TEST_F(StartedInASession, ProgramsAreTheUsersAndHoldNothingOfThisProcess) {
  ::setenv("ZEL_TEST_SECRET", "of the agent", 1);
  const StartedProgram started = Start(WriteResult(
      "id -u; id -ru; umask; pwd; env; echo descriptors: $(ls /proc/$$/fd | tr '\\n' ' '); "
      "readlink /proc/$$/fd/0 /proc/$$/fd/2"));
  ::unsetenv("ZEL_TEST_SECRET");
  ASSERT_TRUE(started.program) << started.error;

  const std::string user = std::to_string(SomeUser());
  const std::string result = Result();
  EXPECT_THAT(result, StartsWith(user + "\n" + user + "\n0022\n/\n"));
  EXPECT_THAT(result, Not(HasSubstr("ZEL_TEST_SECRET")));
  EXPECT_THAT(result, HasSubstr("XDG_SESSION_ID=zel-test-5\n"));
  EXPECT_THAT(result, HasSubstr("/dev/null\n/dev/null\n"));
  started.program->WaitForEnd(kPatience);
}

TEST_F(StartedInASession, ProgramsMayOpenAsManyFilesAsWhereTheAgentWasStarted) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{500, before.rlim_max};
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  KeepStateForPrograms();
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

  const StartedProgram started = Start(WriteResult("ulimit -Sn"));
  KeepStateForPrograms();
  ASSERT_TRUE(started.program) << started.error;
  EXPECT_EQ(Result(), "500\n");
  started.program->WaitForEnd(kPatience);
}

TEST_F(StartedInASession, ProgramsHaveTheUsersGroupsAlone) {
  const StartedProgram started = Start(WriteResult("id -g; id -G"));
  ASSERT_TRUE(started.program) << started.error;

  Account account;
  ASSERT_TRUE(ReadAccount(SomeUser(), &account));
  EXPECT_THAT(Result(),
              StartsWith(std::to_string(account.group) + "\n" + std::to_string(account.group)));
  started.program->WaitForEnd(kPatience);
}

TEST_F(StartedInASession, ProgramsEndWhenTheyAreAskedTo) {
  const StartedProgram started = Start("exec sleep 600\n");
  ASSERT_TRUE(started.program) << started.error;
  EXPECT_TRUE(started.program->IsRunning());
  started.program->AskToEnd();
  started.program->WaitForEnd(kPatience);
  EXPECT_FALSE(started.program->IsRunning());
}

TEST_F(StartedInASession, ProgramsThatDoNotWantToEndAreEnded) {
  const StartedProgram started =
      Start("trap '' TERM\n" + WriteResult("echo ready") + "while :; do sleep 1; done\n");
  ASSERT_TRUE(started.program) << started.error;
  EXPECT_EQ(Result(), "ready\n");
  started.program->AskToEnd();
  started.program->WaitForEnd(std::chrono::milliseconds(50));
  EXPECT_FALSE(started.program->IsRunning());
}

TEST_F(StartedInASession, ProgramsGetTheirOptions) {
  const StartedProgram started = Start(WriteResult("echo $# $1 $2"), {"--one", "--two"});
  ASSERT_TRUE(started.program) << started.error;
  EXPECT_EQ(Result(), "2 --one --two\n");
  started.program->WaitForEnd(kPatience);
}

TEST_F(StartedInASession, ProgramsWaitForItsDisplay) {
  UserSession session = SessionOf(SomeUser(), "zel-test-9", "");
  EXPECT_THAT(StartInSession("/bin/true", session).error, HasSubstr("no display yet"));
  session.isGraphical = false;
  const StartedProgram started = StartInSession("/bin/true", session);
  ASSERT_TRUE(started.program) << started.error;
  started.program->WaitForEnd(kPatience);
}

/// Holds a process's end back, as a debugger does.
class Tracer {
 public:
  explicit Tracer(pid_t traced) {
    int ends[2];
    EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    process_ = ::fork();
    if (process_ == 0) {
      const char result = ::ptrace(PTRACE_SEIZE, traced, nullptr, nullptr) == 0 ? 'y' : 'n';
      if (::write(ends[1], &result, 1) == 1) ::pause();
      ::_exit(1);
    }
    ::close(ends[1]);
    char result = 0;
    EXPECT_EQ(::read(ends[0], &result, 1), 1);
    EXPECT_EQ(result, 'y');
    ::close(ends[0]);
  }
  ~Tracer() {
    ::kill(process_, SIGKILL);
    ::waitpid(process_, nullptr, 0);
  }
  Tracer(const Tracer&) = delete;
  Tracer& operator=(const Tracer&) = delete;

 private:
  pid_t process_;
};

TEST_F(StartedInASession, ProgramsThatCannotEndAreLetGo) {
  const StartedProgram started = Start(WriteResult("echo $$") + "exec sleep 600\n");
  ASSERT_TRUE(started.program) << started.error;
  const pid_t process = std::stoi(Result());
  {
    const Tracer tracer(process);
    const auto start = std::chrono::steady_clock::now();
    started.program->WaitForEnd(std::chrono::milliseconds(0));
    EXPECT_FALSE(started.program->IsRunning());
    EXPECT_LT(std::chrono::steady_clock::now() - start, kPatience);
  }
  EXPECT_EQ(::waitpid(process, nullptr, 0), process) << "it was let go before its end";
}

TEST_F(StartedInASession, ProgramsThatEndAreNoticed) {
  const StartedProgram started = Start("exit 3\n");
  ASSERT_TRUE(started.program) << started.error;
  started.program->WaitForEnd(kPatience);
  EXPECT_FALSE(started.program->IsRunning());
}

TEST_F(StartedInASession, ProgramsThatAreNotThereAreAnError) {
  const StartedProgram started =
      StartInSession(directory_.Native() / "none", SessionOf(SomeUser(), "zel-test-5", ":905"));

  EXPECT_FALSE(started.program);
  EXPECT_THAT(started.error, HasSubstr("none: No such file"));
}

TEST(SessionsOfNobody, HaveNoProxy) {
  constexpr uint32_t kUnused = 4123456;
  const UserSession session = SessionOf(kUnused, "1", ":0");

  EXPECT_EQ(ProxyPipeOf(session), "");
  EXPECT_FALSE(HasProxyPipe(session));
  EXPECT_FALSE(IsProxyListening(session));
  EXPECT_EQ(MayStartIn(session), ::geteuid() == 0);
  EXPECT_THAT(StartInSession("/bin/true", session).error, HasSubstr("no account"));
}

}  // namespace
