#include <windows.h>

#include <system_error>

#include "agent/libZelMarlin/function_libraries.h"

FunctionLibrary LoadNativeLibrary(const std::filesystem::path& path) {
  FunctionLibrary library;
  const HMODULE module = LoadLibraryW(path.c_str());
  if (module == nullptr) {
    library.reason = std::system_category().message(static_cast<int>(GetLastError()));
    return library;
  }
  library.handle = module;
  library.open = reinterpret_cast<void*>(GetProcAddress(module, "MarlinModuleOpen"));
  return library;
}
