#include "agent/windows_api/browse_program.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <optional>
#include <string_view>
#include <thread>

#include "agent/libZel/debug_context.h"
#include "agent/libZel/platform/posix/child_reaper.h"
#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/forked_program.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/libZel/system_error_text.h"

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

/// The two ends of a pipe; both are -1 when it could not be made.
struct Pipe {
  UniqueFd reader;
  UniqueFd writer;
};

Pipe MakePipe() {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return {};
  return {UniqueFd(ends[0]), UniqueFd(ends[1])};
}

/// A program that runs; killed and waited for at the latest with the object.
class Program {
 public:
  Program(pid_t id, std::chrono::milliseconds patience) : id_(id), patience_(patience) {}
  ~Program() { End(); }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  /// Whether it has ended by itself at `deadline`.
  bool EndsBy(Clock::time_point deadline) {
    while (Look() == State::kRuns) {
      if (Clock::now() >= deadline) return false;
      std::this_thread::sleep_for(kLookAgain);
    }
    return true;
  }

  /// Kills what is left of its session. The status that `waitpid` tells, or nothing when that
  /// cannot be known.
  std::optional<int> End() {
    // A number that is not a child's any more may be anybody's.
    if (Look() == State::kGone) return {};
    const int error = ::kill(-id_, SIGKILL) == 0 ? 0 : errno;
    const Clock::time_point deadline = Clock::now() + patience_;
    int status = 0;
    pid_t answer;
    while ((answer = ::waitpid(id_, &status, WNOHANG)) == 0 && Clock::now() < deadline) {
      std::this_thread::sleep_for(kLookAgain);
    }
    if (answer == 0) Leave(error);
    const bool isKnown = answer == id_;
    id_ = -1;
    return isKnown ? std::optional(status) : std::nullopt;
  }

 private:
  enum class State { kRuns, kEnded, kGone };

  State Look() {
    if (id_ < 0) return State::kGone;
    siginfo_t ended{};
    // It stays a zombie until `End`, so that its number stays its own.
    const int answer = ::waitid(P_PID, static_cast<id_t>(id_), &ended, WEXITED | WNOHANG | WNOWAIT);
    if (answer == 0) return ended.si_pid == id_ ? State::kEnded : State::kRuns;
    // Where SIGCHLD is ignored, the system itself takes leave of children.
    if (errno == ECHILD) id_ = -1;
    return id_ < 0 ? State::kGone : State::kRuns;
  }

  void Leave(int error) const noexcept {
    try {
      ChildReaper::Instance().Watch(id_);
      const std::string reason = error == 0 ? "" : ": " + SystemErrorText(error);
      LibraryLog().PrintWithNL("the browse program, process %d, does not end when it is killed%S",
                               id_, ZelString(reason));
    } catch (const std::exception&) {
      // Without memory it stays a zombie, of which no line tells.
    }
  }

  pid_t id_;
  const std::chrono::milliseconds patience_;
};

pid_t Start(const std::string& program, const std::vector<std::string>& arguments, int output,
            int* error) {
  std::vector<std::string> words = {program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  const Streams streams(output);
  const Attributes attributes;
  // It would have a say in what the libraries load, read and print.
  char* const noEnvironment[] = {nullptr};
  pid_t child = -1;
  *error = ::posix_spawn(&child, program.c_str(), streams.Get(), attributes.Get(),
                         PointersTo(words).data(), noEnvironment);
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
std::optional<std::string> ReadToEnd(int reader, Clock::time_point deadline) {
  std::string text;
  char bytes[16384];
  while (WaitForOutput(reader, deadline)) {
    const ssize_t count = Uninterrupted([&] { return ::read(reader, bytes, sizeof bytes); });
    if (count == 0) return text;
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

BrowseAnswer ReadBrowseAnswer(std::optional<int> status, const std::string& text) {
  if (status) return AnswerOf(*status, text);
  // A reason does not end as names do.
  return text.empty() || text.back() == '\0' ? NamesIn(text) : NoBrowser(LastLine(text));
}

BrowseAnswer RunBrowseProgram(const std::string& program, const std::vector<std::string>& arguments,
                              std::chrono::milliseconds limit,
                              std::chrono::milliseconds endPatience) {
  const Clock::time_point deadline = Clock::now() + limit;
  Pipe pipe = MakePipe();
  int error = pipe.writer ? 0 : errno;
  const pid_t id = error == 0 ? Start(program, arguments, pipe.writer.Get(), &error) : -1;
  if (error != 0) return NoBrowser(program + ": " + SystemErrorText(error));

  Program running(id, endPatience);
  pipe.writer.Close();
  const std::optional<std::string> text = ReadToEnd(pipe.reader.Get(), deadline);
  const bool hasEnded = text && running.EndsBy(deadline);
  if (!hasEnded && Clock::now() < deadline) return NoBrowser("the browser's answer is too long");
  if (!hasEnded) return NoBrowser("no answer within " + std::to_string(limit.count()) + " ms");
  return ReadBrowseAnswer(running.End(), *text);
}
