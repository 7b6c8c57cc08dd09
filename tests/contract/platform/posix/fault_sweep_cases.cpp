#include "tests/contract/fault_sweep_cases.h"

namespace {

const std::vector<std::string> kInformationKeys = {
    "OriginalFileName", "FileVersion", "FileChecksum", "FileSize", "ApplicationName", "IsText"};

void AnswerDrives(FakeHost& host) {
  for (char letter = 'C'; letter <= 'Z'; ++letter) {
    host.Answer("GetDriveTypeW", letter == 'D' ? 3 : 1);
  }
  host.AnswerBytes("GetVolumeInformationW", "data", 1);
}

void AnswerInformation(FakeHost& host) {
  using namespace std::string_literals;
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  host.Answer("GetFileVersionInfoSizeW", 10);
  host.AnswerBytes("GetFileVersionInfoW", "res", 1);
  host.AnswerBytes("VerQueryValueW", "\x09\x04\xb0\x04"s, 4);
  host.AnswerBytes("VerQueryValueW", "a\0.\0e\0x\0e\0\0\0"s, 6);
  host.AnswerBytes("VerQueryValueW", "1\0.\0002\0\0\0"s, 4);
  host.AnswerText("FileMd5", "0123456789abcdef0123456789abcdef");
  host.Answer("FileGetSize", 5);
  host.AnswerInvocation(0, [](ZelContainer& query) { query.SetString("Name", "App", kNoIndex); });
  host.Answer("File::FileIsValid", 0);
}

void AnswerLoading(FakeHost& host) {
  host.Answer("FileOpen", 7);
  host.Answer("FileGetSize", 2);
  host.AnswerBytes("FileRead", "\xE9t");
  host.Answer("FileRead", 0);
}

void AnswerConvertedReading(FakeHost& host) {
  using namespace std::string_literals;
  host.Answer("FileExists", 1);
  AnswerVerdict(host, kReadable);
  AnswerLoading(host);
  host.Answer("MultiByteToWideChar", 2);
  host.AnswerBytes("MultiByteToWideChar", "\xE9\0t\0"s, 2);
}

void AnswerConvertedWriting(FakeHost& host) {
  AnswerVerdict(host, kWritable);
  host.Answer("FileExists", 1);
  AnswerLoading(host);
  host.Answer("FileExists", 0);
  host.Answer("FileCopy", 0);
  host.Answer("FileDelete", 0);
  host.Answer("FileCreate", 8);
  host.Answer("WideCharToMultiByte", 5);
  host.AnswerBytes("WideCharToMultiByte", "hello");
  host.Answer("FileWrite", 5);
  host.Answer("FileDelete", 0);
}

void AnswerEndOfSystem(FakeHost& host) {
  host.Answer("GetCurrentProcess", 11);
  host.Answer("OpenProcessToken", 12);
  host.Answer("LookupPrivilegeValueW", 13);
  host.Answer("AdjustTokenPrivileges", 1);
  host.Answer("ExitWindowsEx", 1);
}

void AnswerDomains(FakeHost& host) {
  host.AnswerList("NetServerEnum", {"A DOMAIN WITH A LONG NAME", "B"});
}

void AnswerServers(FakeHost& host) {
  using namespace std::string_literals;
  host.AnswerBytes("MultiByteToWideChar", "D\0\0\0"s, 2);
  host.AnswerList("NetServerEnum", {"A SERVER WITH A LONG NAME", "B"});
}

}  // namespace

std::vector<Case> CasesOfSystemCalls() {
  ZelContainer reading = Texts({{"Path", "C:/a"}});
  reading.SetInt32("Length", 2, kNoIndex);
  return {
      {"volumes", "CoreUtilsGetFileSystems", {}, AnswerDrives, {"Values"}},
      {"information", "CoreUtilsGetFileInformation", Texts({{"Path", "C:/a"}}), AnswerInformation,
       kInformationKeys},
      {"read in the code page", "CoreUtilsReadFile", reading, AnswerConvertedReading, {"Result"}},
      {"write in the code page",
       "CoreUtilsWriteFile",
       Texts({{"Path", "C:/a"}, {"FileContent", "aGVsbG8="}}),
       AnswerConvertedWriting,
       {"Result"}},
      {"end the system",
       "CoreUtilsExitOperatingSystem",
       Texts({{"HowToExit", "a kind that needs memory of its own"}}),
       AnswerEndOfSystem,
       {"HowToExit"}},
      {"list domains", "CoreUtilsListDomains", {}, AnswerDomains, {"Values"}},
      {"list servers",
       "CoreUtilsListServers",
       Texts({{"DomainName", "a domain whose name needs memory"}}),
       AnswerServers,
       {"Values"}},
  };
}

std::vector<std::string> ActionsOfTheSystemAlone() {
  return {};
}
