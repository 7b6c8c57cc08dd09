#include "agent/windows_api/browse_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <string_view>
#include <system_error>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kExitNoSuchDomain = 2;
/// More than the names take that are accepted.
constexpr size_t kMaxAnswerBytes = 4 * 1024 * 1024;
constexpr size_t kMaxReasonBytes = 300;
constexpr std::chrono::milliseconds kLookAgain{5};

void Require(int error) {
  if (error != 0) throw std::bad_alloc();
}

BrowseAnswer NoBrowser(const std::string& reason) {
  return {kNoBrowserFound, {}, ZelString(reason)};
}

/// The program's input is empty; what it writes goes into the pipe. It inherits nothing else.
class Streams {
 public:
  explicit Streams(int output) {
    Require(::posix_spawn_file_actions_init(&actions_));
    Require(::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    Require(::posix_spawn_file_actions_adddup2(&actions_, output, STDOUT_FILENO));
    Require(::posix_spawn_file_actions_adddup2(&actions_, output, STDERR_FILENO));
    Require(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
  }
  ~Streams() { ::posix_spawn_file_actions_destroy(&actions_); }
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;

  const posix_spawn_file_actions_t* Get() const { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_;
};

/// A session of its own, by which all of it can be killed, and the default treatment of signals.
class Attributes {
 public:
  Attributes() {
    Require(::posix_spawnattr_init(&attributes_));
    sigset_t signals;
    ::sigemptyset(&signals);
    ::posix_spawnattr_setsigmask(&attributes_, &signals);
    ::sigfillset(&signals);
    ::posix_spawnattr_setsigdefault(&attributes_, &signals);
    ::posix_spawnattr_setflags(&attributes_,
                               POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
  }
  ~Attributes() { ::posix_spawnattr_destroy(&attributes_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;

  const posix_spawnattr_t* Get() const { return &attributes_; }

 private:
  posix_spawnattr_t attributes_;
};

class Pipe {
 public:
  Pipe() {
    if (::pipe2(ends_, O_CLOEXEC) != 0) error_ = errno;
  }
  ~Pipe() {
    CloseWriter();
    if (ends_[0] >= 0) ::close(ends_[0]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;

  int Error() const { return error_; }
  int Reader() const { return ends_[0]; }
  int Writer() const { return ends_[1]; }
  void CloseWriter() {
    if (ends_[1] >= 0) ::close(ends_[1]);
    ends_[1] = -1;
  }

 private:
  int ends_[2] = {-1, -1};
  int error_ = 0;
};

/// A program that runs; killed and waited for at the latest with the object.
class Program {
 public:
  explicit Program(pid_t id) : id_(id) {}
  ~Program() { End(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// The status that `waitpid` tells; nothing when the program still runs at `deadline`.
  std::optional<int> WaitUntil(Clock::time_point deadline) {
    for (;;) {
      siginfo_t ended{};
      // It stays a zombie until `End`, so that its number stays its own.
      const int answer =
          ::waitid(P_PID, static_cast<id_t>(id_), &ended, WEXITED | WNOHANG | WNOWAIT);
      if (answer == 0 && ended.si_pid == id_) return End();
      if (Clock::now() >= deadline) return {};
      std::this_thread::sleep_for(kLookAgain);
    }
  }

 private:
  int End() {
    int status = 0;
    if (id_ < 0) return status;
    ::kill(-id_, SIGKILL);
    while (::waitpid(id_, &status, 0) < 0 && errno == EINTR) {
    }
    id_ = -1;
    return status;
  }

  pid_t id_;
};

pid_t Start(const std::string& program, const std::vector<std::string>& arguments, int output,
            int* error) {
  std::vector<std::string> words = {program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (std::string& word : words) pointers.push_back(word.data());
  pointers.push_back(nullptr);

  const Streams streams(output);
  const Attributes attributes;
  pid_t child = -1;
  *error = ::posix_spawn(&child, program.c_str(), streams.Get(), attributes.Get(), pointers.data(),
                         environ);
  return child;
}

/// Waits for something to read; false when there is nothing at `deadline`.
bool WaitForOutput(int reader, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return false;
    pollfd one{reader, POLLIN, 0};
    if (::poll(&one, 1, static_cast<int>(left)) > 0) return true;
  }
}

/// All that is written until the end; nothing when that does not come until `deadline`, or too late
/// for the room there is.
std::optional<std::string> ReadAll(int reader, Clock::time_point deadline) {
  std::string text;
  char bytes[16384];
  while (WaitForOutput(reader, deadline)) {
    const ssize_t count = ::read(reader, bytes, sizeof bytes);
    if (count == 0) return text;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0 || text.size() + static_cast<size_t>(count) > kMaxAnswerBytes) return {};
    text.append(bytes, static_cast<size_t>(count));
  }
  return {};
}

/// The last line that says something: what comes before it may be warnings.
std::string LastLine(std::string_view text) {
  while (!text.empty() && static_cast<unsigned char>(text.back()) <= ' ') text.remove_suffix(1);
  const size_t lineEnd = text.find_last_of(std::string_view("\n\0", 2));
  if (lineEnd != std::string_view::npos) text.remove_prefix(lineEnd + 1);
  return std::string(text.substr(0, kMaxReasonBytes));
}

BrowseAnswer TooManyNames() {
  const std::string count = std::to_string(kMaxBrowseNames);
  return {kMoreNames, {}, ZelString("there are more than " + count + " names")};
}

BrowseAnswer NamesIn(std::string_view text) {
  BrowseAnswer answer{0, {}, {}};
  if (text.empty()) return NoBrowser("no browser answers");
  if (text.back() != '\0') return NoBrowser("the browse program's list has no end");
  while (!text.empty()) {
    if (answer.names.size() == kMaxBrowseNames) return TooManyNames();
    const size_t length = text.find('\0');
    if (length == 0) return NoBrowser("the browse program's list holds an empty name");
    answer.names.emplace_back(text.substr(0, length));
    text.remove_prefix(length + 1);
  }
  return answer;
}

BrowseAnswer AnswerOf(int status, const std::string& text) {
  if (WIFSIGNALED(status)) {
    return NoBrowser("the browse program was ended by signal " + std::to_string(WTERMSIG(status)));
  }
  const int code = WEXITSTATUS(status);
  if (code == 0) return NamesIn(text);
  std::string reason = LastLine(text);
  if (reason.empty()) reason = "the browse program ended with code " + std::to_string(code);
  return {code == kExitNoSuchDomain ? kNoSuchDomain : kNoBrowserFound, {}, ZelString(reason)};
}

}  // namespace

BrowseAnswer RunBrowseProgram(const std::string& program, const std::vector<std::string>& arguments,
                              std::chrono::milliseconds limit) {
  const Clock::time_point deadline = Clock::now() + limit;
  Pipe pipe;
  int error = pipe.Error();
  const pid_t id = error == 0 ? Start(program, arguments, pipe.Writer(), &error) : -1;
  if (error != 0) return NoBrowser(program + ": " + std::generic_category().message(error));

  Program running(id);
  pipe.CloseWriter();
  const std::optional<std::string> text = ReadAll(pipe.Reader(), deadline);
  const std::optional<int> status = text ? running.WaitUntil(deadline) : std::nullopt;
  if (!status && Clock::now() < deadline) return NoBrowser("the browser's answer is too long");
  if (!status) return NoBrowser("no answer within " + std::to_string(limit.count()) + " ms");
  return AnswerOf(*status, *text);
}
