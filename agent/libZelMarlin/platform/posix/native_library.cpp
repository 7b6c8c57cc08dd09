#include <dlfcn.h>

#include "agent/libZelMarlin/function_libraries.h"

FunctionLibrary LoadNativeLibrary(const std::filesystem::path& path) {
  FunctionLibrary library;
  library.handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (library.handle == nullptr) {
    const char* const reason = ::dlerror();
    library.reason = reason != nullptr ? reason : "the system tells no reason";
    return library;
  }
  library.open = ::dlsym(library.handle, "MarlinModuleOpen");
  return library;
}
