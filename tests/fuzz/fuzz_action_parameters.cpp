// The parameters of all actions, as whoever may call an action sends them: any key with any value
// of any type, and a host that refuses everything, grants everything, or answers with what the
// input says. Nothing is thrown, the code is one that docs/actions names, and whatever was opened
// is closed.

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "tests/contract/fault_sweep_cases.h"
#include "tests/contract/module_test.h"
#include "tests/contract/user_test.h"
#include "tests/fake_host/fake_host.h"
#include "tests/fuzz/require.h"

namespace {

constexpr const char* kKeys[] = {"Acknowledge",
                                 "ApplicationName",
                                 "Asc",
                                 "ButtonCancel",
                                 "ButtonOK",
                                 "Command",
                                 "CompileOnly",
                                 "Count",
                                 "DACurrentConsoleUser",
                                 "DestinationPath",
                                 "DisplayAdminName",
                                 "DomainName",
                                 "FileContent",
                                 "FilePath",
                                 "FromHCHL",
                                 "HTTPCheckURL",
                                 "HostName",
                                 "HowToExit",
                                 "IpAddress",
                                 "IsZippedFile",
                                 "Last",
                                 "Length",
                                 "LockMessage",
                                 "MacAddress",
                                 "MasterAddress",
                                 "Message",
                                 "Mode",
                                 "Name",
                                 "NetworkMask",
                                 "ObjectId",
                                 "Offset",
                                 "Params",
                                 "Path",
                                 "PingAddr",
                                 "ProcessID",
                                 "Recursive",
                                 "SmbPassword",
                                 "SmbPathShare",
                                 "SmbUser",
                                 "SortAttr",
                                 "SortOrder",
                                 "SourcePath",
                                 "TimeOut",
                                 "Title",
                                 "TopMost",
                                 "Values",
                                 "_DB_ATTR_DESCRIPTION_",
                                 "_DB_ATTR_NAME_"};

// What success is.
constexpr struct {
  const char* function;
  int64_t value;
} kSuccesses[] = {{"DirExists", 1},
                  {"DirCreate", 1},
                  {"DirRename", 1},
                  {"DirDelete", 1},
                  {"PathCreate", 1},
                  {"FileOpen", 7},
                  {"FileCreate", 8},
                  {"XmlProxyClient::Initialise", 1},
                  {"IsUserLogged", 1},
                  {"ActionDbInvokeContainer", 0},
                  {"InvokeContainerToMasterWithTempTunnel", 0},
                  {"ProxyDesktopLockManager::Lock", 1},
                  {"ProxyDesktopLockManager::SetMessage", 1},
                  {"ProxyDesktopLockManager::Unlock", 1},
                  {"SkinDialog", 0},
                  {"SkinDialog::IsInitialised", 1},
                  {"SkinDialog::Show", 0},
                  {"SkinDialog::Close", 0}};

ZelContainer NextContainer(FuzzedDataProvider& input, int levels) {
  ZelContainer container;
  for (int count = input.ConsumeIntegralInRange(0, 4); count > 0; --count) {
    const char* const key = kKeys[input.ConsumeIntegralInRange<size_t>(0, std::size(kKeys) - 1)];
    const uint32_t index = input.ConsumeIntegralInRange(0, 7) == 0 ? 0 : kNoIndex;
    switch (input.ConsumeIntegralInRange(0, 5)) {
      case 0:
        container.SetInt32(key, input.ConsumeIntegral<int32_t>(), index);
        break;
      case 1:
        container.SetInt64(key, input.ConsumeIntegral<int64_t>(), index);
        break;
      case 2:
        container.SetBool(key, input.ConsumeBool(), index);
        break;
      case 3:
        if (levels > 0) container.SetContainer(key, NextContainer(input, levels - 1), index);
        break;
      default:
        container.SetString(key, ZelString(input.ConsumeRandomLengthString(80)), index);
        break;
    }
  }
  return container;
}

// What the host answers beside refusals.
void Script(FuzzedDataProvider& input, FakeHost& host) {
  // At once, too: a question that is answered needs many of them.
  const bool grantsAll = input.ConsumeBool();
  for (const auto& success : kSuccesses) {
    if (grantsAll || input.ConsumeBool()) host.AnswerAlways(success.function, success.value);
  }
  // A few times only: some actions look for a name that is free until they find one.
  for (int count = input.ConsumeIntegralInRange(0, 4); count > 0; --count)
    host.Answer("FileExists", 1);
  for (int count = input.ConsumeIntegralInRange(0, 3); count > 0; --count)
    AnswerVerdict(host, input.ConsumeBool() ? kWritable : kForbidden);
  host.AnswerAlways("FileGetSize", input.ConsumeIntegralInRange(0, 100));
  // The buttons, and ends without one.
  host.AnswerAlways("SkinDialog::GetButtonClickedID", input.ConsumeIntegralInRange(99, 103));
  host.AnswerBytes("FileRead", input.ConsumeRandomLengthString(60));
  std::vector<FakeHost::DirectoryEntry> entries;
  for (int count = input.ConsumeIntegralInRange(0, 3); count > 0; --count)
    entries.push_back({ZelString(input.ConsumeRandomLengthString(30)), 128});
  if (!entries.empty()) host.AnswerDirectory(entries);
}

void Run(FuzzedDataProvider& input, FakeHost& host) {
  const size_t row = input.ConsumeIntegralInRange<size_t>(0, host.Registrations().size() - 1);
  const FakeHost::Registration& action = host.Registrations()[row];
  ZelContainer parameters = NextContainer(input, 2);
  Script(input, host);
  const ResultCode code = action.handler(&parameters);

  std::vector<ResultCode> codes = DocumentedCodes(NameOf(action));
  codes.insert(codes.end(), {kFailure, kBadParameter});
  Require(std::find(codes.begin(), codes.end(), code) != codes.end());
  Require(host.Held() == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider input(data, size);
  FakeHost host;
  // No test: answers that nobody asks for are left over, and what has none is refused.
  host.ComplainTo([](const std::string&) {});
  RegisterModule(host);
  InitialiseModule(host);
  // Some actions begin where others have ended: a locked desktop, a message that is shown.
  for (int count = input.ConsumeIntegralInRange(1, 3); count > 0; --count) Run(input, host);
  EndUserInteraction(host);
  return 0;
}
