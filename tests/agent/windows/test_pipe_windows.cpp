#include "tests/agent/test_pipe.h"

std::string TestPipe::NameIn(const std::filesystem::path& directory) {
  return R"(\\.\pipe\)" + directory.filename().string();
}
