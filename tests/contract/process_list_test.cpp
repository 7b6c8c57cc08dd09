#include <cstdint>
#include <string>
#include <string_view>

#include "tests/contract/module_test.h"

namespace {

using namespace std::literals;

ProcessInfo Identified(uint32_t id, uint32_t parentId = 0) {
  ProcessInfo process;
  process.id = id;
  process.parentId = parentId;
  return process;
}

ProcessInfo Sized(uint64_t virtualBytes, uint64_t usedBytes) {
  ProcessInfo process;
  process.virtualBytes = virtualBytes;
  process.usedBytes = usedBytes;
  return process;
}

ProcessInfo Shell() {
  return {.id = 1234,
          .threadCount = 3,
          .parentId = 4,
          .path = "C:\\bin\\sh.exe",
          .name = "sh.exe",
          .owner = "HOME\\maria",
          .currentCpu = 12,
          .totalCpu = "1:02:03",
          .virtualBytes = 3000000000,
          .usedBytes = 2048};
}

std::string ShellRow() {
  return "{ProcessOwner: String \"HOME\\maria\", ProcessName: String \"sh.exe\", "
         "ProcessPath: String \"C:\\bin\\sh.exe\", ProcessTotalCpu: String \"1:02:03\", "
         "ProcessCurrentCpu: Int32 12, ProcessID: String \"1234\", "
         "ProcessMemoryVirtual: Int32 2929687, ProcessMemoryUsed: Int32 2, "
         "ProcessParentID: String \"4\", ProcessThreadsCount: Int32 3}";
}

/// A process of which only the identifier is known.
std::string BareRow(const std::string& id) {
  return "{ProcessOwner: String \"\", ProcessName: String \"\", ProcessPath: String \"\", "
         "ProcessTotalCpu: String \"\", ProcessCurrentCpu: Int32 0, ProcessID: String \"" +
         id +
         "\", ProcessMemoryVirtual: Int32 0, ProcessMemoryUsed: Int32 0, "
         "ProcessParentID: String \"0\", ProcessThreadsCount: Int32 0}";
}

using ListProcess = ModuleTest;

TEST_F(ListProcess, MeasuresTheLoadAndAnswersOneRow) {
  host.AnswerProcesses({Shell()});

  EXPECT_EQ(Run("CoreUtilsListProcess", {}), (Outcome{kSuccess, "{Values: [" + ShellRow() + "]}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre("ProcessAccess(3)", "ProcessAccess::Refresh()",
                                             "ProcessAccess::GetProcessList()", "~ProcessAccess"));
}

TEST_F(ListProcess, KeepsTheOrderOfTheHostsList) {
  host.AnswerProcesses({Identified(9), Identified(4), Identified(7), Identified(4)});

  EXPECT_EQ(Run("CoreUtilsListProcess", {}),
            (Outcome{kSuccess, "{Values: [" + BareRow("9") + ", " + BareRow("4") + ", " +
                                   BareRow("7") + ", " + BareRow("4") + "]}"}));
}

TEST_F(ListProcess, WritesNoRowsForAnEmptyList) {
  host.AnswerProcesses({});
  EXPECT_EQ(Run("CoreUtilsListProcess", {}), (Outcome{kSuccess, "{}"}));
}

TEST_F(ListProcess, AddsTheRowsToWhatTheContainerHolds) {
  ZelContainer params = Texts({{"Other", "x"}});
  params.SetContainer("Params", Texts({{"Path", "C:/a"}}), kNoIndex);
  host.AnswerProcesses({Shell()});

  EXPECT_EQ(Run("CoreUtilsListProcess", params),
            (Outcome{kSuccess,
                     "{Other: String \"x\", Params: {Path: String \"C:/a\"}, "
                     "Values: [" +
                         ShellRow() + "]}"}));
}

TEST_F(ListProcess, ReplacesRowsThatWereSentIn) {
  ZelContainer params;
  params.SetContainer("Values", Texts({{"mine", "0"}}), 0);
  params.SetContainer("Values", Texts({{"mine", "1"}}), 1);
  host.AnswerProcesses({Shell()});

  EXPECT_EQ(Run("CoreUtilsListProcess", params),
            (Outcome{kSuccess, "{Values: [" + ShellRow() + ", {mine: String \"1\"}]}"}));
}

TEST_F(ListProcess, WritesIdentifiersUnsigned) {
  host.AnswerProcesses({Identified(0xFFFFFFFF, 0x80000000)});

  const std::string container = Run("CoreUtilsListProcess", {}).container;

  EXPECT_THAT(container, ::testing::HasSubstr("ProcessID: String \"4294967295\""));
  EXPECT_THAT(container, ::testing::HasSubstr("ProcessParentID: String \"2147483648\""));
}

TEST_F(ListProcess, CutsMemoryToWholeKibibytesOf32Bits) {
  constexpr uint64_t kKib = 1024;
  const std::pair<uint64_t, const char*> cases[] = {{0, "0"},
                                                    {1023, "0"},
                                                    {1024, "1"},
                                                    {2047, "1"},
                                                    {3000000000, "2929687"},
                                                    {0x7FFFFFFF * kKib, "2147483647"},
                                                    {0x80000000 * kKib, "-2147483648"},
                                                    {0xFFFFFFFF * kKib + 1023, "-1"},
                                                    {0x100000000 * kKib, "0"},
                                                    {0x100000005 * kKib, "5"},
                                                    {UINT64_MAX, "-1"}};
  for (const auto& [sizeBytes, kib] : cases) {
    host.AnswerProcesses({Sized(sizeBytes, 5 * kKib)});
    EXPECT_THAT(Run("CoreUtilsListProcess", {}).container,
                ::testing::HasSubstr("ProcessMemoryVirtual: Int32 "s + kib +
                                     ", ProcessMemoryUsed: Int32 5, "));
    host.AnswerProcesses({Sized(5 * kKib, sizeBytes)});
    EXPECT_THAT(Run("CoreUtilsListProcess", {}).container,
                ::testing::HasSubstr("ProcessMemoryVirtual: Int32 5, ProcessMemoryUsed: Int32 "s +
                                     kib + ", "));
  }
}

TEST_F(ListProcess, PassesOddFiguresAndTextsOn) {
  ProcessInfo odd;
  odd.threadCount = 0xFFFFFFFF;
  odd.path = "100%S";
  odd.name = ZelString("a\0b\xed\xa0\x80"sv);
  odd.owner = "%u\\%d";
  odd.currentCpu = -1;
  odd.totalCpu = "%s";
  host.AnswerProcesses({odd});

  EXPECT_EQ(Run("CoreUtilsListProcess", {}),
            (Outcome{kSuccess,
                     "{Values: [{ProcessOwner: String \"%u\\%d\", "
                     "ProcessName: String \"a\\x00b\xed\xa0\x80\", "
                     "ProcessPath: String \"100%S\", ProcessTotalCpu: String \"%s\", "
                     "ProcessCurrentCpu: Int32 -1, ProcessID: String \"0\", "
                     "ProcessMemoryVirtual: Int32 0, ProcessMemoryUsed: Int32 0, "
                     "ProcessParentID: String \"0\", ProcessThreadsCount: Int32 -1}]}"}));
}

/// The answer of `InfosProcessAvailable`.
std::string Availability(const std::string& parentAndThreads) {
  return "ProcessOwner: Bool true, ProcessName: Bool true, ProcessPath: Bool true, "
         "ProcessTotalCpu: Bool true, ProcessCurrentCpu: Bool true, ProcessID: Bool true, "
         "ProcessMemoryVirtual: Bool true, ProcessMemoryUsed: Bool true, ProcessParentID: Bool " +
         parentAndThreads + ", ProcessThreadsCount: Bool " + parentAndThreads + "}";
}

using InfosProcessAvailable = ModuleTest;

TEST_F(InfosProcessAvailable, TellsThatEveryColumnIsThere) {
  host.Answer("OSVersion::GetMajorVersion", 10);

  EXPECT_EQ(Run("CoreUtilsInfosProcessAvailable", {}),
            (Outcome{kSuccess, "{" + Availability("true")}));

  EXPECT_THAT(host.Transcript(), ElementsAre("OSVersion::GetMajorVersion()"));
}

TEST_F(InfosProcessAvailable, LacksParentsAndThreadsOnTheNt4FamilyAlone) {
  for (const uint32_t version : {0U, 3U, 4U, 5U, 6U, 10U, 0x104U, 0xFFFFFFFFU}) {
    host.Answer("OSVersion::GetMajorVersion", version);
    EXPECT_EQ(Run("CoreUtilsInfosProcessAvailable", {}),
              (Outcome{kSuccess, "{" + Availability(version == 4 ? "false" : "true")}))
        << version;
  }
}

TEST_F(InfosProcessAvailable, AddsToWhatTheContainerHolds) {
  host.Answer("OSVersion::GetMajorVersion", 10);

  EXPECT_EQ(Run("CoreUtilsInfosProcessAvailable", Texts({{"Other", "x"}})),
            (Outcome{kSuccess, "{Other: String \"x\", " + Availability("true")}));
}

ZelContainer Ids(std::initializer_list<const char*> ids) {
  ZelContainer params;
  uint32_t index = 0;
  for (const char* id : ids) params.SetString("ProcessID", id, index++);
  return params;
}

std::string Termination(const std::string& id) {
  return "ProcessAccess::TerminateProcessByID(" + id + ")";
}

class TerminateProcess : public ModuleTest {
 protected:
  /// Ends the process of this one identifier, and tells which one that was.
  std::string Terminated(const ZelContainer& params) {
    host.ForgetTranscript();
    host.Answer("ProcessAccess::TerminateProcessByID", 1);
    EXPECT_EQ(Run("CoreUtilsTerminateProcess", params), (Outcome{kSuccess, Describe(params)}));
    EXPECT_EQ(host.Transcript().size(), 3u);
    return host.Transcript()[1];
  }
};

TEST_F(TerminateProcess, EndsEveryProcessOfTheListAndLeavesTheContainer) {
  host.Answer("ProcessAccess::TerminateProcessByID", 1);
  host.Answer("ProcessAccess::TerminateProcessByID", 7);

  EXPECT_EQ(Run("CoreUtilsTerminateProcess", Ids({"1234", "0x10"})),
            (Outcome{kSuccess, "{ProcessID: [String \"1234\", String \"0x10\"]}"}));

  EXPECT_THAT(host.Transcript(), ElementsAre("ProcessAccess()", Termination("1234"),
                                             Termination("16"), "~ProcessAccess"));
}

TEST_F(TerminateProcess, GoesOnAfterAFailureAndRemembersIt) {
  for (const auto& [first, second, third] :
       {std::tuple{0, 1, 1}, std::tuple{1, 0, 1}, std::tuple{1, 1, 0}, std::tuple{0, 0, 0}}) {
    host.ForgetTranscript();
    for (const int ended : {first, second, third}) {
      host.Answer("ProcessAccess::TerminateProcessByID", ended);
    }

    EXPECT_EQ(Run("CoreUtilsTerminateProcess", Ids({"1", "2", "3"})),
              (Outcome{kFailure, "{ProcessID: [String \"1\", String \"2\", String \"3\"]}"}));

    EXPECT_THAT(host.Transcript(),
                ElementsAre("ProcessAccess()", Termination("1"), Termination("2"), Termination("3"),
                            "~ProcessAccess"));
  }
}

TEST_F(TerminateProcess, SucceedsWithoutIdentifiers) {
  for (const ZelContainer& params : {ZelContainer(), Texts({{"Other", "7"}})}) {
    host.ForgetTranscript();

    EXPECT_EQ(Run("CoreUtilsTerminateProcess", params), (Outcome{kSuccess, Describe(params)}));

    EXPECT_THAT(host.Transcript(), ElementsAre("ProcessAccess()", "~ProcessAccess"));
  }
}

TEST_F(TerminateProcess, TakesASingleIdentifierToo) {
  EXPECT_EQ(Terminated(Texts({{"ProcessID", "77"}})), Termination("77"));
}

TEST_F(TerminateProcess, ReadsDecimalHexadecimalAndOctal) {
  const std::pair<const char*, const char*> cases[] = {
      {"16", "16"},    {"0x10", "16"}, {"0X1f", "31"},
      {"010", "8"},    {"0", "0"},     {" 12", "12"},
      {"12abc", "12"}, {"08", "8"},    {"", "0"},
      {"sh.exe", "0"}, {"%u", "0"},    {"4294967295", "4294967295"},
      {"-5", "0"},     {"-0x10", "0"}, {"99999999999", "4294967295"}};
  for (const auto& [text, id] : cases) {
    EXPECT_EQ(Terminated(Ids({text})), Termination(id)) << text;
  }
}

TEST_F(TerminateProcess, TakesIdentifiersOfOtherTypesAsZero) {
  ZelContainer numbers;
  numbers.SetInt32("ProcessID", 1234, 0);
  ZelContainer number;
  number.SetInt32("ProcessID", 1234, kNoIndex);
  ZelContainer flag;
  flag.SetBool("ProcessID", true, kNoIndex);
  ZelContainer container;
  container.SetContainer("ProcessID", Texts({{"ProcessID", "5"}}), kNoIndex);
  for (const ZelContainer& params : {numbers, number, flag, container}) {
    EXPECT_EQ(Terminated(params), Termination("0"));
  }
}

}  // namespace
