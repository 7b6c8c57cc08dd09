#pragma once

#include <dlfcn.h>

#include <stdexcept>
#include <string>

// Functions of libraries that are loaded at their first use.

/// Gives a symbol the type of the function that `declared` is.
template <typename Function>
Function* AsFunction(Function* /*declared*/, void* symbol) {
  return reinterpret_cast<Function*>(symbol);
}

/// The function `name` of the library `file`, which people know as `library`. Throws
/// std::runtime_error when there is none.
template <typename Function>
Function* LoadFunction(Function* declared, const char* file, const char* library,
                       const char* name) {
  // Opened anew for each function, which only counts: so each failure has a text of its own.
  void* const opened = dlopen(file, RTLD_NOW | RTLD_LOCAL);
  void* const symbol = opened != nullptr ? dlsym(opened, name) : nullptr;
  if (symbol != nullptr) return AsFunction(declared, symbol);
  const char* const reason = dlerror();
  throw std::runtime_error(std::string(library) + " is missing: " + (reason ? reason : name));
}
