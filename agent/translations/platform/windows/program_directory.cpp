#include "agent/translations/program_directory.h"

#include <windows.h>

#include <string>

std::filesystem::path TranslationsProgramDirectory() {
  std::wstring name(MAX_PATH, L'\0');
  for (;;) {
    const DWORD length = GetModuleFileNameW(nullptr, name.data(), static_cast<DWORD>(name.size()));
    if (length == 0) return {};
    if (length < name.size()) return std::filesystem::path(name.substr(0, length)).parent_path();
    name.resize(2 * name.size());
  }
}
