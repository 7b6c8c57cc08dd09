#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZel/native_path.h"
#include "agent/libZel/platform/posix/descriptor_io.h"
#include "agent/libZel/platform/posix/unique_fd.h"
#include "agent/windows_api/pe_version.h"
#include "windows_api.h"

namespace {

constexpr size_t kHeaderBytes = 6;
constexpr WORD kText = 1;

class OpenedFile {
 public:
  // What is no regular file (a pipe, say) must neither block nor be read.
  explicit OpenedFile(const std::string& path)
      : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)) {}

  bool IsRegular() const {
    struct stat status {};
    return file_ && fstat(file_.Get(), &status) == 0 && S_ISREG(status.st_mode);
  }

  bool ReadAt(uint64_t offset, void* target, size_t count) const {
    size_t done = 0;
    return ReadUpToAt(file_.Get(), offset, target, count, &done) == 0 && done == count;
  }

 private:
  UniqueFd file_;
};

std::optional<std::vector<unsigned char>> ReadFromFile(const WCHAR* path) {
  if (!path) return std::nullopt;
  const NativePath native = ToNativePath(ZelString(path));
  if (!native) return std::nullopt;
  const OpenedFile file(native.path.native());
  if (!file.IsRegular()) return std::nullopt;
  return ReadVersionResource([&](uint64_t offset, void* target, size_t count) {
    return file.ReadAt(offset, target, count);
  });
}

/// The bytes of a version resource. They may stand at any address.
class Bytes {
 public:
  Bytes(const unsigned char* data, size_t size) : data_(data), size_(size) {}

  size_t Size() const { return size_; }
  /// The caller has seen to it that both bytes are there.
  WORD WordAt(size_t offset) const {
    return static_cast<WORD>(data_[offset] | data_[offset + 1] << 8);
  }
  const unsigned char* At(size_t offset) const { return data_ + offset; }

 private:
  const unsigned char* data_;
  size_t size_;
};

/// A node of the resource. Every offset lies within the resource, whatever the bytes say.
struct Block {
  size_t end = 0;
  size_t keyStart = 0;
  size_t keyLength = 0;  ///< characters
  size_t valueStart = 0;
  size_t valueBytes = 0;
  bool isText = false;
  size_t children = 0;
};

size_t Align(size_t offset) {
  return (offset + 3) & ~size_t{3};
}

std::optional<Block> ReadBlock(const Bytes& bytes, size_t start, size_t limit) {
  if (start + kHeaderBytes > limit) return std::nullopt;
  const size_t length = bytes.WordAt(start);
  if (length < kHeaderBytes) return std::nullopt;

  Block block;
  block.end = std::min(start + length, limit);
  block.isText = bytes.WordAt(start + 4) == kText;
  block.keyStart = start + kHeaderBytes;
  size_t keyEnd = block.keyStart;
  while (keyEnd + 2 <= block.end && bytes.WordAt(keyEnd) != 0) keyEnd += 2;
  if (keyEnd + 2 > block.end) return std::nullopt;
  block.keyLength = (keyEnd - block.keyStart) / 2;

  // Some tools count the bytes of a text where its characters are meant: the end of the block is
  // what bounds it.
  const size_t unitBytes = block.isText ? 2 : 1;
  block.valueStart = std::min(Align(keyEnd + 2), block.end);
  block.valueBytes = std::min(size_t{bytes.WordAt(start + 2)} * unitBytes,
                              (block.end - block.valueStart) / unitBytes * unitBytes);
  block.children = std::min(Align(block.valueStart + block.valueBytes), block.end);
  return block;
}

char16_t Lower(char16_t c) {
  return c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + (u'a' - u'A')) : c;
}

bool HasKey(const Bytes& bytes, const Block& block, std::u16string_view key) {
  if (block.keyLength != key.size()) return false;
  for (size_t i = 0; i < key.size(); ++i) {
    if (Lower(bytes.WordAt(block.keyStart + i * 2)) != Lower(key[i])) return false;
  }
  return true;
}

std::optional<Block> FindChild(const Bytes& bytes, const Block& parent, std::u16string_view key) {
  size_t offset = parent.children;
  while (const std::optional<Block> child = ReadBlock(bytes, offset, parent.end)) {
    if (HasKey(bytes, *child, key)) return child;
    offset = Align(child->end);
  }
  return std::nullopt;
}

std::optional<Block> FindBlock(const Bytes& bytes, std::u16string_view path) {
  std::optional<Block> block = ReadBlock(bytes, 0, bytes.Size());
  while (block && !path.empty()) {
    const size_t end = std::min(path.find(u'\\'), path.size());
    if (end > 0) block = FindChild(bytes, *block, path.substr(0, end));
    path.remove_prefix(std::min(end + 1, path.size()));
  }
  return block;
}

// What stands below "StringFileInfo" is text, even where a resource marks it as something else:
// callers count its characters.
bool NamesText(std::u16string_view path) {
  constexpr std::u16string_view kTexts = u"stringfileinfo";
  path.remove_prefix(std::min(path.find_first_not_of(u'\\'), path.size()));
  const std::u16string_view first = path.substr(0, path.find(u'\\'));
  return std::equal(first.begin(), first.end(), kTexts.begin(), kTexts.end(),
                    [](char16_t c, char16_t lower) { return Lower(c) == lower; });
}

}  // namespace

DWORD GetFileVersionInfoSizeW(const WCHAR* path, DWORD* handle) try {
  if (handle) *handle = 0;
  const auto resource = ReadFromFile(path);
  return resource ? static_cast<DWORD>(resource->size()) : 0;
} catch (...) {
  return 0;
}

BOOL GetFileVersionInfoW(const WCHAR* path, DWORD, DWORD size, void* data) try {
  if (!data || size < kHeaderBytes) return 0;
  const auto resource = ReadFromFile(path);
  if (!resource) return 0;

  const size_t count = std::min<size_t>(size, resource->size());
  std::memcpy(data, resource->data(), count);
  // Queries know no other bound than the length in the resource itself.
  const size_t claimed = Bytes(resource->data(), resource->size()).WordAt(0);
  const auto length = static_cast<WORD>(std::min(claimed, count));
  auto* const bytes = static_cast<unsigned char*>(data);
  bytes[0] = static_cast<unsigned char>(length & 0xFF);
  bytes[1] = static_cast<unsigned char>(length >> 8);
  return 1;
} catch (...) {
  return 0;
}

BOOL VerQueryValueW(const void* data, const WCHAR* path, void** value, UINT* length) try {
  if (!data || !path || !value) return 0;
  const auto* const start = static_cast<const unsigned char*>(data);
  const Bytes bytes(start, Bytes(start, 2).WordAt(0));
  const std::optional<Block> block = FindBlock(bytes, path);
  if (!block) return 0;

  // The declaration is Microsoft's: it hands constant data out as if it could be written.
  *value = const_cast<unsigned char*>(bytes.At(block->valueStart));
  const size_t unitBytes = block->isText || NamesText(path) ? 2 : 1;
  if (length) *length = static_cast<UINT>(block->valueBytes / unitBytes);
  return 1;
} catch (...) {
  return 0;
}
