#include "agent/zelctl/editor.h"

#include <windows.h>

#include <ntsecapi.h>

#include <cwchar>
#include <stdexcept>
#include <system_error>

#include "agent/libZel/hexadecimal.h"
#include "agent/libZel/platform/windows/unique_handle.h"
#include "libZel/string.h"

namespace {

constexpr char kUsualEditor[] = "notepad";

[[noreturn]] void ThrowLastError(const std::string& what) {
  throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), what);
}

std::string RandomText() {
  unsigned char bytes[8];
  if (!RtlGenRandom(bytes, sizeof bytes)) throw std::runtime_error("no random numbers");
  return Hexadecimal(bytes, sizeof bytes);
}

/// Ctrl-C is the editor's while it lives. The handler, other than ignoring the key, is not
/// inherited.
class KeysIgnored {
 public:
  KeysIgnored() { SetConsoleCtrlHandler(&Ignore, TRUE); }
  ~KeysIgnored() { SetConsoleCtrlHandler(&Ignore, FALSE); }
  KeysIgnored(const KeysIgnored&) = delete;
  KeysIgnored& operator=(const KeysIgnored&) = delete;

 private:
  static BOOL WINAPI Ignore(DWORD event) { return event == CTRL_C_EVENT; }
};

}  // namespace

std::string EditorCommand() {
  for (const wchar_t* const name : {L"VISUAL", L"EDITOR"}) {
    const wchar_t* const command = _wgetenv(name);
    if (command != nullptr && *command != L'\0') return std::string(ZelString(command).Utf8());
  }
  return kUsualEditor;
}

std::filesystem::path CreatePrivateFile(const std::string& extension) {
  // The folder for temporary files is the user's own.
  const std::filesystem::path file =
      std::filesystem::temp_directory_path() / ("zelctl-" + RandomText() + extension);
  const UniqueHandle created(CreateFileW(file.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!created) ThrowLastError(std::string(ZelString(file.c_str()).Utf8()));
  return file;
}

int RunEditor(const std::string& command, const std::filesystem::path& file) {
  // A file name holds no quotes.
  std::wstring line =
      ZelString(std::string_view(command)).GetTCHAR() + (L" \"" + file.wstring() + L"\"");
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  const KeysIgnored ignored;
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                      &process)) {
    ThrowLastError("the editor " + command);
  }
  const UniqueHandle thread(process.hThread);
  const UniqueHandle child(process.hProcess);
  WaitForSingleObject(child.Get(), INFINITE);
  DWORD status = 1;
  GetExitCodeProcess(child.Get(), &status);
  return static_cast<int>(status);
}
