// Paths: splitting, completing and the way to native paths and back, on any input.

#include <cstdint>
#include <string_view>

#include "agent/libZel/native_path.h"
#include "libZel/path.h"
#include "libZel/string.h"
#include "libZel/url.h"
#include "tests/fuzz/require.h"

namespace {

void CheckSplit(const ZelString& path) {
  ZelString drive, directory, name, extension;
  SplitPath(path, &drive, &directory, &name, &extension);
  Require(drive + directory + name + extension == path);
  Require(name.Find("/") == ZelString::kNotFound && name.Find("\\") == ZelString::kNotFound);
}

void CheckNative(const ZelString& path) {
  const NativePath native = ToNativePath(path);
  if (!native) return;
  Require(native.path.is_absolute());
  const NativePath again = ToNativePath(FromNativePath(native.path));
  Require(static_cast<bool>(again) && again.path == native.path);
}

// Any bytes are a name to the system, and each name comes back as it was. A name cannot hold the
// separators, and this platform reads "\" as one.
void CheckName(std::string_view bytes) {
  if (bytes.empty() || bytes == "." || bytes == "..") return;
  if (bytes.find_first_of(std::string_view("/\\\0", 3)) != bytes.npos) return;
  const std::filesystem::path path = std::filesystem::path("/d") / bytes;
  const NativePath back = ToNativePath(FromNativePath(path));
  Require(static_cast<bool>(back) && back.path == path);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const ZelString path(bytes);
  CheckSplit(path);
  CheckNative(path);
  CheckName(bytes);

  const ZelString full = CompletePath(path);
  Require(CompletePath(full) == full);
  UrlParseInet::CanHandleUrl(path);
  return 0;
}
