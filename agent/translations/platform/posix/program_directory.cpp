#include "agent/translations/program_directory.h"

#include <system_error>

std::filesystem::path TranslationsProgramDirectory() {
  std::error_code error;
  return std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
}
