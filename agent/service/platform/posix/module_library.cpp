#include "agent/service/module_library.h"

#include <dlfcn.h>

#include <stdexcept>
#include <string>

const char* const ModuleLibrary::kSuffix = ".so";

ModuleLibrary::ModuleLibrary(const std::filesystem::path& file) {
  handle_ = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle_) {
    throw std::runtime_error("the module " + file.string() + " cannot be loaded: " + ::dlerror());
  }
  main_ = reinterpret_cast<ModuleMainFunction>(::dlsym(handle_, "ModuleMain"));
  if (main_) return;
  ::dlclose(handle_);
  throw std::runtime_error("the module " + file.string() + " does not export ModuleMain");
}

ModuleLibrary::~ModuleLibrary() {
  ::dlclose(handle_);
}
