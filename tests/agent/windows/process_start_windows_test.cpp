#include <gtest/gtest.h>

#include "agent/libZel/process_start.h"

namespace {

TEST(StartProgram, AddsNoExtensionToAPath) {
  EXPECT_TRUE(StartProgram("\"C:\\windows\\system32\\cmd.exe\" /c exit"));
  EXPECT_FALSE(StartProgram("\"C:\\windows\\system32\\cmd\" /c exit"));
  EXPECT_FALSE(StartProgram("C:/windows/system32/cmd /c exit"));
  EXPECT_TRUE(StartProgram("cmd /c exit")) << "the search path has cmd.exe";
}

}  // namespace
