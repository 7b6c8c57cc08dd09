// Archives of any content: what the directory tells lies inside the file and apart from each other,
// and a name that is not refused stays below the directory that it is put behind.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "agent/libZel/zip_directory.h"
#include "agent/libZel/zip_names.h"

namespace {

void Require(bool holds) {
  if (!holds) std::abort();
}

void CheckName(std::string_view name) {
  for (const bool asOnWindows : {false, true}) {
    if (zip_names::ReasonToRefuse(name, asOnWindows) != nullptr) continue;
    for (const std::string& part : zip_names::Split(name)) {
      Require(!part.empty() && part != "." && part != "..");
      Require(part.find_first_of(std::string_view("/\\\0", 3)) == part.npos);
      Require(!asOnWindows || part.find(':') == part.npos);
    }
    const std::string target = "/root\\" + std::string(name);
    Require(zip_names::RootOf(target, zip_names::Split(name)) == "/root/");
  }
  const std::string key = zip_names::Key(name, false);
  Require(zip_names::Key(key, false).size() <= key.size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr uint32_t kMaxEntries = 1000;
  const ZipBytes bytes = [&](uint64_t offset, void* buffer, size_t count) {
    Require(offset <= size && count <= size - offset);
    if (count > 0) std::memcpy(buffer, data + offset, count);
    return true;
  };
  const ZipDirectory directory = ReadZipDirectory(bytes, size, kMaxEntries);
  Require(directory.error.IsEmpty() || directory.entries.empty());
  Require(directory.entries.size() <= kMaxEntries);

  uint64_t packedBytes = 0;
  for (const ZipEntry& entry : directory.entries) {
    Require(entry.dataOffset <= size && entry.packedBytes <= size - entry.dataOffset);
    packedBytes += entry.packedBytes;
    CheckName(entry.name.Utf8());
  }
  Require(packedBytes <= size);
  CheckName({reinterpret_cast<const char*>(data), std::min<size_t>(size, 200)});
  return 0;
}
