#include <windows.h>

#include "agent/libZel/system_error_text.h"
#include "agent/libZelMarlin/function_libraries.h"

FunctionLibrary LoadNativeLibrary(const std::filesystem::path& path) {
  FunctionLibrary library;
  const HMODULE module = LoadLibraryW(path.c_str());
  if (module == nullptr) {
    library.reason = SystemErrorText(GetLastError());
    return library;
  }
  library.handle = module;
  library.open = reinterpret_cast<void*>(GetProcAddress(module, "MarlinModuleOpen"));
  return library;
}
