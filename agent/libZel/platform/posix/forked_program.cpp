#include "agent/libZel/platform/posix/forked_program.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "agent/libZel/platform/posix/descriptor_io.h"

namespace {

struct StateForPrograms {
  mode_t mask;
  rlimit openFiles;
};

std::optional<StateForPrograms> stateForPrograms;

constexpr int kErrorPipe = STDERR_FILENO + 1;
/// Where the streams of the child are not in its way.
constexpr int kAboveStreams = 10;

void ResetSignals() {
  for (int number = 1; number < NSIG; ++number) ::signal(number, SIG_DFL);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
}

void RestoreState() {
  if (!stateForPrograms) return;
  ::umask(stateForPrograms->mask);
  // The largest number was never changed, so this is always allowed.
  ::setrlimit(RLIMIT_NOFILE, &stateForPrograms->openFiles);
}

bool EmptyStreams() {
  const int null = ::open("/dev/null", O_RDWR);
  if (null < 0) return false;
  for (const int stream : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::dup2(null, stream) < 0) return false;
  }
  return true;
}

[[noreturn]] void RunChild(const ProgramToBe& program, int errorPipe) {
  ResetSignals();
  ::setsid();
  const bool isReady = EmptyStreams() && ::dup3(errorPipe, kErrorPipe, O_CLOEXEC) >= 0;
  if (isReady) {
    ::closefrom(kErrorPipe + 1);
    RestoreState();
    program.Run();
  }
  const int error = errno;
  [[maybe_unused]] const ssize_t written =
      ::write(isReady ? kErrorPipe : errorPipe, &error, sizeof error);
  ::_exit(127);
}

}  // namespace

void KeepStateForPrograms() {
  StateForPrograms state{::umask(077), {}};
  ::umask(state.mask);
  if (::getrlimit(RLIMIT_NOFILE, &state.openFiles) == 0) stateForPrograms = state;
}

ForkedProgram ForkProgram(const ProgramToBe& program) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return {0, errno, UniqueFd()};
  UniqueFd readEnd(ends[0]);
  const UniqueFd lowEnd(ends[1]);
  const UniqueFd writeEnd(::fcntl(lowEnd.Get(), F_DUPFD_CLOEXEC, kAboveStreams));
  if (!writeEnd) return {0, errno, UniqueFd()};

  const pid_t process = ::fork();
  if (process == 0) RunChild(program, writeEnd.Get());
  if (process < 0) return {0, errno, UniqueFd()};
  return {process, 0, std::move(readEnd)};
}

int ReadFailure(const UniqueFd& failure) {
  int error = 0;
  const ssize_t count = Uninterrupted([&] { return ::read(failure.Get(), &error, sizeof error); });
  return count == 0 ? 0 : count == sizeof error ? error : EIO;
}

std::vector<char*> PointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}
