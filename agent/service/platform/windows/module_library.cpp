#include "agent/service/module_library.h"

#include <windows.h>

#include <stdexcept>
#include <string>

#include "agent/libZel/native_path.h"
#include "agent/libZel/system_error_text.h"

const char* const ModuleLibrary::kSuffix = ".dll";

ModuleLibrary::ModuleLibrary(const std::filesystem::path& file) {
  const std::string name(FromNativePath(file).Utf8());
  const HMODULE module = LoadLibraryW(file.c_str());
  if (!module) {
    const auto error = static_cast<int>(GetLastError());
    throw std::runtime_error("the module " + name + " cannot be loaded: " + SystemErrorText(error));
  }
  handle_ = module;
  main_ = reinterpret_cast<ModuleMainFunction>(
      reinterpret_cast<void*>(GetProcAddress(module, "ModuleMain")));
  if (main_) return;
  FreeLibrary(module);
  throw std::runtime_error("the module " + name + " does not export ModuleMain");
}

ModuleLibrary::~ModuleLibrary() {
  FreeLibrary(static_cast<HMODULE>(handle_));
}
