#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "agent/zelctl/command_line_text.h"
#include "agent/zelctl/interruption.h"
#include "agent/zelctl/local_file.h"
#include "agent/zelctl/process_commands.h"
#include "agent/zelctl/process_output.h"
#include "agent/zelctl/script_command.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/zelctl_agent.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

constexpr char kDirectories[] =
    R"({"code":0,"container":{"DataDirectory":"/data/","ConfigDirectory":"/config/"}})";

class ZelctlPrograms : public ZelctlTest {
 protected:
  std::string LocalScript(const std::string& bytes) {
    const std::filesystem::path file = directory_.Native() / "job.mlx";
    std::ofstream(file, std::ios::binary) << bytes;
    return PathText(file);
  }

  TemporaryDirectory directory_;
};

TEST(ZelctlCommandLine, JoinsPlainArgumentsWithBlanks) {
  EXPECT_EQ(JoinArguments({}), "");
  EXPECT_EQ(JoinArguments({"-c", "a\\b\\", "ü"}), "-c a\\b\\ ü");
}

TEST(ZelctlCommandLine, QuotesWhatWouldFallApart) {
  EXPECT_EQ(JoinArguments({"", "a b", "a\tb", ""}), "\"\" \"a b\" \"a\tb\" \"\"");
}

TEST(ZelctlCommandLine, DoublesBackslashesBeforeQuotesOnly) {
  EXPECT_EQ(JoinArguments({R"(say "hi")"}), R"("say \"hi\"")");
  EXPECT_EQ(JoinArguments({R"(a\"b)"}), R"("a\\\"b")");
  EXPECT_EQ(JoinArguments({R"(C:\a b\)"}), R"("C:\a b\\")");
  EXPECT_EQ(JoinArguments({R"(\\host\a b)"}), R"("\\host\a b")");
  EXPECT_EQ(JoinArguments({R"(")"}), R"("\"")");
}

TEST(ZelctlCommandLine, ReadsProcessIdsAsCWritesThem) {
  EXPECT_EQ(ParseProcessId("1"), 1u);
  EXPECT_EQ(ParseProcessId("4294967295"), 4294967295u);
  EXPECT_EQ(ParseProcessId("0x1A"), 26u);
  EXPECT_EQ(ParseProcessId("0XFFFFFFFF"), 4294967295u);
  EXPECT_EQ(ParseProcessId("032"), 26u);
}

TEST(ZelctlCommandLine, RefusesWhatIsNoProcessId) {
  for (const char* text : {"", "0", "00", "0x0", "-1", "+1", " 1", "1 ", "1.0", "x", "0x", "0xg",
                           "08", "4294967296", "0x100000000", "0x-1", "99999999999999999999"}) {
    EXPECT_FALSE(ParseProcessId(text)) << text;
  }
}

TEST_F(ZelctlPrograms, RunsAProgramWithItsArgumentsAsOneText) {
  const Result result = RunProgram(client_, {"/bin/sh", {"-c", "touch /tmp/x"}, false});
  EXPECT_EQ(result.json, kGood);
  EXPECT_EQ(result.text, "");
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsRunProgram"));
  EXPECT_THAT(
      bodies_,
      ElementsAre(
          R"({"Path":"/bin/sh","Parameters":"-c \"touch /tmp/x\"","ProgramContext":false})"));
}

TEST_F(ZelctlPrograms, RunsAProgramInTheUsersSession) {
  RunProgram(client_, {"notepad.exe", {}, true});
  EXPECT_THAT(bodies_,
              ElementsAre(R"({"Path":"notepad.exe","Parameters":"","ProgramContext":true})"));
}

TEST_F(ZelctlPrograms, SendsNothingForAProgramThatCannotBeNamed) {
  const Failure quoted = FailureOf([&] { RunProgram(client_, {"a\"b", {}, false}); });
  EXPECT_EQ(quoted.Status(), ExitStatus::kUsage);
  EXPECT_STREQ(quoted.what(), "the program's name 'a\"b' holds a double quote");
  EXPECT_EQ(FailureOf([&] { RunProgram(client_, {"", {}, false}); }).Status(), ExitStatus::kUsage);
  EXPECT_TRUE(actions_.empty());
}

TEST_F(ZelctlPrograms, TellsWhenAProgramCouldNotBeStarted) {
  replies_["CoreUtilsRunProgram"] = kFailed;
  const Failure failure = FailureOf([&] { RunProgram(client_, {"/none", {}, false}); });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(), "CoreUtilsRunProgram: code 1: failure");
  EXPECT_EQ(failure.Reply(), kFailed);
}

TEST(ZelctlScript, TellsFileLineAndMessageOfAnError) {
  const std::string compile =
      "Fatal parse or run time error MARLIN_ERROR_SYNTAX line 3\r\n"
      "The script is not well-formed: job.mlx:3: unexpected symbol";
  EXPECT_EQ(FormatScriptError(compile, 3, "/data/job.mlx", "./job.mlx"),
            "./job.mlx:3: unexpected symbol");
  const std::string run =
      "Fatal parse or run time error MARLIN_ERROR_RUNTIME line 3\r\n"
      " An error was raised: /data/job.mlx:3: at 7: no such thing";
  EXPECT_EQ(FormatScriptError(run, 3, "job.mlx", "job.mlx"), "job.mlx:3: at 7: no such thing");
}

TEST(ZelctlScript, KeepsADetailThatDoesNotStartWithTheScript) {
  const std::string text =
      "Fatal parse or run time error E line 0\r\n Text: it is in job.mlx: 3: x";
  EXPECT_EQ(FormatScriptError(text, 0, "job.mlx", "job"), "job: it is in job.mlx: 3: x");
  const std::string other = "Fatal parse or run time error E line 2\r\n Text: lib.mlx:9: x";
  EXPECT_EQ(FormatScriptError(other, 2, "job.mlx", "job"), "job:2: lib.mlx:9: x");
  const std::string withoutLine = "Fatal parse or run time error E line 0\r\nText: job.mlx: gone";
  EXPECT_EQ(FormatScriptError(withoutLine, 0, "job.mlx", "job"), "job: gone");
}

TEST(ZelctlScript, FallsBackToWhatThereIsOfAnErrorText) {
  EXPECT_EQ(FormatScriptError("Fatal\r\n Out of memory: ", 4, "a", "a"), "a:4: Out of memory");
  EXPECT_EQ(FormatScriptError("Fatal\r\nOut of memory", 4, "a", "a"), "a:4: Out of memory");
  EXPECT_EQ(FormatScriptError("something else", 0, "a", "a"), "a: something else");
  EXPECT_EQ(FormatScriptError("", -1, "", ""), ": ");
}

TEST_F(ZelctlPrograms, RunsAScriptWithParameters) {
  const Result result = RunScript(
      client_, {"jobs/job.mlx", "", {"Text=a\"b", "Count:=3", "Deep:={\"x\":[1,2]}"}, true});
  EXPECT_EQ(result.json, kGood);
  EXPECT_THAT(bodies_, ElementsAre(R"({"Name":"jobs/job.mlx","Params":)"
                                   R"({"Text":"a\"b","Count":3,"Deep":{"x":[1,2]}},)"
                                   R"("CompileOnly":true})"));
}

TEST_F(ZelctlPrograms, ReturnsTheErrorInAScriptAsADiagnostic) {
  replies_["CoreUtilsRunScript"] =
      R"({"code":1,"container":{"ErrorText":"Fatal parse or run time error E line 2\r\n )"
      R"(Text: job.mlx:2: boom","ErrorLine":2}})";
  const Result result = RunScript(client_, {"job.mlx", "", {}, false});
  EXPECT_EQ(result.diagnostic, "job.mlx:2: boom");
  EXPECT_EQ(result.problem, "");
  EXPECT_EQ(result.json, replies_["CoreUtilsRunScript"]);
}

TEST_F(ZelctlPrograms, SaysWhatAScriptWithoutAnErrorTextMayLack) {
  replies_["CoreUtilsRunScript"] = kFailed;
  const Failure failure = FailureOf([&] { RunScript(client_, {"none.mlx", "", {}, false}); });
  EXPECT_EQ(failure.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(failure.what(),
               "none.mlx: could not be run: there is no such script, or the agent has no function "
               "module (CoreUtilsRunScript: code 1: failure)");
  replies_["CoreUtilsRunScript"] = R"({"code":12,"container":{}})";
  EXPECT_STREQ(FailureOf([&] {
                 RunScript(client_, {"none.mlx", "", {}, false});
               }).what(),
               "CoreUtilsRunScript: code 12: refused by the privacy check");
}

TEST_F(ZelctlPrograms, WantsEitherANameOrALocalScript) {
  for (const ScriptOptions& wrong :
       {ScriptOptions{"", "", {}, false}, ScriptOptions{"a.mlx", "b.mlx", {}, false}}) {
    EXPECT_EQ(FailureOf([&] { RunScript(client_, wrong); }).Status(), ExitStatus::kUsage);
  }
  EXPECT_TRUE(actions_.empty());
}

TEST_F(ZelctlPrograms, CopiesRunsAndDeletesALocalScript) {
  replies_["AgentGetDirectories"] = kDirectories;
  const Result result =
      RunScript(client_, {"", LocalScript("\xEF\xBB\xBFx = 1\r\n"), {"Key=value"}, false});
  EXPECT_EQ(result.json, kGood);
  EXPECT_EQ(result.problem + result.diagnostic, "");
  ASSERT_THAT(actions_, ElementsAre("AgentGetDirectories", "CoreUtilsWriteFile",
                                    "CoreUtilsRunScript", "CoreUtilsDeleteFile"));
  // The path is another one each time; "eCA9IDENCg==" is the text without its mark.
  const std::string path =
      bodies_[3].substr(9, std::string("/data/ZelCoreUtils/zelctl-.mlx").size() + 16);
  EXPECT_THAT(path, StartsWith("/data/ZelCoreUtils/zelctl-"));
  EXPECT_EQ(bodies_[1], "{\"Path\":\"" + path + R"(","FileContent":"eCA9IDENCg=="})");
  EXPECT_EQ(bodies_[2],
            "{\"Name\":\"" + path + R"(","Params":{"Key":"value"},"CompileOnly":false})");
  EXPECT_EQ(bodies_[3], "{\"Path\":\"" + path + "\"}");
}

TEST_F(ZelctlPrograms, NamesEachCopyOfALocalScriptDifferently) {
  replies_["AgentGetDirectories"] = kDirectories;
  const std::string file = LocalScript("x = 1");
  RunScript(client_, {"", file, {}, false});
  RunScript(client_, {"", file, {}, false});
  ASSERT_EQ(bodies_.size(), 8u);
  EXPECT_NE(bodies_[3], bodies_[7]);
}

TEST_F(ZelctlPrograms, TellsErrorsOfALocalScriptWithItsLocalName) {
  replies_["AgentGetDirectories"] = kDirectories;
  replies_["CoreUtilsRunScript"] =
      R"({"code":1,"container":{"ErrorText":"Fatal parse or run time error E line 2\r\n)"
      R"(Text: boom","ErrorLine":2}})";
  const std::string file = LocalScript("x");
  EXPECT_EQ(RunScript(client_, {"", file, {}, false}).diagnostic, file + ":2: boom");
  EXPECT_EQ(actions_.back(), "CoreUtilsDeleteFile");
}

TEST_F(ZelctlPrograms, DeletesTheCopyOfAScriptThatCouldNotBeRun) {
  replies_["AgentGetDirectories"] = kDirectories;
  replies_["CoreUtilsRunScript"] = kFailed;
  const std::string file = LocalScript("x");
  const Failure failure = FailureOf([&] { RunScript(client_, {"", file, {}, false}); });
  EXPECT_THAT(failure.what(), StartsWith(file + ": could not be run"));
  EXPECT_EQ(actions_.back(), "CoreUtilsDeleteFile");
}

TEST_F(ZelctlPrograms, DeletesWhatAFailedUploadMayHaveLeft) {
  replies_["AgentGetDirectories"] = kDirectories;
  replies_["CoreUtilsWriteFile"] = R"({"code":12,"container":{}})";
  const std::string file = LocalScript("x");
  const Failure failure = FailureOf([&] { RunScript(client_, {"", file, {}, false}); });
  EXPECT_STREQ(failure.what(), "CoreUtilsWriteFile: code 12: refused by the privacy check");
  EXPECT_THAT(actions_,
              ElementsAre("AgentGetDirectories", "CoreUtilsWriteFile", "CoreUtilsDeleteFile"));
}

TEST_F(ZelctlPrograms, TellsWhenTheCopyCouldNotBeDeleted) {
  replies_["AgentGetDirectories"] = kDirectories;
  replies_["CoreUtilsDeleteFile"] = R"({"code":12,"container":{}})";
  const std::string file = LocalScript("x");
  EXPECT_THAT(RunScript(client_, {"", file, {}, false}).problem,
              MatchesRegex("the copy /data/ZelCoreUtils/zelctl-.*.mlx could not be deleted: code "
                           "12: refused by the privacy check"));
  replies_["CoreUtilsRunScript"] = kFailed;
  EXPECT_THAT(FailureOf([&] {
                RunScript(client_, {"", file, {}, false});
              }).what(),
              HasSubstr("code 1: failure); the copy /data/ZelCoreUtils/zelctl-"));
}

TEST_F(ZelctlPrograms, DeletesTheCopyAfterAnInterruption) {
  replies_["AgentGetDirectories"] = kDirectories;
  const std::string file = LocalScript("x");
  interruptedAction_ = "CoreUtilsRunScript";
  const Failure failure = FailureOf([&] { RunScript(client_, {"", file, {}, false}); });
  EXPECT_THAT(failure.what(), StartsWith("interrupted"));
  EXPECT_EQ(actions_.back(), "CoreUtilsDeleteFile");
}

TEST_F(ZelctlPrograms, SendsNothingOfALocalScriptThatIsNoneOrWithWrongParameters) {
  const std::string bad = LocalScript("caf\xe9");
  const Failure notText = FailureOf([&] { RunScript(client_, {"", bad, {}, false}); });
  EXPECT_EQ(notText.Status(), ExitStatus::kUsage);
  EXPECT_EQ(notText.what(), bad + " is not UTF-8 text; nothing was sent");
  const std::string missing = PathText(directory_.Native() / "none.mlx");
  EXPECT_EQ(FailureOf([&] {
              RunScript(client_, {"", missing, {}, false});
            }).what(),
            missing + " cannot be read");
  const std::string good = LocalScript("x");
  EXPECT_THAT(FailureOf([&] {
                RunScript(client_, {"", good, {"nonsense"}, false});
              }).what(),
              HasSubstr("'nonsense' is neither"));
  EXPECT_TRUE(actions_.empty());
}

std::string Process(const char* id, const char* parent, const char* name,
                    const char* owner = "root", const char* rest = "") {
  return std::string(R"({"ProcessOwner":")") + owner + R"(","ProcessName":")" + name +
         R"(","ProcessID":")" + id + R"(","ProcessParentID":")" + parent + "\"" + rest + "}";
}

std::string Listing(const std::vector<std::string>& rows) {
  std::string values;
  for (const std::string& row : rows) values += (values.empty() ? "" : ",") + row;
  return R"({"code":0,"container":{"Values":[)" + values + "]}}";
}

/// The names of the rows shown, one after the other, with the blanks before them.
std::vector<std::string> Names(const std::string& table) {
  std::vector<std::string> names;
  size_t column = 0;
  for (size_t start = 0; start < table.size();) {
    const size_t end = table.find('\n', start);
    const std::string line = table.substr(start, end - start);
    if (start == 0) column = line.find("NAME");
    if (start > 0) names.push_back(line.substr(column));
    start = end + 1;
  }
  return names;
}

TEST_F(ZelctlPrograms, ListsProcessesAsATable) {
  replies_["CoreUtilsListProcess"] =
      Listing({Process("12", "1", "cron", "ülf",
                       R"(,"ProcessPath":"/usr/sbin/cron","ProcessTotalCpu":"0:00:07",)"
                       R"("ProcessCurrentCpu":5,"ProcessMemoryUsed":2048,"ProcessThreadsCount":1)"),
               Process("1", "0", "init\\u001b", "root",
                       R"(,"ProcessTotalCpu":"110:01:00","ProcessCurrentCpu":100,)"
                       R"("ProcessMemoryUsed":-1048576,"ProcessThreadsCount":23)")});
  const Result result = ListProcesses(client_, {});
  EXPECT_EQ(result.json, replies_["CoreUtilsListProcess"]);
  EXPECT_EQ(result.text,
            "PID  PARENT  OWNER  CPU%       TIME   MEMORY  THREADS  NAME\n"
            "  1       0  root    100  110:01:00  4.0 TiB       23  init\\x1b\n"
            " 12       1  ülf       5    0:00:07  2.0 MiB        1  cron\n");
  ProcessListOptions withPaths;
  withPaths.withPaths = true;
  EXPECT_THAT(ListProcesses(client_, withPaths).text, HasSubstr("  /usr/sbin/cron\n"));
}

TEST_F(ZelctlPrograms, PrintsNothingWhereNoProcessMatches) {
  EXPECT_EQ(ListProcesses(client_, {}).text, "");
  replies_["CoreUtilsListProcess"] = Listing({Process("1", "0", "init")});
  ProcessListOptions options;
  options.filter = "none";
  EXPECT_EQ(ListProcesses(client_, options).text, "");
}

TEST_F(ZelctlPrograms, FiltersByNamePathOwnerAndId) {
  replies_["CoreUtilsListProcess"] =
      Listing({Process("1", "0", "init"), Process("12", "1", "cron", "Daemon"),
               Process("112", "1", "sh", "root", R"(,"ProcessPath":"/opt/Tools/sh")")});
  const auto namesFor = [&](const char* filter) {
    ProcessListOptions options;
    options.filter = filter;
    return Names(ListProcesses(client_, options).text);
  };
  EXPECT_THAT(namesFor("INI"), ElementsAre("init"));
  EXPECT_THAT(namesFor("daemon"), ElementsAre("cron"));
  EXPECT_THAT(namesFor("tools"), ElementsAre("sh"));
  EXPECT_THAT(namesFor("*/s?"), ElementsAre("sh"));
  EXPECT_THAT(namesFor("r*"), ElementsAre("init", "sh"));
  EXPECT_THAT(namesFor("12"), ElementsAre("cron"));
  EXPECT_THAT(namesFor(""), ElementsAre("init", "cron", "sh"));
}

TEST_F(ZelctlPrograms, SortsByEachColumnInBothDirections) {
  replies_["CoreUtilsListProcess"] = Listing(
      {Process("30", "1", "b", "Carl",
               R"(,"ProcessTotalCpu":"10:00:00","ProcessCurrentCpu":1,"ProcessMemoryUsed":5)"),
       Process("4", "1", "C", "anna",
               R"(,"ProcessTotalCpu":"9:59:59","ProcessCurrentCpu":3,"ProcessMemoryUsed":-5)"),
       Process("200", "1", "a", "Bert",
               R"(,"ProcessTotalCpu":"0:59:59","ProcessCurrentCpu":3,"ProcessMemoryUsed":7)")});
  const auto order = [&](const char* name, bool isReversed) {
    ProcessListOptions options;
    options.order = name;
    options.isReversed = isReversed;
    std::string names;
    for (const std::string& one : Names(ListProcesses(client_, options).text)) names += one;
    return names;
  };
  EXPECT_EQ(order("id", false), "Cba");
  EXPECT_EQ(order("id", true), "abC");
  EXPECT_EQ(order("name", false), "abC");
  EXPECT_EQ(order("owner", false), "Cab");
  EXPECT_EQ(order("owner", true), "baC");
  EXPECT_EQ(order("cpu", false), "Cab");
  EXPECT_EQ(order("cpu", true), "bCa");
  EXPECT_EQ(order("memory", false), "Cab");
  EXPECT_EQ(order("memory", true), "baC");
  EXPECT_EQ(order("time", false), "bCa");
  EXPECT_EQ(FailureOf([&] { order("colour", false); }).Status(), ExitStatus::kUsage);
}

TEST_F(ZelctlPrograms, ShowsTheFirstRowsInTheOrderAskedFor) {
  replies_["CoreUtilsListProcess"] =
      Listing({Process("1", "0", "a"), Process("2", "1", "b"), Process("3", "1", "c")});
  ProcessListOptions options;
  options.isReversed = true;
  options.limit = 2;
  EXPECT_THAT(Names(ListProcesses(client_, options).text), ElementsAre("c", "b"));
  options.limit = 9;
  EXPECT_EQ(Names(ListProcesses(client_, options).text).size(), 3u);
}

TEST_F(ZelctlPrograms, ShowsChildrenBelowTheirParents) {
  replies_["CoreUtilsListProcess"] =
      Listing({Process("5", "2", "deep"), Process("2", "1", "b"), Process("1", "0", "top"),
               Process("3", "1", "a"), Process("9", "77", "orphan")});
  ProcessListOptions options;
  options.asTree = true;
  EXPECT_THAT(Names(ListProcesses(client_, options).text),
              ElementsAre("top", "  b", "    deep", "  a", "orphan"));
  options.order = "name";
  options.limit = 3;
  EXPECT_THAT(Names(ListProcesses(client_, options).text), ElementsAre("orphan", "top", "  a"));
}

TEST(ZelctlProcesses, ShowsEachProcessOnceWhereParentsFormARing) {
  std::vector<ProcessRow> rows(5);
  const uint32_t ids[] = {1, 2, 3, 4, 1};
  const uint32_t parents[] = {3, 1, 2, 4, 4};
  for (size_t i = 0; i < rows.size(); ++i) {
    rows[i].id = ids[i];
    rows[i].parentId = parents[i];
  }
  const std::vector<ProcessRow> tree = ArrangeAsTree(rows);
  std::vector<std::pair<uint32_t, size_t>> shown;
  for (const ProcessRow& row : tree) shown.emplace_back(row.id, row.depth);
  EXPECT_THAT(shown, ElementsAre(std::pair(4, 0), std::pair(1, 1), std::pair(1, 0), std::pair(2, 1),
                                 std::pair(3, 2)));
}

TEST(ZelctlProcesses, StandsALongChainOfParents) {
  constexpr uint32_t kCount = 20'000;
  std::vector<ProcessRow> rows(kCount);
  for (uint32_t i = 0; i < kCount; ++i) {
    rows[i].id = kCount - i;
    rows[i].parentId = kCount - i - 1;
  }
  const std::vector<ProcessRow> tree = ArrangeAsTree(rows);
  ASSERT_EQ(tree.size(), kCount);
  EXPECT_EQ(tree.front().id, 1u);
  EXPECT_EQ(tree.back().depth, kCount - 1);
  EXPECT_LT(FormatProcesses(tree, false).size(), size_t{kCount} * 200);
}

TEST_F(ZelctlPrograms, EndsProcessesByTheirIds) {
  const Result result = EndProcesses(client_, {"17", "0x1F", "010"});
  EXPECT_EQ(result.json, kGood);
  EXPECT_THAT(actions_, ElementsAre("CoreUtilsTerminateProcess"));
  EXPECT_THAT(bodies_, ElementsAre(R"({"ProcessID":["17","31","8"]})"));
}

TEST_F(ZelctlPrograms, EndsNothingWhenOneIdIsWrong) {
  const Failure failure = FailureOf([&] { EndProcesses(client_, {"17", "1x"}); });
  EXPECT_EQ(failure.Status(), ExitStatus::kUsage);
  EXPECT_THAT(failure.what(), StartsWith("'1x' is no process ID"));
  EXPECT_EQ(FailureOf([&] { EndProcesses(client_, {}); }).Status(), ExitStatus::kUsage);
  EXPECT_TRUE(actions_.empty());
}

TEST_F(ZelctlPrograms, TellsWhenProcessesCouldNotBeEnded) {
  replies_["CoreUtilsTerminateProcess"] = kFailed;
  const Failure many = FailureOf([&] { EndProcesses(client_, {"17", "18"}); });
  EXPECT_EQ(many.Status(), ExitStatus::kActionFailed);
  EXPECT_STREQ(many.what(),
               "at least one of the processes could not be ended "
               "(CoreUtilsTerminateProcess: code 1: failure)");
  EXPECT_STREQ(FailureOf([&] { EndProcesses(client_, {"17"}); }).what(),
               "the process 17 could not be ended (CoreUtilsTerminateProcess: code 1: failure)");
}

}  // namespace
