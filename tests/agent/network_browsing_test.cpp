#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/capability.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <future>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/windows_api/browse_program.h"
#include "tests/agent/temporary_directory.h"
#include "windows_api.h"

// What browsers answer is a matter of the system tests: here it is what programs answer that behave
// as none should, and the machine without a network.

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Never reached where a program ends by itself.
constexpr milliseconds kLong{20000};
constexpr milliseconds kShort{100};

BrowseAnswer RunShell(const std::string& script, milliseconds limit = kLong) {
  return RunBrowseProgram("/bin/sh", {"-c", script}, limit);
}

std::vector<std::string> Texts(const BrowseAnswer& answer) {
  std::vector<std::string> texts;
  for (const ZelString& name : answer.names) texts.emplace_back(name.Utf8());
  return texts;
}

std::string Reason(const BrowseAnswer& answer) {
  return std::string(answer.reason.Utf8());
}

void ExpectNoBrowser(const BrowseAnswer& answer, const std::string& reason) {
  EXPECT_EQ(answer.status, kNoBrowserFound);
  EXPECT_THAT(answer.names, IsEmpty());
  EXPECT_THAT(Reason(answer), HasSubstr(reason));
}

size_t CountOpenFiles() {
  return static_cast<size_t>(
      std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

TEST(BrowseProgram, TellsNamesInTheirOrder) {
  const BrowseAnswer answer = RunShell("printf 'B\\000A\\000two words\\000'");
  EXPECT_EQ(answer.status, 0u);
  EXPECT_THAT(Texts(answer), ElementsAre("B", "A", "two words"));
}

TEST(BrowseProgram, GetsItsArgumentsAsTheyAre) {
  const BrowseAnswer answer =
      RunBrowseProgram("/bin/sh", {"-c", "printf '%s\\000' \"$@\"", "sh", "a b", "$x;'\"*"}, kLong);
  EXPECT_THAT(Texts(answer), ElementsAre("a b", "$x;'\"*"));
}

BrowseAnswer NameMany(size_t count) {
  return RunShell("i=0; while [ $i -lt " + std::to_string(count) +
                  R"( ]; do printf 'N%d\000' $i; i=$((i+1)); done)");
}

TEST(BrowseProgram, MayNameAsManyAsAreTaken) {
  const BrowseAnswer answer = NameMany(kMaxBrowseNames);
  EXPECT_EQ(answer.status, 0u);
  ASSERT_EQ(answer.names.size(), kMaxBrowseNames);
  EXPECT_EQ(answer.names.back(), ZelString("N8191"));
}

TEST(BrowseProgram, TellsNothingOfAListThatIsTooLong) {
  for (const size_t count : {kMaxBrowseNames + 1, kMaxBrowseNames + 1000}) {
    const BrowseAnswer answer = NameMany(count);
    EXPECT_EQ(answer.status, kMoreNames);
    EXPECT_THAT(answer.names, IsEmpty());
    EXPECT_EQ(Reason(answer), "there are more than 8192 names");
  }
}

TEST(BrowseProgram, TellsThatThereIsNoSuchDomain) {
  const BrowseAnswer answer = RunShell("echo a warning >&2; printf 'nobody knows it'; exit 2");
  EXPECT_EQ(answer.status, kNoSuchDomain);
  EXPECT_EQ(Reason(answer), "nobody knows it");
}

TEST(BrowseProgram, GivesItsLastLineAsReason) {
  ExpectNoBrowser(RunShell("echo first; echo last; echo; exit 1"), "last");
  EXPECT_EQ(Reason(RunShell("echo first; echo last; exit 1")), "last");
  EXPECT_EQ(RunShell("printf '%01000d' 0; exit 1").reason.GetLength(), 300u);
}

TEST(BrowseProgram, FailsWithoutAWordOnAnyCode) {
  ExpectNoBrowser(RunShell("exit 1"), "ended with code 1");
  ExpectNoBrowser(RunShell("exit 77"), "ended with code 77");
}

TEST(BrowseProgram, FindsNobodyInAnEmptyList) {
  ExpectNoBrowser(RunShell("exit 0"), "no browser answers");
}

TEST(BrowseProgram, BelievesNoListWithoutEndOrWithEmptyNames) {
  ExpectNoBrowser(RunShell("printf 'A\\000B'"), "has no end");
  ExpectNoBrowser(RunShell("printf 'A\\000\\000'"), "empty name");
  ExpectNoBrowser(RunShell("printf '\\000'"), "empty name");
}

TEST(BrowseProgram, MayCrash) {
  ExpectNoBrowser(RunShell("printf 'A\\000'; kill -SEGV $$"), "ended by signal 11");
}

TEST(BrowseProgram, MayBeMissingOrNoProgram) {
  ExpectNoBrowser(RunBrowseProgram("/nonexistent/zelbrowse", {}, kLong),
                  "/nonexistent/zelbrowse: No such file or directory");
  ExpectNoBrowser(RunBrowseProgram("/", {}, kLong), "Permission denied");
  ExpectNoBrowser(RunBrowseProgram("", {}, kLong), "No such file or directory");
}

TEST(BrowseProgram, IsKilledWhenItsTimeIsOver) {
  const TemporaryDirectory directory;
  const std::string pipe = (directory.Native() / "pipe").string();
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  // A trap keeps it from ending by anything milder.
  const std::string script = "trap '' TERM INT HUP; printf 'A\\000'; read line <" + pipe;
  const auto began = std::chrono::steady_clock::now();
  ExpectNoBrowser(RunShell(script, kShort), "no answer within 100 ms");
  EXPECT_LT(std::chrono::steady_clock::now() - began, kLong);
}

TEST(BrowseProgram, IsKilledWithWhatItStarted) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Native() / "child";
  // The child holds the streams that the call waits for.
  ExpectNoBrowser(RunShell("sleep 1000 & echo $! >" + file.string() + "; wait", milliseconds(500)),
                  "no answer within");
  const pid_t child = std::stoi(ReadFile(file));
  const std::string state = "/proc/" + std::to_string(child) + "/stat";
  // It goes in its own time, or is left to init as a zombie.
  const auto deadline = std::chrono::steady_clock::now() + kLong;
  while (kill(child, 0) == 0 && ReadFile(state).find(") Z ") == std::string::npos) {
    ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    std::this_thread::yield();
  }
}

TEST(BrowseProgram, IsKilledWhenItRunsOnWithoutItsStreams) {
  ExpectNoBrowser(RunShell("printf 'A\\000'; exec >&- 2>&-; exec sleep 1000", milliseconds(500)),
                  "no answer within");
}

TEST(BrowseProgram, IsKilledWhenItNeverStopsWriting) {
  const auto began = std::chrono::steady_clock::now();
  ExpectNoBrowser(RunShell("exec cat /dev/zero"), "too long");
  EXPECT_LT(std::chrono::steady_clock::now() - began, kLong);
}

TEST(BrowseProgram, InheritsNothing) {
  const int other = fcntl(STDIN_FILENO, F_DUPFD, 100);
  const BrowseAnswer answer = RunShell(
      "for file in /proc/$$/fd/*; do printf '%s\\000' ${file##*/}; done;"
      "read line || printf 'no input\\000'");
  close(other);
  const std::vector<std::string> texts = Texts(answer);
  EXPECT_THAT(texts, testing::IsSupersetOf({"0", "1", "2", "no input"}));
  EXPECT_THAT(texts, testing::Not(testing::Contains(std::to_string(other))));
}

TEST(BrowseProgram, LeavesNothingOpen) {
  RunShell("exit 1");
  const size_t before = CountOpenFiles();
  RunShell("printf 'A\\000'");
  RunShell("exec sleep 1000", milliseconds(1));
  RunBrowseProgram("/nonexistent/zelbrowse", {}, kLong);
  EXPECT_EQ(CountOpenFiles(), before);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
  EXPECT_EQ(errno, ECHILD);
}

TEST(BrowseProgram, AnswersSeveralThreadsAtOnce) {
  std::vector<std::future<BrowseAnswer>> answers;
  for (int i = 0; i < 8; ++i) {
    answers.push_back(
        std::async(std::launch::async, RunShell, "printf '" + std::to_string(i) + "\\000'", kLong));
  }
  for (int i = 0; i < 8; ++i) {
    EXPECT_THAT(Texts(answers[static_cast<size_t>(i)].get()), ElementsAre(std::to_string(i)));
  }
}

TEST(BrowseProgram, GetsNoEnvironment) {
  ASSERT_EQ(setenv("ZEL_OF_THE_AGENT", "1", 1), 0);
  const BrowseAnswer answer = RunBrowseProgram("/usr/bin/env", {"-0"}, kLong);
  unsetenv("ZEL_OF_THE_AGENT");
  EXPECT_THAT(Texts(answer), IsEmpty());
  EXPECT_EQ(Reason(answer), "no browser answers");
}

/// A process that was started with SIGCHLD ignored, as some supervisors do.
class IgnoredEnds : public testing::Test {
 protected:
  IgnoredEnds() : before_(signal(SIGCHLD, SIG_IGN)) {}
  ~IgnoredEnds() override { signal(SIGCHLD, before_); }

 private:
  const sighandler_t before_;
};

TEST_F(IgnoredEnds, KeepNoBrowseProgramFromAnswering) {
  const auto began = std::chrono::steady_clock::now();
  const BrowseAnswer answer = RunShell("printf 'B\\000A\\000'");
  EXPECT_EQ(answer.status, 0u) << Reason(answer);
  EXPECT_THAT(Texts(answer), ElementsAre("B", "A"));
  ExpectNoBrowser(RunShell("echo first; printf last; exit 2"), "last");
  ExpectNoBrowser(RunShell("exit 1"), "no browser answers");
  ExpectNoBrowser(RunShell("kill -SEGV $$"), "no browser answers");
  EXPECT_LT(std::chrono::steady_clock::now() - began, kLong);
}

TEST_F(IgnoredEnds, HaveNobodyKilledByANumberThatIsFree) {
  const TemporaryDirectory directory;
  const std::filesystem::path file = directory.Native() / "child";
  // The child keeps the program's group, and the stream that the call waits for.
  ExpectNoBrowser(RunShell("sleep 1000 & echo $! >" + file.string(), milliseconds(500)),
                  "no answer within");
  const pid_t child = std::stoi(ReadFile(file));
  RunShell("exit 0");
  EXPECT_THAT(ReadFile("/proc/" + std::to_string(child) + "/stat"), HasSubstr("(sleep) S"));
  EXPECT_EQ(kill(child, SIGKILL), 0);
}

/// Gives up, on this thread, the right to send signals to others' processes.
void GiveUpKilling() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
  ASSERT_EQ(syscall(SYS_capget, &header, sets), 0);
  sets[CAP_TO_INDEX(CAP_KILL)].effective &= ~CAP_TO_MASK(CAP_KILL);
  ASSERT_EQ(syscall(SYS_capset, &header, sets), 0);
}

bool IsGoneSoon(pid_t process) {
  const auto deadline = std::chrono::steady_clock::now() + kLong;
  while (kill(process, 0) == 0) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(milliseconds(1));
  }
  return errno == ESRCH;
}

TEST(BrowseProgram, IsLeftWhenItMayNotBeKilled) {
  const TemporaryDirectory directory;
  const std::filesystem::path log = directory.Native() / "log";
  const std::filesystem::path file = directory.Native() / "program";
  ZelDebugContext context{{.logFile = log}};
  LibraryLog().SetContext(&context);
  // It writes when it is another account's, and stops only when nobody reads any more.
  const std::string script =
      "echo $$ >" + file.string() + "; exec setpriv --reuid 65534 --clear-groups cat /dev/zero";
  std::thread([&] {
    GiveUpKilling();
    ExpectNoBrowser(RunBrowseProgram("/bin/sh", {"-c", script}, kLong, kShort), "too long");
  }).join();
  context.Flush();
  LibraryLog().SetContext(nullptr);

  const std::string program = ReadFile(file).substr(0, ReadFile(file).find('\n'));
  EXPECT_THAT(ReadFile(log), HasSubstr("the browse program, process " + program +
                                       ", does not end when it is killed: Operation not "
                                       "permitted"));
  EXPECT_TRUE(IsGoneSoon(std::stoi(program))) << "nobody took leave of it";
}

BrowseAnswer RunZelbrowse(const std::string& domain) {
  return RunBrowseProgram(ZEL_TEST_BIN "/zelbrowse_of_tests", {"servers", domain}, kLong);
}

TEST(Zelbrowse, ListsAllUpToTheEnd) {
  const BrowseAnswer answer = RunZelbrowse("WHOLE");
  EXPECT_EQ(answer.status, 0u) << Reason(answer);
  EXPECT_THAT(Texts(answer), ElementsAre("A", "B"));
}

TEST(Zelbrowse, DoesNotTakeAnErrorForTheEnd) {
  ExpectNoBrowser(RunZelbrowse("BREAKING"), "the browser's list breaks off: Connection reset");
}

TEST(Zelbrowse, FindsNobodyInAnEmptyList) {
  ExpectNoBrowser(RunZelbrowse("SILENT"), "no browser answers for SILENT");
  EXPECT_EQ(Reason(RunZelbrowse("SILENT")), "no browser answers for SILENT");
}

/// `user` and what a process without any rights of its own tells.
auto NoRightsOf(const std::string& user) {
  const std::string none = ":\t0000000000000000";
  return testing::UnorderedElementsAre("user " + user, "dumpable 0", "CapInh" + none,
                                       "CapPrm" + none, "CapEff" + none, "CapAmb" + none,
                                       "NoNewPrivs:\t1");
}

TEST(Zelbrowse, GivesUpWhatRootMayDo) {
  EXPECT_THAT(Texts(RunZelbrowse("RIGHTS")), NoRightsOf("65534"));
}

TEST(Zelbrowse, GivesUpWhatAnyOtherAccountWasGiven) {
  // Two of many, one of which lets it find the program wherever that is.
  const std::string given = "+net_raw,+dac_override";
  const BrowseAnswer answer =
      RunBrowseProgram("/usr/bin/setpriv",
                       {"--reuid", "12345", "--clear-groups", "--inh-caps", given, "--ambient-caps",
                        given, ZEL_TEST_BIN "/zelbrowse_of_tests", "servers", "RIGHTS"},
                       kLong);
  EXPECT_THAT(Texts(answer), NoRightsOf("12345")) << Reason(answer);
}

constexpr NET_API_STATUS kInvalid = 87;

/// What a call stored must not have changed when it failed.
struct Stored {
  uint8_t* buffer = nullptr;
  DWORD count = 11;
  DWORD total = 12;

  bool IsUntouched() const { return buffer == nullptr && count == 11 && total == 12; }
};

/// Calls without a network: on a thread that has one of its own, which is down.
NET_API_STATUS CallWithoutNetwork(DWORD serverType, const WCHAR* domain, Stored* stored) {
  NET_API_STATUS status = 0;
  std::thread([&] {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "these tests run as root";
    status = NetServerEnum(nullptr, 100, &stored->buffer, MAX_PREFERRED_LENGTH, &stored->count,
                           &stored->total, serverType, domain, nullptr);
  }).join();
  return status;
}

class NetServerEnumCall : public testing::Test {
 protected:
  NetServerEnumCall() { LibraryLog().SetContext(&context_); }
  ~NetServerEnumCall() override { LibraryLog().SetContext(nullptr); }

  std::string Log() {
    context_.Flush();
    return ReadFile(file_);
  }

  const TemporaryDirectory directory_;
  const std::filesystem::path file_ = directory_.Native() / "log";
  ZelDebugContext context_{{.logFile = file_}};
  Stored stored_;
};

TEST_F(NetServerEnumCall, RefusesWhatItDoesNotKnow) {
  const ZelString name("ANY");
  const WCHAR* const text = name.GetTCHAR();
  uint8_t** const buffer = &stored_.buffer;
  DWORD* const count = &stored_.count;
  DWORD* const total = &stored_.total;
  DWORD resume = 0;
  const DWORD all = SV_TYPE_ALL;
  const DWORD most = MAX_PREFERRED_LENGTH;
  EXPECT_EQ(NetServerEnum(text, 100, buffer, most, count, total, all, nullptr, nullptr), kInvalid);
  EXPECT_EQ(NetServerEnum(nullptr, 101, buffer, most, count, total, all, nullptr, nullptr),
            kInvalid);
  EXPECT_EQ(NetServerEnum(nullptr, 100, nullptr, most, count, total, all, nullptr, nullptr),
            kInvalid);
  EXPECT_EQ(NetServerEnum(nullptr, 100, buffer, 4096, count, total, all, nullptr, nullptr),
            kInvalid);
  EXPECT_EQ(NetServerEnum(nullptr, 100, buffer, most, nullptr, total, all, nullptr, nullptr),
            kInvalid);
  EXPECT_EQ(NetServerEnum(nullptr, 100, buffer, most, count, nullptr, all, nullptr, nullptr),
            kInvalid);
  EXPECT_EQ(NetServerEnum(nullptr, 100, buffer, most, count, total, 1, nullptr, nullptr), kInvalid);
  EXPECT_EQ(
      NetServerEnum(nullptr, 100, buffer, most, count, total, SV_TYPE_DOMAIN_ENUM, text, nullptr),
      kInvalid);
  EXPECT_EQ(NetServerEnum(nullptr, 100, buffer, most, count, total, all, nullptr, &resume),
            kInvalid);
  EXPECT_TRUE(stored_.IsUntouched());
  EXPECT_THAT(Log(), HasSubstr("invalid arguments"));
}

TEST_F(NetServerEnumCall, KnowsNamesThatNoDomainHas) {
  for (const char* name : {"", "sixteen letters!", "10.0.0.1", "host.example", "A/B", "A\\B",
                           "user:A", "A*", "A?", "\"A\"", "<A>", "A|B", "A\nB", "\x01"}) {
    EXPECT_EQ(CallWithoutNetwork(SV_TYPE_ALL, ZelString(name).GetTCHAR(), &stored_), kNoSuchDomain)
        << name;
  }
  EXPECT_TRUE(stored_.IsUntouched());
  EXPECT_THAT(Log(), HasSubstr("no domain can have this name"));
}

TEST_F(NetServerEnumCall, FindsNoBrowserWithoutANetwork) {
  EXPECT_EQ(CallWithoutNetwork(SV_TYPE_DOMAIN_ENUM, nullptr, &stored_), kNoBrowserFound);
  EXPECT_EQ(CallWithoutNetwork(SV_TYPE_ALL, nullptr, &stored_), kNoBrowserFound);
  const ZelString fifteen("fifteen-letters");
  EXPECT_EQ(CallWithoutNetwork(SV_TYPE_ALL, fifteen.GetTCHAR(), &stored_), kNoBrowserFound);
  EXPECT_TRUE(stored_.IsUntouched());
  // libsmbclient ends the process there and then: the agent is another one, and learns why.
  EXPECT_THAT(Log(), HasSubstr("the network is not browsed: ERROR: Could not determine network "
                               "interfaces"));
}

TEST_F(NetServerEnumCall, StartsNothingWhenItDoesNotKnowWhereTheAgentIs) {
  std::thread([&] {
    // Without /proc, which names the agent's program.
    ASSERT_EQ(unshare(CLONE_NEWNS), 0) << "these tests run as root";
    ASSERT_EQ(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, nullptr), 0);
    EXPECT_EQ(NetServerEnum(nullptr, 100, &stored_.buffer, MAX_PREFERRED_LENGTH, &stored_.count,
                            &stored_.total, SV_TYPE_ALL, nullptr, nullptr),
              kNoBrowserFound);
  }).join();
  EXPECT_TRUE(stored_.IsUntouched());
  EXPECT_THAT(Log(), HasSubstr("the network is not browsed: /proc/self/exe: No such file"));
}

TEST(NetApiBufferFreeCall, FreesNothingWithoutABuffer) {
  EXPECT_EQ(NetApiBufferFree(nullptr), 0u);
}

}  // namespace
