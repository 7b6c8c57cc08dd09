#include "agent/service/process.h"

#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <system_error>
#include <utility>

#include "agent/libZel/platform/posix/forked_program.h"

namespace {

constexpr int kStopSignals[] = {SIGTERM, SIGINT};

int stopPipe[2] = {-1, -1};

void OnStopSignal(int) {
  const int error = errno;
  StopRequest::Raise();
  errno = error;
}

// Not SIG_IGN, which the programs that actions start would inherit.
void OnBrokenPipe(int) {}

void Handle(int number, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  ::sigaction(number, &action, nullptr);
}

// Switches the terminal's echo off for a scope.
class NoEcho {
 public:
  NoEcho() {
    if (::tcgetattr(STDIN_FILENO, &before_) != 0) return;
    termios silent = before_;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    isSwitched_ = ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent) == 0;
  }
  ~NoEcho() {
    if (isSwitched_) ::tcsetattr(STDIN_FILENO, TCSAFLUSH, &before_);
  }
  NoEcho(const NoEcho&) = delete;
  NoEcho& operator=(const NoEcho&) = delete;

 private:
  termios before_{};
  bool isSwitched_ = false;
};

}  // namespace

void PrepareProcess() {
  // An installer that an action starts makes files for everybody, and expects few open ones.
  KeepStateForPrograms();
  ::umask(077);
  // Each arena keeps memory of its own; an agent is to stay small rather than to allocate in
  // parallel.
  ::mallopt(M_ARENA_MAX, 2);
  Handle(SIGPIPE, OnBrokenPipe);
}

std::vector<std::string> Arguments(int count, char** values) {
  return {values + (count > 0 ? 1 : 0), values + count};
}

std::optional<std::string> EnvironmentValue(const char* name) {
  const char* const value = ::getenv(name);
  return value ? std::optional<std::string>(value) : std::nullopt;
}

std::filesystem::path DefaultHome() {
  return "/var/lib/zelagent";
}

std::filesystem::path ProgramDirectory() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

std::optional<std::string> ReadPassword(const std::string& prompt) {
  std::string password;
  if (!::isatty(STDIN_FILENO)) {
    if (!std::getline(std::cin, password)) return {};
    return password;
  }
  std::fputs(prompt.c_str(), stderr);
  const NoEcho noEcho;
  const bool isRead = static_cast<bool>(std::getline(std::cin, password));
  std::fputs("\n", stderr);
  return isRead ? std::optional<std::string>(password) : std::nullopt;
}

StopRequest::StopRequest() {
  if (::pipe2(stopPipe, O_CLOEXEC | O_NONBLOCK) != 0)
    throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
  for (const int number : kStopSignals) Handle(number, OnStopSignal);
}

StopRequest::~StopRequest() {
  for (const int number : kStopSignals) Handle(number, SIG_DFL);
  for (int& end : stopPipe) ::close(std::exchange(end, -1));
}

void StopRequest::Wait() {
  ::fcntl(stopPipe[0], F_SETFL, 0);  // blocking from here on
  char byte;
  while (::read(stopPipe[0], &byte, 1) < 0 && errno == EINTR) {
  }
}

void StopRequest::Raise() {
  // A full pipe holds requests enough.
  [[maybe_unused]] const ssize_t written = ::write(stopPipe[1], "", 1);
}
