#include "agent/libZelMarlin/function_libraries.h"

#include <map>
#include <mutex>

#include "agent/libZel/native_path.h"

namespace {

/// Never destroyed: scripts of threads that outlive main may still use it.
struct LoadedLibraries {
  std::mutex mutex;
  std::map<std::filesystem::path, FunctionLibrary> byPath;
};

LoadedLibraries& Loaded() {
  static auto& loaded = *new LoadedLibraries;
  return loaded;
}

}  // namespace

FunctionLibrary LoadFunctionLibrary(const ZelString& path) {
  const NativePath native = ToNativePath(path);
  if (!native) {
    FunctionLibrary failed;
    failed.reason = native.error;
    return failed;
  }

  LoadedLibraries& loaded = Loaded();
  const std::scoped_lock lock(loaded.mutex);
  const auto known = loaded.byPath.find(native.path);
  if (known != loaded.byPath.end()) return known->second;
  FunctionLibrary library = LoadNativeLibrary(native.path);
  if (library.handle != nullptr) loaded.byPath.emplace(native.path, library);
  return library;
}
