// Every case runs once undisturbed and then again and again with host call 1, 2, ... failing, and
// with memory allocation 1, 2, ... failing. What must hold each time: nothing is thrown, the code
// is a documented one, and the container holds no parameters and no half-written result. Where an
// action leaves something behind in the process, what a throwing host call leaves is looked at,
// too.

#include <algorithm>
#include <string>
#include <vector>

#include "tests/contract/allocation_fault.h"
#include "tests/contract/fault_sweep_cases.h"
#include "tests/contract/module_test.h"
#include "tests/contract/transfer_test.h"
#include "tests/fake_host/fake_function_module.h"

namespace {

using ::testing::AnyOf;
using ::testing::Contains;
using Fault = FakeHost::Fault;

ZelContainer Paths(const char* source, const char* destination) {
  return Texts({{"SourcePath", source}, {"DestinationPath", destination}});
}

void AnswerPair(FakeHost& host) {
  AnswerVerdict(host, kReadable);
  AnswerVerdict(host, kWritable);
}

void AnswerEntry(FakeHost& host, uint32_t attributes, int64_t size) {
  host.Answer("FileGetAttributes", attributes);
  host.Answer("FileGetAttributes", attributes);
  if (size > 0) host.Answer("FileGetSize64", size);
  host.Answer("FileGetWriteTime", 1000);
  host.Answer("FileGetMode", 0100644);
  host.Answer("FileIsAscii", 1);
}

/// The calls that write a file which exists: up to where its old content has gone.
void AnswerReplacement(FakeHost& host) {
  host.Answer("FileExists", 1);
  host.Answer("FileOpen", 7);
  host.Answer("FileGetSize", 3);
  host.AnswerBytes("FileRead", "old");
  host.Answer("FileRead", 0);
  host.Answer("FileExists", 0);
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);
  host.Answer("FileCreate", 8);
}

std::vector<Case> CasesOfContent() {
  ZelContainer page = Texts({{"Path", "C:/x"}});
  page.SetInt32("Count", 1, kNoIndex);
  ZelContainer wholeFile = Texts({{"Path", "C:/a"}});
  wholeFile.SetInt32("Length", 5, kNoIndex);
  return {
      {.name = "digest",
       .action = "CoreUtilsFileMD5",
       .params = Texts({{"FilePath", "C:/a long path that needs memory of its own"}}),
       .script =
           [](FakeHost& host) { host.AnswerText("FileMd5", "0123456789abcdef0123456789abcdef"); },
       .resultKeys = {"FilePath", "FileChecksum"}},
      {.name = "list directory",
       .action = "CoreUtilsGetDirList",
       .params = page,
       .script =
           [](FakeHost& host) {
             AnswerVerdict(host, kReadable);
             host.AnswerDirectory({{".", 16}, {"sub", 16}, {"a.txt", 128}});
             AnswerEntry(host, 16, 0);
             AnswerEntry(host, 128, 5);
           },
       .resultKeys = {"Total"}},
      {.name = "read",
       .action = "CoreUtilsReadFile",
       .params = wholeFile,
       .script =
           [](FakeHost& host) {
             host.Answer("FileExists", 1);
             AnswerVerdict(host, kReadable);
             host.Answer("FileOpen", 7);
             host.Answer("FileGetSize", 5);
             host.AnswerBytes("FileRead", "hello");
             host.Answer("FileRead", 0);
           },
       .resultKeys = {"Result"}},
      {.name = "write",
       .action = "CoreUtilsWriteFile",
       .params = Texts({{"Path", "C:/a"}, {"FileContent", "aGVsbG8="}}),
       .script =
           [](FakeHost& host) {
             AnswerVerdict(host, kWritable);
             AnswerReplacement(host);
             host.Answer("FileWrite", 3);
             host.Answer("FileWrite", 5);
             host.Answer("FileDelete", 0);
           },
       .resultKeys = {"Result"}},
      {.name = "write a new file",
       .action = "CoreUtilsWriteFile",
       .params = Texts({{"Path", "C:/a"}, {"FileContent", ""}}),
       .script =
           [](FakeHost& host) {
             AnswerVerdict(host, kWritable);
             host.Answer("FileExists", 0);
             host.Answer("FileCreate", 7);
             host.Answer("FileExists", 0);
             host.Answer("FileCopy", 0);
             host.Answer("FileDelete", 0);
             host.Answer("FileCreate", 8);
             host.Answer("FileWrite", 3);
             host.Answer("FileDelete", 0);
           },
       .resultKeys = {"Result"}},
  };
}

std::vector<Case> CasesOfFileOperations() {
  ZelContainer recursive = Texts({{"Path", "C:/x"}});
  recursive.SetBool("Recursive", true, kNoIndex);
  return {
      {"copy", "CoreUtilsCopyFile", Paths("C:/a", "C:/b"),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerPair(host);
         host.Answer("FileCopyNet", 0);
       }},
      {"copy onto itself", "CoreUtilsCopyFile", Paths("C:/a", "C:/a"),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerPair(host);
         host.Answer("FileExists", 1);
         host.Answer("FileExists", 1);
         host.Answer("FileExists", 0);
         host.Answer("FileCopyNet", 0);
       }},
      {"rename", "CoreUtilsRenameFile", Paths("C:/a", "C:/b"),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerPair(host);
         host.Answer("FileRenameNet", 0);
       }},
      {"delete", "CoreUtilsDeleteFile", Texts({{"Path", "C:/a"}}),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerVerdict(host, kWritable);
         host.Answer("FileDeleteNet", 0);
       }},
      {"size",
       "CoreUtilsGetFileSize",
       Texts({{"Path", "C:/a"}}),
       [](FakeHost& host) {
         host.Answer("FileExists", 1);
         AnswerVerdict(host, kReadable);
         host.Answer("FileGetSize", 5);
       },
       {"Result"}},
      {"create directory", "CoreUtilsDirCreate", Texts({{"Path", "C:/x/y"}}),
       [](FakeHost& host) {
         host.Answer("DirExists", 0);
         AnswerVerdict(host, kWritable);
         host.Answer("DirCreate", 1);
       }},
      {"rename directory", "CoreUtilsDirRename", Paths("C:/x", "C:/y"),
       [](FakeHost& host) {
         AnswerPair(host);
         host.Answer("DirRename", 1);
         host.Answer("DirRename", 1);
       }},
      {"delete directory", "CoreUtilsDirDelete", Texts({{"Path", "C:/x"}}),
       [](FakeHost& host) {
         AnswerVerdict(host, kWritable);
         host.Answer("DirDelete", 1);
       }},
      {"delete directory with its content", "CoreUtilsDirDelete", recursive,
       [](FakeHost& host) {
         AnswerVerdict(host, kWritable);
         host.Answer("DirDelete", 1);
       }},
  };
}

/// A script is compiled and run after this.
void AnswerScriptPreparation(FakeHost& host) {
  host.AnswerText("OSVersion::GetFullVersion", "010.000.19045");
  host.AnswerText("ZelAgentGetProxyPipeName", "a pipe whose name needs memory of its own");
  host.Answer("XmlProxyClient::Initialise", 1);
  host.Answer("ZelAgentGetAppHandle", 4711);
  host.AnswerText("ZelAgentGetExePath", "C:/agent/bin/zelagent.exe");
  host.AnswerText("ZelAgentGetConfigDir", "C:/agent/config/");
  host.AnswerModule(true, FunctionModuleHandle());
  host.AnswerText("CompletePath", "C:/agent/data/ZelCoreUtils/a.mlx");
  host.Answer("FileExists", 1);
}

ZelContainer Script(bool compileOnly) {
  ZelContainer params = Texts({{"Name", "a.mlx"}});
  params.SetContainer("Params", Texts({{"Key", "a text that needs memory of its own"}}), kNoIndex);
  params.SetBool("CompileOnly", compileOnly, kNoIndex);
  return params;
}

std::vector<Case> CasesOfScripts() {
  return {
      {.name = "run a script",
       .action = "CoreUtilsRunScript",
       .params = Script(false),
       .script =
           [](FakeHost& host) {
             AnswerScriptPreparation(host);
             host.Answer("MarlinContext::CompileScriptFile", 1);
             host.Answer("MarlinContext::RunProcedure", 1);
           },
       .resultKeys = {"Name", "Params", "CompileOnly"},
       .failureKeys = {"ErrorText", "ErrorLine"}},
      {.name = "compile a script",
       .action = "CoreUtilsRunScript",
       .params = Script(true),
       .script =
           [](FakeHost& host) {
             AnswerScriptPreparation(host);
             host.Answer("MarlinContext::CompileScriptFile", 1);
           },
       .resultKeys = {"Name", "Params", "CompileOnly"},
       .failureKeys = {"ErrorText", "ErrorLine"}},
      {.name = "report a script that fails",
       .action = "CoreUtilsRunScript",
       .params = Script(false),
       .script =
           [](FakeHost& host) {
             AnswerScriptPreparation(host);
             host.Answer("MarlinContext::CompileScriptFile", 1);
             host.Answer("MarlinContext::RunProcedure", 0);
             host.Answer("MarlinContext::GetContextError", 5);
             host.Answer("MarlinContext::GetVariable", 1);
             host.Answer("VarHandle::GetIntegerValue", 7);
             host.AnswerText("MarlinContext::GetContextErrorText", "a.mlx:7: what it was");
             host.AnswerText("ErrorList::GetErrorText", "The script failed while it ran");
             host.AnswerText("ErrorList::GetErrorName", "MARLIN_ERROR_RUNTIME");
           },
       .resultKeys = {"Name", "Params", "CompileOnly"},
       .failureKeys = {"ErrorText", "ErrorLine"},
       .code = kFailure},
  };
}

std::vector<Case> CasesOfPrograms() {
  ZelContainer ids;
  // Long enough to need memory of their own.
  ids.SetString("ProcessID", "0x000000000000004d2", 0);
  ids.SetString("ProcessID", "0x00000000000000010", 1);
  return {
      {.name = "run a program",
       .action = "CoreUtilsRunProgram",
       .params = Texts({{"Path", "C:/a path that needs memory.exe"}}),
       .script =
           [](FakeHost& host) {
             AnswerVerdict(host, kWritable);
             host.AnswerText("ZelAgentGetProxyPipeName", "pipe");
             host.AnswerLaunch(1, false);
           },
       .failureKeys = {"Path"}},
      {.name = "list processes",
       .action = "CoreUtilsListProcess",
       .params = {},
       .script =
           [](FakeHost& host) {
             ProcessInfo process;
             process.path = "C:/a path that needs memory.exe";
             host.AnswerProcesses({process, ProcessInfo()});
           },
       .resultKeys = {"Values"}},
      {.name = "available columns",
       .action = "CoreUtilsInfosProcessAvailable",
       .params = {},
       .script = [](FakeHost& host) { host.Answer("OSVersion::GetMajorVersion", 10); },
       .resultKeys = {"ProcessOwner", "ProcessName", "ProcessPath", "ProcessTotalCpu",
                      "ProcessCurrentCpu", "ProcessID", "ProcessMemoryVirtual", "ProcessMemoryUsed",
                      "ProcessParentID", "ProcessThreadsCount"}},
      {.name = "end processes",
       .action = "CoreUtilsTerminateProcess",
       .params = ids,
       .script =
           [](FakeHost& host) {
             host.Answer("ProcessAccess::TerminateProcessByID", 1);
             host.Answer("ProcessAccess::TerminateProcessByID", 1);
           },
       .resultKeys = {"ProcessID"}},
  };
}

/// A backup that is packed, sent and deleted; `choose` scripts how it is chosen.
Case RestoreCase(const char* name, bool newest, std::function<void(FakeHost&)> choose) {
  ZelContainer params = Paths("C:/a directory that needs memory", "D:/another that needs memory");
  params.SetString("Name", "a name that needs memory", kNoIndex);
  params.SetBool("Last", newest, kNoIndex);
  return {.name = name,
          .action = "CoreUtilsRestoreBackup",
          .params = params,
          .script =
              [choose = std::move(choose)](FakeHost& host) {
                choose(host);
                host.Answer("FileExists", 0);
                host.Answer("GenericArchive::AddDirectory", 0);
                host.Answer("FileExists", 1);
                AnswerSender(host);
                host.AnswerInvocation(0);
                AnswerClient(host, true, true);
                host.Answer("HttpClient::SendAndRecv", 0);
                host.AnswerInvocation(0);
                host.Answer("FileDelete", 0);
              },
          .resultKeys = {"Name", "ErrorCode"},
          .failureKeys = {"SourcePath", "DestinationPath", "Name", "Last"},
          .bearsLackOfMemory = newest};
}

std::vector<Case> CasesOfTransfers() {
  ZelContainer upload =
      Paths("C:/a file that needs memory.zip", "D:/another that needs memory.zip");
  upload.SetBool("IsZippedFile", true, kNoIndex);
  ZelContainer request = Texts({{"HostName", "a host whose name needs memory"}});
  request.SetContainer("Values", Texts({{"Name", "N"}}), kNoIndex);
  return {
      {.name = "upload to the relay",
       .action = "CoreUtilsCopyFileToRelay",
       .params = upload,
       .script =
           [](FakeHost& host) {
             host.AnswerInvocation(0, [](ZelContainer& work) {
               work.SetContainer("Values", Texts({{"ParentName", "relay"}}), kNoIndex);
             });
             AnswerSender(host);
             host.AnswerInvocation(0);
             AnswerClient(host, true, true);
             host.Answer("HttpClient::SendAndRecv", 0);
             host.AnswerInvocation(0);
             host.AnswerInvocation(0);
           },
       .resultKeys = {"SourcePath", "DestinationPath", "IsZippedFile", "ErrorCode"}},
      RestoreCase("restore a backup", false, [](FakeHost&) {}),
      RestoreCase("restore the newest backup", true,
                  [](FakeHost& host) {
                    host.AnswerDirectory({{"a name that needs memory_20120105", 16},
                                          {"a name that needs memory_20121231", 16}});
                  }),
      {.name = "restore a backup from the relay",
       .action = "CoreUtilsRestoreBackupFromRelay",
       .params = request,
       .script =
           [](FakeHost& host) {
             host.AnswerText("ZelAgentGetName", "an agent whose name needs memory");
             host.AnswerText("ZelAgentGetHttpPassword", "a password that needs memory");
             host.AnswerInvocation(0);
           },
       .resultKeys = {"Name", "ErrorCode"},
       .failureKeys = {"HostName", "Values", "ErrorCode"}},
  };
}

std::vector<Case> CasesOfArchivesAndDescriptors() {
  return {
      {.name = "extract",
       .action = "CoreUtilsExtractFile",
       .params = Texts({{"FilePath", "C:/a file that needs memory.zip"},
                        {"DestinationPath", "C:/a directory that needs memory"}}),
       .script =
           [](FakeHost& host) {
             host.Answer("FileExists", 1);
             host.Answer("DirExists", 0);
             host.Answer("PathCreate", 1);
             for (const char* entry : {"a.txt", "an entry that needs memory/a.txt"}) {
               host.Answer("GenericArchive::GetFileCount", 2);
               host.AnswerText("GenericArchive::GetEntryPath", entry);
               host.Answer("GenericArchive::ExtractEntry", 0);
               host.Answer("FileExists", 1);
             }
             host.Answer("GenericArchive::GetFileCount", 2);
             host.Answer("FileDelete", 0);
           },
       .resultKeys = {"FilePath", "DestinationPath", "ErrorCode"}},
      {.name = "configure descriptors",
       .action = "CoreUtilsConfigureJWS",
       .params = Texts({{"MasterAddress", "a master whose name needs memory"}}),
       .script =
           [](FakeHost& host) {
             host.AnswerInvocation(0, [](ZelContainer& work) {
               ZelContainer values;
               values.SetInt32("Port", 80, kNoIndex);
               work.SetContainer("Values", values, kNoIndex);
             });
             host.AnswerText("CompletePath", "C:/a directory that needs memory");
             host.Answer("DirExists", 1);
             host.AnswerList("DirListFiles", {"C:/a.xml", "C:/a file that needs memory.jnlp"});
             host.AnswerText("ZelAgentGetSecurity", "_DB_SSL_HTTPS_SENDANDRECEIVE_");
             host.AnswerText("LoadFileToString", "<jnlp codebase=\"http://old.example:1/\">");
             host.Answer("SaveFileFromString", 1);
           },
       .resultKeys = {"MasterAddress"},
       .bearsLackOfMemory = true},
      {.name = "attachments",
       .action = "CoreUtilsGetMasterAttachmentsPath",
       .params = Texts({{"Path", "a path that needs memory"}, {"Other", "another one that does"}}),
       .script =
           [](FakeHost& host) {
             host.AnswerText("ZelAgentGetDataDir", "C:/a directory that needs memory/");
           },
       .resultKeys = {"Path"}},
  };
}

std::vector<Case> Cases() {
  std::vector<Case> cases = CasesOfFileOperations();
  for (auto more : {CasesOfContent(), CasesOfPrograms(), CasesOfScripts(), CasesOfTransfers(),
                    CasesOfArchivesAndDescriptors(), CasesOfTaskActions(), CasesOfUserActions(),
                    CasesOfNetworkActions(), CasesOfSystemCalls()}) {
    cases.insert(cases.end(), more.begin(), more.end());
  }
  return cases;
}

/// Whether a call is made by destructors: such calls throw nothing.
bool IsRelease(const std::string& line) {
  return line.starts_with("~") || line.starts_with("FileClose") || line == "CloseDirectory";
}

/// Whether the container holds these keys; false when there are none.
bool HoldsAll(const std::vector<std::string>& keys, const std::string& container) {
  return !keys.empty() && std::all_of(keys.begin(), keys.end(), [&](const std::string& key) {
    return container.find(key + ": ") != std::string::npos;
  });
}

/// Whether the container is empty, a refusal, or holds all that the action writes.
bool IsWhole(const Case& test, const std::string& container) {
  for (const char* refusal :
       {"{}", "{Result: Int32 0}", "{Result: Bool false}", "{Result: String \"\"}"}) {
    if (container == refusal) return true;
  }
  return HoldsAll(test.resultKeys, container) || HoldsAll(test.failureKeys, container);
}

/// A case's state in the process, for one run.
class Surroundings {
 public:
  explicit Surroundings(const Case& test) : test_(test) {
    if (test_.before) test_.before();
  }
  ~Surroundings() {
    if (test_.after) test_.after();
  }
  Surroundings(const Surroundings&) = delete;
  Surroundings& operator=(const Surroundings&) = delete;

 private:
  const Case& test_;
};

std::vector<std::string> CallsUndisturbed(const Case& test) {
  const Surroundings surroundings(test);
  FakeHost host;
  RegisterModule(host);
  test.script(host);
  EXPECT_EQ(RunAction(host, test.action, test.params).code, test.code) << test.name;
  EXPECT_EQ(host.Held(), 0) << test.name;
  return host.Transcript();
}

Outcome RunOnHostWithFault(const Case& test, size_t call, Fault fault) {
  FakeHost host;
  RegisterModule(host);
  test.script(host);
  host.FailCall(call, fault);
  Outcome outcome = RunAction(host, test.action, test.params);
  EXPECT_EQ(host.Held(), 0) << test.name << ", call " << call << ": not all is released";
  return outcome;
}

/// Expects a call that throws to leave behind what it must.
void ExpectState(const Case& test, size_t call) {
  if (!test.takeState) return;
  ASSERT_LE(call, test.statesAfterThrow.size()) << test.name;
  EXPECT_EQ(test.takeState(), test.statesAfterThrow[call - 1]) << test.name << ", call " << call;
}

Outcome RunWithFault(const Case& test, size_t call, Fault fault) {
  const Surroundings surroundings(test);
  const Outcome outcome = RunOnHostWithFault(test, call, fault);
  if (fault != Fault::kAnswerFailure) ExpectState(test, call);
  return outcome;
}

TEST(FaultSweep, EveryActionHasACaseThatSucceeds) {
  std::vector<std::string> covered = ActionsOfTheSystemAlone();
  covered.emplace_back(kWithdrawal);
  for (const Case& test : Cases()) {
    if (test.code == kSuccess) covered.emplace_back(test.action);
  }
  FakeHost host;
  RegisterModule(host);
  ASSERT_EQ(host.Registrations().size(), static_cast<size_t>(kActionCount));
  for (const FakeHost::Registration& row : host.Registrations()) {
    EXPECT_THAT(covered, Contains(NameOf(row)))
        << "add a case of " << NameOf(row)
        << " to a fault_sweep_*cases.cpp, or nothing looks at its faults";
  }
}

TEST(FaultSweep, AThrowingHostCallGivesFailureAndAnEmptyContainer) {
  for (const Case& test : Cases()) {
    const std::vector<std::string> calls = CallsUndisturbed(test);
    ASSERT_GE(calls.size(), 1u) << test.name;
    for (size_t call = 1; call <= calls.size(); ++call) {
      if (IsRelease(calls[call - 1])) continue;
      for (const Fault fault : {Fault::kThrowOnce, Fault::kThrowFromHere}) {
        EXPECT_NO_THROW({
          EXPECT_EQ(RunWithFault(test, call, fault), (Outcome{kFailure, "{}"}))
              << test.name << ", call " << call;
        });
      }
    }
  }
}

TEST(FaultSweep, AFailingHostCallGivesADocumentedCodeAndNoHalfWrittenResult) {
  for (const Case& test : Cases()) {
    const size_t calls = CallsUndisturbed(test).size();
    for (size_t call = 1; call <= calls; ++call) {
      EXPECT_NO_THROW({
        const Outcome outcome = RunWithFault(test, call, Fault::kAnswerFailure);
        EXPECT_THAT(DocumentedCodes(test.action), Contains(outcome.code))
            << test.name << ", call " << call;
        EXPECT_TRUE(IsWhole(test, outcome.container))
            << test.name << ", call " << call << ": " << outcome.container;
      });
    }
  }
}

/// Runs the case's handler with allocation `failing` failing; tells how many were asked for.
Outcome RunShortOfMemory(const Case& test, size_t failing, bool andLater, size_t* allocations) {
  const Surroundings surroundings(test);
  FakeHost host;
  RegisterModule(host);
  test.script(host);
  // A run that breaks off leaves answers over: no call fails, but the script may not be followed.
  host.FailCall(~size_t{0}, Fault::kAnswerFailure);
  ActionHandler handler = nullptr;
  for (const FakeHost::Registration& row : host.Registrations()) {
    if (NameOf(row) == test.action) handler = row.handler;
  }
  ZelContainer params = test.params;

  allocationFault = {true, failing, andLater, 0};
  const ResultCode code = handler(&params);
  allocationFault.isArmed = false;

  EXPECT_EQ(host.Held(), 0) << test.name << ", allocation " << failing << ": not all is released";
  *allocations = allocationFault.count;
  return {code, Describe(params)};
}

/// Fails allocation 1, 2, ... until a run gets by without the one that was to fail.
void SweepAllocations(const Case& test, bool andLater) {
  constexpr size_t kManyAllocations = 10000;
  for (size_t failing = 1; failing < kManyAllocations; ++failing) {
    size_t allocations = 0;
    const Outcome outcome = RunShortOfMemory(test, failing, andLater, &allocations);
    if (allocations < failing) {
      EXPECT_EQ(outcome.code, test.code) << test.name;
      EXPECT_GT(failing, 1u) << test.name << ": no allocation to have looked at";
      return;
    }
    if (test.bearsLackOfMemory && outcome.code != kFailure) {
      EXPECT_THAT(outcome.code, AnyOf(kSuccess, kBadParameter));
      EXPECT_TRUE(IsWhole(test, outcome.container)) << test.name << ", allocation " << failing;
      continue;
    }
    EXPECT_EQ(outcome, (Outcome{kFailure, "{}"})) << test.name << ", allocation " << failing;
  }
  FAIL() << test.name << " allocates without end";
}

TEST(FaultSweep, AFailingAllocationGivesFailureAndAnEmptyContainer) {
  for (const Case& test : Cases()) {
    SweepAllocations(test, false);
    SweepAllocations(test, true);
  }
}

std::vector<std::string> InitialiseWithFault(size_t call, Fault fault) {
  FakeHost host;
  host.AnswerText("ZelAgentGetDataDir", "C:/data/");
  host.Answer("PathCreate", 1);
  host.AnswerText("ZelAgentGetConfigDir", "C:/config/");
  host.AnswerText("ZelAgentGetConfigDir", "C:/config/");
  host.AnswerText("CompletePath", "C:/bin");
  host.FailCall(call, fault);
  EXPECT_NO_THROW(EXPECT_EQ(ModuleMain(3, 0, nullptr), 1u)) << call;
  return host.Transcript();
}

TEST(FaultSweep, InitialiseAnswersOneWhateverFails) {
  constexpr size_t kCalls = 8;
  for (size_t call = 1; call <= kCalls; ++call) {
    EXPECT_EQ(InitialiseWithFault(call, Fault::kThrowOnce).back(),
              "Error \"Module command failed: host call " + std::to_string(call) + " failed\"");
    EXPECT_EQ(InitialiseWithFault(call, Fault::kThrowFromHere).size(), call + 1);
    EXPECT_EQ(InitialiseWithFault(call, Fault::kAnswerFailure).size(), kCalls);
  }
}

void AnswerScripts(FakeHost& host) {
  for (const char* name : {"A", "B"}) {
    host.AnswerText("IniFile::GetEntryName", name);
    host.AnswerText("IniFile::GetEntryValue", "a script whose name needs memory.mlx");
    host.AnswerInvocation(0);
    host.Answer("IniFile::FindEntryLine", 3);
    host.Answer("File::InsertLine", 1);
    host.Answer("File::DeleteLine", 1);
  }
  host.Answer("IniFile::GetEntryName", 0);
  host.AnswerText("IniFile::GetEntryName", "C");
  host.AnswerText("IniFile::GetEntryValue", "a script that runs each time.mlx");
  host.AnswerInvocation(0);
  host.Answer("IniFile::GetEntryName", 0);
}

std::vector<std::string> ActivateWithFault(size_t call, Fault fault) {
  FakeHost host;
  AnswerScripts(host);
  host.FailCall(call, fault);
  EXPECT_NO_THROW(EXPECT_EQ(ModuleMain(4, 0, nullptr), 1u)) << call;
  return host.Transcript();
}

TEST(FaultSweep, ActivateAnswersOneAndClosesTheFileWhateverFails) {
  constexpr size_t kCalls = 1 + 2 * 10 + 3 + 5 + 3;
  const std::vector<std::string> calls = ActivateWithFault(~size_t{0}, Fault::kThrowOnce);
  ASSERT_EQ(calls.size(), kCalls);
  for (size_t call = 1; call <= kCalls; ++call) {
    if (IsRelease(calls[call - 1])) continue;
    for (const Fault fault : {Fault::kThrowOnce, Fault::kThrowFromHere}) {
      const std::vector<std::string> lines = ActivateWithFault(call, fault);
      EXPECT_EQ(lines.back(),
                "Error \"Module command failed: host call " + std::to_string(call) + " failed\"");
    }
    const std::vector<std::string> lines = ActivateWithFault(call, Fault::kAnswerFailure);
    const auto opened = std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
      return line.starts_with("IniFile(");
    });
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "~IniFile"), opened) << call;
    EXPECT_EQ(lines.back(), "~IniFile") << call;
  }
}

TEST(FaultSweep, ActivateAnswersOneWhateverMemoryIsLacking) {
  constexpr size_t kManyAllocations = 10000;
  for (const bool andLater : {false, true}) {
    size_t failing = 1;
    for (size_t allocations = failing; failing <= allocations; ++failing) {
      ASSERT_LT(failing, kManyAllocations);
      FakeHost host;
      AnswerScripts(host);
      host.FailCall(~size_t{0}, Fault::kAnswerFailure);

      allocationFault = {true, failing, andLater, 0};
      const uint32_t answer = ModuleMain(4, 0, nullptr);
      allocationFault.isArmed = false;

      EXPECT_EQ(answer, 1u) << failing;
      allocations = allocationFault.count;
    }
    EXPECT_GT(failing, 10u);
  }
}

TEST(FaultSweep, RegisterAnswersOneWhateverFails) {
  for (size_t call = 1; call <= 3 + kActionCount; ++call) {
    for (const Fault fault : {Fault::kThrowOnce, Fault::kThrowFromHere, Fault::kAnswerFailure}) {
      FakeHost host;
      host.Answer("ZelAgentGetDebugContext", 77);
      for (int i = 0; i < kActionCount; ++i) host.Answer("ActionDbRegisterAction", 0);
      host.FailCall(call, fault);
      EXPECT_NO_THROW(EXPECT_EQ(ModuleMain(1, 0, nullptr), 1u)) << call;
    }
  }
}

TEST(FaultSweep, TracingCommandsAnswerOneWhenTheLogThrows) {
  for (const uint32_t command : {2U, 4U, 5U}) {
    FakeHost host;
    host.FailCall(1, Fault::kThrowFromHere);
    EXPECT_NO_THROW(EXPECT_EQ(ModuleMain(command, 0, nullptr), 1u)) << command;
  }
}

}  // namespace
