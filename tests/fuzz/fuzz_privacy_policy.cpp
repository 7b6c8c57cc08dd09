// Paths that callers send, against the rules of the privacy policy: whoever may read one directory
// alone is granted nothing that lies elsewhere, however the path is spelled; and a pattern matches
// what a plain search through its stars finds. The first line of the input is the path, the second
// one a pattern.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "agent/libZel/native_path.h"
#include "agent/libZelCore/privacy_policy.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kLongest = 24;

// Tries every length that a star can stand for.
bool Matches(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern[0] != '*')
    return !text.empty() && text[0] == pattern[0] && Matches(pattern.substr(1), text.substr(1));
  const size_t stars = std::min(pattern.find_first_not_of('*'), pattern.size());
  const std::string_view rest = pattern.substr(stars);
  for (size_t length = 0; length <= text.size(); ++length) {
    if (Matches(rest, text.substr(length))) return true;
    if (stars == 1 && length < text.size() && text[length] == '/') return false;
  }
  return false;
}

// A directory that may be read, one beside it, and links from each to the other.
class Place {
 public:
  Place() : policy_(Rules(), [](std::string_view) { return std::optional<std::string>("user"); }) {
    fs::create_directories(open_ / "sub");
    fs::create_directory(closed_);
    fs::create_symlink(closed_, open_ / "out");
    fs::create_symlink(open_, closed_ / "in");
  }

  void Check(const ZelString& path) const {
    Require(!policy_.IsGranted(path, "ann", false));
    Require(!policy_.IsGranted(path, "bob", true));
    Require(policy_.IsGranted(path, "ann", true) <= LeadsInside(path));
  }
  // The path as it stands, and below each of both directories.
  void CheckEverywhere(const ZelString& path) const {
    Check(path);
    Check(ZelString(open_.native()) + "/" + path);
    Check(ZelString(closed_.native()) + "/" + path);
    Check(ZelString("\"") + ZelString(open_.native()) + "\\" + path + "\"");
  }

 private:
  std::vector<PrivacyRule> Rules() const { return {{"ann", open_.native() + "/**", true, false}}; }

  // By the standard library's own resolution of links.
  bool LeadsInside(const ZelString& path) const {
    const size_t length = path.GetLength();
    const bool isQuoted = length >= 2 && path.StartsWith("\"") && path.EndsWith("\"");
    const NativePath native = ToNativePath(isQuoted ? path.SubString(1, length - 2) : path);
    if (!native) return false;
    std::error_code error;
    const std::string real = fs::weakly_canonical(native.path, error).native();
    const std::string inside = fs::canonical(open_).native();
    return !error && (real == inside || real.starts_with(inside + "/"));
  }

  const Scratch scratch_;
  const fs::path open_ = scratch_ / "open";
  const fs::path closed_ = scratch_ / "closed";
  const PrivacyPolicy policy_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Place place;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t end = std::min(input.find('\n'), size);
  const std::string_view path = input.substr(0, end);
  const std::string_view pattern = input.substr(std::min(end + 1, size));

  place.CheckEverywhere(ZelString(path));
  const std::string_view shortPattern = pattern.substr(0, kLongest);
  const std::string_view text = path.substr(0, kLongest);
  Require(MatchesPathPattern(shortPattern, text) == Matches(shortPattern, text));
  return 0;
}
