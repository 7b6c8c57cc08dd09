#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/platform/posix/forked_program.h"
#include "agent/libZel/process_start.h"
#include "tests/agent/temporary_directory.h"

using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// What a program has done is seen through a FIFO that it writes to: reading it waits for the end.
class Fifo {
 public:
  Fifo() {
    if (::mkfifo(Path().c_str(), 0600) != 0) std::abort();
  }
  std::string Path() const { return directory_.Native("fifo").string(); }
  std::string Read() const { return ReadFile(Path()); }

 private:
  TemporaryDirectory directory_;
};

Outcome RunInShell(const std::string& script) {
  return StartProgram("/bin/sh -c \"" + script + "\"");
}

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t begin = 0; begin < text.size();) {
    const size_t end = text.find('\n', begin);
    lines.push_back(text.substr(begin, end - begin));
    if (end == std::string::npos) break;
    begin = end + 1;
  }
  return lines;
}

// Whether the process is gone, not even a zombie, before a deadline that no healthy machine needs.
bool IsGoneSoon(pid_t process) {
  for (int i = 0; i < 1000; ++i) {
    if (::kill(process, 0) != 0 && errno == ESRCH) return true;
    ::usleep(10000);
  }
  return false;
}

}  // namespace

TEST(StartProgram, HandsTheArgumentsOverAsTheyStand) {
  const Fifo fifo;
  ASSERT_TRUE(StartProgram("/bin/sh -c \"printf '%s|' \\\"$@\\\" > " + fifo.Path() +
                           "\" sh \"two words\" \"\" \"quote \\\" sign\" C:\\dir\\ $HOME *"));
  EXPECT_EQ(fifo.Read(), "two words||quote \" sign|C:\\dir\\|$HOME|*|");
}

TEST(StartProgram, FindsAProgramByAPathOfTheProtocol) {
  for (const char* program : {"C:\\bin\\sh", "c:/bin/sh", "\\bin\\sh", "//bin/sh", "sh"}) {
    const Fifo fifo;
    ASSERT_TRUE(StartProgram(std::string(program) + " -c \"echo ran > " + fifo.Path() + "\""));
    EXPECT_EQ(fifo.Read(), "ran\n") << program;
  }
}

TEST(StartProgram, TellsWhyAFileIsNoProgram) {
  const TemporaryDirectory directory;
  WriteFile(directory.Native("file"), "no program");
  const Outcome noRight = StartProgram(directory / "file");
  EXPECT_EQ(noRight.code, EACCES);
  EXPECT_THAT(std::string(noRight.reason.Utf8()), HasSubstr("file: "));

  ::chmod(directory.Native("file").c_str(), 0700);
  EXPECT_EQ(StartProgram(directory / "file").code, ENOEXEC) << "no shell steps in";
  EXPECT_EQ(StartProgram(directory / "missing").code, ENOENT);
  EXPECT_EQ(StartProgram("\"" + directory / "" + "\"").code, EISDIR);
  EXPECT_EQ(StartProgram("zel-no-such-program-anywhere").code, ENOENT);
}

TEST(StartProgram, RefusesADriveThatIsNotKnown) {
  EXPECT_THAT(std::string(StartProgram("Q:\\bin\\sh").reason.Utf8()), HasSubstr("drive Q:"));
}

TEST(StartProgram, GivesEmptyStreamsAndNothingElse) {
  const TemporaryDirectory directory;
  // Deliberately inheritable, as a library might open it.
  const int leak = ::open(directory.Native().c_str(), O_RDONLY | O_DIRECTORY);
  ASSERT_GE(leak, 0);
  const Fifo fifo;
  ASSERT_TRUE(RunInShell("for i in /proc/$$/fd/*; do readlink $i; done > " + fifo.Path()));
  const std::vector<std::string> open = Lines(fifo.Read());
  ::close(leak);

  EXPECT_THAT(open, testing::Contains("/dev/null").Times(testing::Ge(2)));
  // Only the shell's own: its streams, one of which is the FIFO meanwhile.
  for (const std::string& one : open) {
    EXPECT_TRUE(one == "/dev/null" || one == fifo.Path()) << one;
  }
}

TEST(StartProgram, GivesASessionOfItsOwnAndOrdinarySignals) {
  sigset_t blocked;
  sigset_t before;
  ::sigemptyset(&blocked);
  ::sigaddset(&blocked, SIGUSR1);
  ::pthread_sigmask(SIG_BLOCK, &blocked, &before);
  auto* const ignoring = ::signal(SIGUSR2, SIG_IGN);

  const Fifo fifo;
  ASSERT_TRUE(
      RunInShell("exec grep -E '^(Pid|NSsid|SigBlk|SigIgn):' /proc/self/status > " + fifo.Path()));
  const std::vector<std::string> lines = Lines(fifo.Read());
  ::signal(SIGUSR2, ignoring);
  ::pthread_sigmask(SIG_SETMASK, &before, nullptr);

  ASSERT_EQ(lines.size(), 4u);
  const auto value = [&](size_t line) { return lines[line].substr(lines[line].find('\t') + 1); };
  EXPECT_EQ(value(0), value(1)) << "the session is named after its leader";
  EXPECT_EQ(value(2), "0000000000000000");
  // The two signals below the real-time ones are the C library's own.
  constexpr unsigned long long kInternal = 3ull << 31;
  EXPECT_EQ(std::stoull(value(3), nullptr, 16) & ~kInternal, 0u);
}

TEST(StartProgram, GivesTheFileModeAndTheLimitOfTheAgentsOwnStart) {
  rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{500, before.rlim_max};
  const mode_t mask = ::umask(027);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &few), 0);
  KeepStateForPrograms();
  ::umask(077);
  ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);

  const Fifo fifo;
  const bool isStarted = static_cast<bool>(RunInShell("{ umask; ulimit -Sn; } > " + fifo.Path()));
  ::umask(mask);
  KeepStateForPrograms();

  ASSERT_TRUE(isStarted);
  EXPECT_EQ(fifo.Read(), "0027\n500\n");
}

TEST(StartProgram, LooksForAProgramInAllDirectoriesOfThePath) {
  const TemporaryDirectory directory;
  const std::string path = ::getenv("PATH");
  const std::filesystem::path hidden = directory.Native("hidden");
  std::filesystem::create_directory(hidden);
  WriteFile(hidden / "zel-test-tool", "no program, and not marked as one");
  std::filesystem::create_directory(directory.Native("bin"));
  std::filesystem::copy_file("/bin/sh", directory.Native("bin") / "zel-test-tool");

  const Fifo fifo;
  const auto start = [&](const std::string& directories) {
    ::setenv("PATH", directories.c_str(), 1);
    const Outcome outcome = StartProgram("zel-test-tool -c \"echo ran > " + fifo.Path() + "\"");
    ::setenv("PATH", path.c_str(), 1);
    return outcome.code;
  };
  EXPECT_EQ(start("/none:" + hidden.string()), EACCES);
  EXPECT_EQ(start("/none"), ENOENT);
  ASSERT_EQ(start("/none:" + hidden.string() + ":" + directory.Native("bin").string()), 0);
  EXPECT_EQ(fifo.Read(), "ran\n");
}

TEST(StartProgram, LeavesNoZombies) {
  std::vector<pid_t> children;
  for (int i = 0; i < 20; ++i) {
    const Fifo fifo;
    ASSERT_TRUE(RunInShell("echo $$ > " + fifo.Path()));
    children.push_back(std::stoi(fifo.Read()));
  }
  for (const pid_t child : children) EXPECT_TRUE(IsGoneSoon(child)) << child;
}

TEST(StartProgram, MayBeCalledByManyThreads) {
  constexpr int kThreads = 8;
  constexpr int kEach = 10;
  std::vector<std::thread> threads;
  std::vector<int> started(kThreads);
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&started, i] {
      for (int j = 0; j < kEach; ++j) {
        if (StartProgram("/bin/true")) ++started[static_cast<size_t>(i)];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(started, testing::Each(kEach));
}

TEST(StartProgram, LeavesTheChildrenOfOthersAlone) {
  ASSERT_TRUE(StartProgram("/bin/true"));
  std::FILE* const other = ::popen("exit 7", "r");
  ASSERT_NE(other, nullptr);
  ASSERT_TRUE(StartProgram("/bin/true"));
  EXPECT_EQ(WEXITSTATUS(::pclose(other)), 7);
}
