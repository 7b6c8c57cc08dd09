// Directories of aliases, as they stand and below a directory full of links: whatever is taken is
// where the system itself ends up, with no link left on the way, and neither the agent's own
// directory nor one that holds a guarded file.

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/alias_table.h"
#include "libZel/string.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

namespace fs = std::filesystem;

bool IsAtOrBelow(const fs::path& path, const fs::path& directory) {
  return std::mismatch(directory.begin(), directory.end(), path.begin(), path.end()).first ==
         directory.end();
}

/// An agent's home and what links may lead into it and out of it.
class Places {
 public:
  Places() {
    for (const char* name : {"home/config", "home/data/in", "logs", "keys/inner", "target/inner"})
      fs::create_directories(root_ / name);
    WriteBytes(root_ / "keys/agent.pem", "");
    WriteBytes(root_ / "target/file", "");
    Link("logs", "home/log");
    Link("home/config", "to-config");
    Link("home/data", "to-data");
    Link("keys", "to-keys");
    Link("target", "home/out");
    Link("home/none/deeper", "dangling");
    Link("loop", "loop");
  }

  void Check(const ZelString& directory) {
    const AliasTable::Alias alias{"agent/a", "x", directory, {}, false};
    if (!table_.Add(alias).empty()) return;
    std::string problem;
    const auto upload = table_.BeginUpload("agent/a", "x", &problem);
    Require(upload && problem.empty());
    RequireForeign(upload->Directory());
    RequireResolved(upload->Directory(), ToNativePath(directory).path);
    Require(table_.Delete("agent/a", "x"));
  }

  ZelString Below(std::string_view path) const {
    return FromNativePath(root_) + "/" + ZelString(path);
  }

 private:
  void Link(const char* to, const char* name) const {
    fs::create_directory_symlink(root_ / to, root_ / name);
  }

  void RequireForeign(const fs::path& directory) const {
    if (IsAtOrBelow(directory, root_ / "home/data")) return;
    Require(!IsAtOrBelow(directory, root_ / "home"));
    Require(!IsAtOrBelow(directory, root_ / "logs"));
    Require(directory != root_ / "keys" && directory != root_ / "keys/");
  }

  void RequireResolved(const fs::path& directory, const fs::path& given) const {
    Require(directory.is_absolute());
    fs::path soFar;
    for (const fs::path& part : directory) {
      Require(part != "." && part != "..");
      soFar /= part;
      std::error_code none;
      Require(!fs::is_symlink(soFar, none));
    }
    std::error_code missing;
    if (fs::exists(given, missing)) Require(fs::equivalent(given, directory));
  }

  const Scratch scratch_;
  const fs::path root_ = fs::canonical(scratch_.Path());
  AliasTable table_{root_ / "home",
                    root_ / "home/data",
                    {{root_ / "keys/agent.pem", "key"}},
                    std::chrono::hours(1)};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Places places;
  const std::string_view path(reinterpret_cast<const char*>(data), size);
  places.Check(ZelString(path));
  places.Check(places.Below(path));
  return 0;
}
