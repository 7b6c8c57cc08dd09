#include "agent/libZelCore/session_program.h"

#include <linux/keyctl.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "agent/libZel/platform/posix/forked_program.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/system_error_text.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/platform/posix/session_environment.h"

namespace {

struct Launch {
  const char* program;
  char* const* arguments;
  char* const* environment;
  uid_t user;
  gid_t group;
  const gid_t* groups;
  size_t groupCount;
  bool changesUser;
};

/// The system's calls themselves: those of the C library would have other threads follow, which are
/// not there. Nothing may come back afterwards. Elsewhere the calls of these names cut account
/// numbers off at 16 bits.
static_assert(sizeof(void*) == 8);
bool BecomeUser(const Launch& launch) {
  if (!launch.changesUser) return true;
  return ::syscall(SYS_setgroups, launch.groupCount, launch.groups) == 0 &&
         ::syscall(SYS_setresgid, launch.group, launch.group, launch.group) == 0 &&
         ::syscall(SYS_setresuid, launch.user, launch.user, launch.user) == 0;
}

class UsersProgram : public ProgramToBe {
 public:
  explicit UsersProgram(const Launch& launch) : launch_(launch) {}

  void Run() const override {
    // The agent's keys are not the user's.
    ::syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr);
    // What the user's programs make is to be as everywhere, however the agent was started.
    ::umask(022);
    // Not the user's home, which may never answer.
    if (::chdir("/") == 0 && BecomeUser(launch_))
      ::execve(launch_.program, launch_.arguments, launch_.environment);
  }

 private:
  const Launch launch_;
};

using Clock = std::chrono::steady_clock;

/// The child belongs to the user before it runs the program, so the user can stop it there.
constexpr std::chrono::seconds kRunPatience{5};
/// One that was killed, but is traced or waits for a device, ends when that lets it.
constexpr std::chrono::seconds kKillPatience{2};

bool IsReadable(int pipe, Clock::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd waited{pipe, POLLIN, 0};
    const int ready = ::poll(&waited, 1, static_cast<int>(left));
    if (ready > 0 || (ready < 0 && errno != EINTR)) return true;
  }
}

/// What kept the child from running the program; 0 when it runs.
int WaitForStart(const UniqueFd& failure) {
  return IsReadable(failure.Get(), Clock::now() + kRunPatience) ? ReadFailure(failure) : ETIMEDOUT;
}

class Child : public SessionProgram {
 public:
  void Take(pid_t process) { process_ = process; }

  bool IsRunning() override {
    if (process_ > 0 && ::waitpid(process_, nullptr, WNOHANG) != 0) process_ = 0;
    return process_ > 0;
  }

  void AskToEnd() override { Signal(SIGTERM); }

  void WaitForEnd(std::chrono::milliseconds patience) override {
    if (HasEndedIn(patience)) return;
    Signal(SIGKILL);
    if (HasEndedIn(kKillPatience)) return;
    CoreLog().WarningWithNL("The process %d was killed and does not end; it is let go", process_);
    process_ = 0;
  }

 private:
  bool HasEndedIn(std::chrono::milliseconds patience) {
    constexpr std::chrono::milliseconds kStep{10};
    const auto deadline = Clock::now() + patience;
    while (IsRunning() && Clock::now() < deadline) std::this_thread::sleep_for(kStep);
    return !IsRunning();
  }

  // A child that nobody has waited for keeps its number.
  void Signal(int number) {
    if (IsRunning()) ::kill(process_, number);
  }

  pid_t process_ = 0;
};

StartedProgram Start(const Launch& launch) {
  // Before there is a process, for want of memory.
  auto child = std::make_unique<Child>();
  const ForkedProgram forked = ForkProgram(UsersProgram(launch));
  if (forked.process == 0)
    return {nullptr, "cannot start a process: " + SystemErrorText(forked.error)};
  child->Take(forked.process);
  if (const int error = WaitForStart(forked.failure)) {
    child->WaitForEnd({});
    return {nullptr, std::string("cannot run ") + launch.program + ": " + SystemErrorText(error)};
  }
  return {std::move(child), {}};
}

bool HasDisplay(const std::vector<std::string>& environment) {
  return std::ranges::any_of(environment,
                             [](const std::string& one) { return one.starts_with("DISPLAY="); });
}

std::string RuntimeDirectory(const UserSession& session) {
  return "/run/user/" + std::to_string(session.userId);
}

}  // namespace

std::string ProxyPipeOf(const UserSession& session) {
  const std::string directory = RuntimeDirectory(session);
  struct stat status {};
  if (::lstat(directory.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) return {};
  return status.st_uid == session.userId ? directory + "/zelproxy.sock" : std::string();
}

bool HasProxyPipe(const UserSession& session) {
  const std::string pipe = ProxyPipeOf(session);
  struct stat status {};
  return !pipe.empty() && ::lstat(pipe.c_str(), &status) == 0 && S_ISSOCK(status.st_mode) &&
         status.st_uid == session.userId;
}

bool IsProxyListening(const UserSession& session) {
  if (!HasProxyPipe(session)) return false;
  const std::string pipe = ProxyPipeOf(session);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (pipe.empty() || pipe.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, pipe.data(), pipe.size());
  const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return false;
  // Too many that wait to be taken are a listener too.
  return ::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
             0 ||
         errno == EAGAIN;
}

bool MayStartIn(const UserSession& session) {
  const uid_t own = ::geteuid();
  return own == 0 || own == session.userId;
}

StartedProgram StartInSession(const std::filesystem::path& program, const UserSession& session,
                              const std::vector<std::string>& options) {
  Account account;
  if (!ReadAccount(session.userId, &account))
    return {nullptr, "there is no account of number " + std::to_string(session.userId)};
  std::vector<std::string> environment = SessionEnvironment(account, session);
  // Listed before its desktop is there.
  if (session.isGraphical && !HasDisplay(environment))
    return {nullptr, "the session has no display yet"};
  std::vector<std::string> arguments = {program.string()};
  arguments.insert(arguments.end(), options.begin(), options.end());
  const std::vector<char*> argumentPointers = PointersTo(arguments);
  const std::vector<char*> environmentPointers = PointersTo(environment);

  return Start({program.c_str(), argumentPointers.data(), environmentPointers.data(), account.user,
                account.group, account.groups.data(), account.groups.size(), ::geteuid() == 0});
}
