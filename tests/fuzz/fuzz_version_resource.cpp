// Version resources: the reader of programs on any file, and queries on any resource.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "agent/windows_api/pe_version.h"
#include "tests/fuzz/require.h"
#include "windows_api.h"

namespace {

// The value must lie within the resource.
void Query(const std::vector<unsigned char>& data, const WCHAR* path, size_t unitBytes) {
  void* value = nullptr;
  UINT length = 0;
  if (!VerQueryValueW(data.data(), path, &value, &length)) return;
  const auto* const start = static_cast<const unsigned char*>(value);
  Require(start >= data.data() && start <= data.data() + data.size());
  Require(length * unitBytes <= static_cast<size_t>(data.data() + data.size() - start));
}

void QueryAll(std::vector<unsigned char> data) {
  if (data.size() < 2) return;
  // As GetFileVersionInfoW leaves it: no longer than what was read.
  const size_t claimed = data[0] | static_cast<size_t>(data[1]) << 8;
  const size_t length = std::min(claimed, data.size());
  data[0] = static_cast<unsigned char>(length & 0xFF);
  data[1] = static_cast<unsigned char>(length >> 8);
  Query(data, u"\\", 1);
  Query(data, u"\\VarFileInfo\\Translation", 1);
  Query(data, u"\\StringFileInfo\\040904b0\\FileVersion", 2);
  Query(data, u"\\StringFileInfo\\040904b0\\OriginalFilename", 2);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto resource = ReadVersionResource([&](uint64_t offset, void* target, size_t count) {
    if (offset > size || count > size - offset) return false;
    std::memcpy(target, data + offset, count);
    return true;
  });
  if (resource) QueryAll(*resource);
  QueryAll({data, data + std::min<size_t>(size, UINT16_MAX)});
  return 0;
}
