#pragma once

#include <cstdint>
#include <filesystem>

#include "libZel/format_argument.h"

/// The function that a module exports: command, argument, buffer.
using ModuleMainFunction = uint32_t (*)(uint32_t command, uint32_t argument, TCHAR* buffer);

/// A loaded module; unloaded with the object.
class ModuleLibrary {
 public:
  /// Throws std::runtime_error that names the file and what is wrong with it.
  explicit ModuleLibrary(const std::filesystem::path& file);
  ~ModuleLibrary();
  ModuleLibrary(const ModuleLibrary&) = delete;
  ModuleLibrary& operator=(const ModuleLibrary&) = delete;

  /// ".so" or ".dll".
  static const char* const kSuffix;

  ModuleMainFunction Main() const { return main_; }

 private:
  void* handle_ = nullptr;
  ModuleMainFunction main_ = nullptr;
};
