// Archives of any content: what the directory tells lies inside the file and apart from each other,
// a name that is not refused stays below the directory that it is put behind, and when all entries
// are extracted nothing appears beside that directory, nor more than the limits allow.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <string_view>

#include "agent/libZel/archive_limits.h"
#include "agent/libZel/zip_directory.h"
#include "agent/libZel/zip_names.h"
#include "libZel/archive.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kMaxEntries = 1000;
constexpr uint64_t kMaxBytes = 1 << 20;

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

// Returns whether the directory can be used.
bool CheckDirectory(const uint8_t* data, size_t size) {
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
  return directory.error.IsEmpty();
}

// The archive and the directory that it is extracted to.
class Workplace {
 public:
  Workplace() {
    ArchiveLimits limits;
    limits.maxEntries = kMaxEntries;
    limits.maxBytes = kMaxBytes;
    SetArchiveLimits(limits);
  }

  fs::path Archive() const { return scratch_ / "a.zip"; }
  fs::path Out() const { return scratch_ / "out"; }
  void RequireNothingElse() const {
    for (const auto& entry : fs::directory_iterator(scratch_.Path())) {
      Require(entry.path() == Archive() || entry.path() == Out());
    }
  }

 private:
  const Scratch scratch_;
};

uint64_t BytesBelow(const fs::path& directory) {
  uint64_t bytes = 0;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    const fs::file_status status = entry.symlink_status();
    Require(fs::is_regular_file(status) || fs::is_directory(status));
    Require(!entry.path().filename().native().ends_with(".tmp") ||
            !entry.path().filename().native().starts_with(".zel-"));
    if (fs::is_regular_file(status)) bytes += entry.file_size();
  }
  return bytes;
}

void CheckExtraction(const uint8_t* data, size_t size, bool isUsable) {
  static const Workplace workplace;
  WriteBytes(workplace.Archive(), {reinterpret_cast<const char*>(data), size});
  fs::create_directory(workplace.Out());
  {
    GenericArchive archive(ZelString(workplace.Archive().native()), kArchiveZip);
    const uint32_t count = archive.GetFileCount();
    Require(count <= kMaxEntries);
    for (uint32_t index = 1; index <= count; ++index) {
      const ZelString name = archive.GetEntryPath(index);
      const int error =
          archive.ExtractEntry(index, ZelString(workplace.Out().native()) + "\\" + name);
      Require(isUsable || error != 0);
    }
  }
  workplace.RequireNothingElse();
  Require(BytesBelow(workplace.Out()) <= kMaxBytes);
  fs::remove_all(workplace.Out());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const bool isUsable = CheckDirectory(data, size);
  CheckName({reinterpret_cast<const char*>(data), std::min<size_t>(size, 200)});
  // Files take far longer than the directory: of what cannot be used a share is enough.
  if (isUsable || size % 16 == 0) CheckExtraction(data, size, isUsable);
  return 0;
}
