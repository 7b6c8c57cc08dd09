// What only POSIX systems have: users by number, deleted programs, zombies, identifiers of threads.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/platform/posix/process_files.h"
#include "agent/libZel/process_table.h"
#include "libZel/process.h"
#include "tests/agent/child_process.h"
#include "tests/agent/temporary_directory.h"

namespace fs = std::filesystem;

namespace {

constexpr uid_t kUnknownUser = 54321;

ProcessInfo Listed(pid_t id) {
  std::vector<ProcessInfo> list;
  ProcessAccess().GetProcessList(list);
  const auto found = std::ranges::find(list, static_cast<uint32_t>(id), &ProcessInfo::id);
  EXPECT_NE(found, list.end()) << id;
  return found == list.end() ? ProcessInfo() : *found;
}

// Lists until the child's load is what is expected: on a busy machine that may take some turns.
bool HasLoad(const ChildProcess& child, bool expected) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  ProcessAccess processes(ProcessAccess::PROC_ACCESS_ALL_AVAILABLE_AND_COMPUTE_CPU);
  std::vector<ProcessInfo> list;
  while (std::chrono::steady_clock::now() < deadline) {
    processes.Refresh();
    processes.GetProcessList(list);
    const auto listed = std::ranges::find(list, child.Id(), &ProcessInfo::id);
    if (listed == list.end()) return false;
    if ((listed->currentCpu > 0) == expected) return true;
  }
  return false;
}

// A child that runs `prepare`, tells that it has, and then waits; ended with the object.
class PreparedChild {
 public:
  explicit PreparedChild(const std::function<void()>& prepare) {
    int ends[2];
    EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
    id_ = fork();
    if (id_ == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);
      prepare();
      if (write(ends[1], "x", 1) == 1) {
        for (;;) pause();
      }
      _exit(1);
    }
    close(ends[1]);
    // A program that replaces the child closes the pipe instead of writing.
    char byte;
    EXPECT_GE(read(ends[0], &byte, 1), 0);
    close(ends[0]);
  }
  ~PreparedChild() {
    kill(id_, SIGKILL);
    waitpid(id_, nullptr, 0);
  }
  PreparedChild(const PreparedChild&) = delete;
  PreparedChild& operator=(const PreparedChild&) = delete;

  pid_t Id() const { return id_; }

 private:
  pid_t id_ = 0;
};

// Under Wine a child's processor time was not seen to follow what the child does: the loads of
// other processes are tested here alone.
TEST(GetProcessListOnPosix, ShowsTheLoadOfAChildThatComputes) {
  const ChildProcess child(ChildProcess::Task::kCompute);
  EXPECT_TRUE(HasLoad(child, true));

  std::vector<process_table::Entry> entries;
  ASSERT_TRUE(process_table::Read(&entries));
  const auto entry = std::ranges::find(
      entries, child.Id(), [](const process_table::Entry& each) { return each.info.id; });
  ASSERT_NE(entry, entries.end());
  EXPECT_GT(entry->cpuMicroseconds, 0u);
}

TEST(GetProcessListOnPosix, ShowsNoLoadForAChildThatWaits) {
  const ChildProcess child(ChildProcess::Task::kWait);
  EXPECT_TRUE(HasLoad(child, false));
}

TEST(GetProcessListOnPosix, NamesTheUser) {
  const passwd* const user = getpwuid(geteuid());
  ASSERT_NE(user, nullptr);
  EXPECT_EQ(Listed(getpid()).owner, user->pw_name);
}

TEST(GetProcessListOnPosix, GivesTheNumberOfAUserWithoutName) {
  const PreparedChild child([] {
    if (setuid(kUnknownUser) != 0) _exit(1);
  });
  EXPECT_EQ(Listed(child.Id()).owner, std::to_string(kUnknownUser));
}

TEST(GetProcessListOnPosix, IsNotMisledByTheNameThatAProcessGivesItself) {
  const PreparedChild child([] { prctl(PR_SET_NAME, "a) R 1 1 (b"); });
  const ProcessInfo listed = Listed(child.Id());
  EXPECT_EQ(listed.parentId, static_cast<uint32_t>(getpid()));
  EXPECT_GE(listed.threadCount, 1u);
  EXPECT_EQ(listed.name, Listed(getpid()).name);
}

TEST(GetProcessListOnPosix, NamesADeletedProgramAsItWasCalled) {
  const TemporaryDirectory directory;
  const fs::path program = directory.Native() / "my sleep";
  fs::copy_file("/bin/sleep", program);
  const PreparedChild child([&] {
    execl(program.c_str(), "sleep", "60", nullptr);
    _exit(1);
  });
  fs::remove(program);
  const ProcessInfo listed = Listed(child.Id());
  EXPECT_EQ(listed.name, "my sleep");
  EXPECT_EQ(listed.path, program.native());
}

TEST(GetProcessListOnPosix, NamesWhatHasEndedByItsCommand) {
  const pid_t id = fork();
  if (id == 0) {
    prctl(PR_SET_NAME, "ended (x)");
    _exit(0);
  }
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(id), &info, WEXITED | WNOWAIT), 0);
  const ProcessInfo listed = Listed(id);
  EXPECT_EQ(listed.name, "ended (x)");
  EXPECT_EQ(listed.path, "");
  EXPECT_EQ(listed.usedBytes, 0u);
  EXPECT_EQ(listed.parentId, static_cast<uint32_t>(getpid()));
  waitpid(id, nullptr, 0);
}

// The identifier of a thread of this process, which waits until the object goes.
class WaitingThread {
 public:
  WaitingThread()
      : thread_([this](const std::stop_token& stop) {
          id_ = gettid();
          id_.notify_one();
          while (!stop.stop_requested()) std::this_thread::yield();
        }) {
    id_.wait(0);
  }
  uint32_t Id() const { return static_cast<uint32_t>(id_); }

 private:
  std::atomic<pid_t> id_ = 0;
  std::jthread thread_;
};

TEST(TerminateProcessByIDOnPosix, RefusesThreads) {
  const WaitingThread thread;
  EXPECT_EQ(ProcessAccess().TerminateProcessByID(thread.Id()), 0);
}

// The kernel drops the signal: nothing would come of waiting for the end.
TEST(TerminateProcessByIDOnPosix, DoesNotWaitForTheFirstProcess) {
  constexpr int kTimes = 20;
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kTimes; ++i) EXPECT_EQ(ProcessAccess().TerminateProcessByID(1), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(kTimes));
}

TEST(TerminateProcessByIDOnPosix, FailsForWhatHasEndedUnnoticed) {
  const pid_t id = fork();
  if (id == 0) _exit(0);
  siginfo_t info;
  ASSERT_EQ(waitid(P_PID, static_cast<id_t>(id), &info, WEXITED | WNOWAIT), 0);
  EXPECT_EQ(ProcessAccess().TerminateProcessByID(static_cast<uint32_t>(id)), 0);
  waitpid(id, nullptr, 0);
}

TEST(EndWithoutHandle, RefusesThreads) {
  const WaitingThread thread;
  const Outcome outcome = process_table::EndWithoutHandle(thread.Id());
  EXPECT_FALSE(outcome);
  EXPECT_EQ(outcome.reason, "it is a thread, not a process");
}

TEST(EndWithoutHandle, EndsAChild) {
  ChildProcess child(ChildProcess::Task::kWait);
  EXPECT_TRUE(process_table::EndWithoutHandle(child.Id()));
  EXPECT_TRUE(child.WaitForEnd());
}

TEST(EndWithoutHandle, FailsWhereNoProcessIs) {
  EXPECT_EQ(process_table::EndWithoutHandle(0x7FFFFFFF).code, ESRCH);
}

TEST(TerminateProcessByIDOnPosix, EndsNothingThatBelongsToOthers) {
  const ChildProcess target(ChildProcess::Task::kWait);
  const pid_t attacker = fork();
  if (attacker == 0) {
    if (setuid(kUnknownUser) != 0) _exit(2);
    _exit(ProcessAccess().TerminateProcessByID(target.Id()));
  }
  int status = 0;
  ASSERT_EQ(waitpid(attacker, &status, 0), attacker);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_NE(Listed(static_cast<pid_t>(target.Id())).usedBytes, 0u);
}

TEST(GetProcessListOnPosix, KeepsWhatDeniesAccess) {
  const ChildProcess target(ChildProcess::Task::kWait);
  const pid_t reader = fork();
  if (reader == 0) {
    if (setuid(kUnknownUser) != 0) _exit(2);
    const ProcessInfo listed = Listed(static_cast<pid_t>(target.Id()));
    const bool isRight = listed.path.IsEmpty() && !listed.name.IsEmpty() &&
                         !listed.owner.IsEmpty() && listed.parentId == uint32_t(getppid());
    _exit(isRight ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(waitpid(reader, &status, 0), reader);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
