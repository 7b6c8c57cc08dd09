#include "tests/contract/fault_sweep_cases.h"

namespace {

// There is no such file for the system, so it has no version resource.
constexpr const char* kNoFile = "C:/no such folder/a.bin";

void AnswerInformation(FakeHost& host) {
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  host.AnswerText("FileMd5", "0123456789abcdef0123456789abcdef");
  host.Answer("FileGetSize", 5);
  host.AnswerInvocation(0, [](ZelContainer& query) { query.SetString("Name", "App", kNoIndex); });
  host.Answer("File::FileIsValid", 0);
}

}  // namespace

std::vector<Case> CasesOfSystemCalls() {
  return {{"information",
           "CoreUtilsGetFileInformation",
           Texts({{"Path", kNoFile}}),
           AnswerInformation,
           {"OriginalFileName", "FileVersion", "FileChecksum", "FileSize", "ApplicationName",
            "IsText"}}};
}

std::vector<std::string> ActionsOfTheSystemAlone() {
  return {"CoreUtilsGetFileSystems", "CoreUtilsListDomains", "CoreUtilsListServers",
          "CoreUtilsExitOperatingSystem"};
}
