#pragma once

#include <filesystem>
#include <string>

#include "tests/agent/temporary_directory.h"

/// A place to listen at that no other test uses; what is made there is gone with it.
class TestPipe {
 public:
  TestPipe() : name_(NameIn(directory_.Native())) {}
  const std::string& Name() const { return name_; }

 private:
  /// One implementation in each platform's folder.
  static std::string NameIn(const std::filesystem::path& directory);

  TemporaryDirectory directory_;
  const std::string name_;
};
