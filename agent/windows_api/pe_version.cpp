#include "agent/windows_api/pe_version.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t kShortestBlock = 6;
constexpr uint32_t kLongestBlock = 0xFFFF;

constexpr uint16_t kDosSignature = 0x5A4D;
constexpr uint32_t kPeSignature = 0x00004550;
constexpr uint16_t kMagic32 = 0x10B;
constexpr uint16_t kMagic64 = 0x20B;
constexpr uint32_t kResourceDirectory = 2;
constexpr uint32_t kVersionType = 16;
constexpr uint32_t kHighBit = 0x80000000;

// Values are little-endian on disk, wherever they are read.
uint16_t Word(const unsigned char* bytes) {
  return static_cast<uint16_t>(bytes[0] | bytes[1] << 8);
}

uint32_t Long(const unsigned char* bytes) {
  return Word(bytes) | static_cast<uint32_t>(Word(bytes + 2)) << 16;
}

struct Section {
  uint32_t address = 0;  ///< where it stands in memory
  uint32_t sizeBytes = 0;
  uint32_t offset = 0;  ///< where it stands in the file
};

class Image {
 public:
  explicit Image(const ReadAt& readAt) : readAt_(readAt) {}

  std::optional<std::vector<unsigned char>> ReadVersion() {
    uint32_t resources = 0;
    if (!ReadHeaders(&resources)) return std::nullopt;

    // Three levels: the type, the resource's name, the language.
    uint32_t offset = 0;
    if (!FindEntry(resources, kVersionType, &offset) || (offset & kHighBit) == 0)
      return std::nullopt;
    for (int level = 0; level < 2; ++level) {
      if (!FindEntry(uint64_t{resources} + (offset & ~kHighBit), std::nullopt, &offset))
        return std::nullopt;
      const bool isDirectory = (offset & kHighBit) != 0;
      if (isDirectory != (level == 0)) return std::nullopt;
    }
    return ReadData(uint64_t{resources} + offset);
  }

 private:
  bool ReadHeaders(uint32_t* resources) {
    constexpr size_t kHeaderBytes = 24;
    std::array<unsigned char, 64> dos;
    std::array<unsigned char, kHeaderBytes> header;
    if (!readAt_(0, dos.data(), dos.size()) || Word(dos.data()) != kDosSignature) return false;
    const uint64_t start = Long(&dos[0x3C]);
    if (!readAt_(start, header.data(), header.size())) return false;
    if (Long(header.data()) != kPeSignature) return false;

    const uint16_t sectionCount = Word(&header[6]);
    const uint16_t optionalBytes = Word(&header[20]);
    const uint64_t optionalHeader = start + kHeaderBytes;
    return ReadResourceAddress(optionalHeader, optionalBytes, resources) &&
           ReadSections(optionalHeader + optionalBytes, sectionCount);
  }

  bool ReadResourceAddress(uint64_t header, size_t headerBytes, uint32_t* address) {
    constexpr size_t kEntryBytes = 8;
    std::array<unsigned char, 2> magic;
    if (!readAt_(header, magic.data(), magic.size())) return false;
    const uint16_t kind = Word(magic.data());
    if (kind != kMagic32 && kind != kMagic64) return false;

    const size_t directories = kind == kMagic64 ? 112 : 96;
    const size_t entry = directories + kResourceDirectory * kEntryBytes;
    if (headerBytes < entry + kEntryBytes) return false;
    std::array<unsigned char, 4> value;
    if (!readAt_(header + directories - 4, value.data(), value.size())) return false;
    if (Long(value.data()) <= kResourceDirectory) return false;
    if (!readAt_(header + entry, value.data(), value.size())) return false;
    *address = Long(value.data());
    return *address != 0;
  }

  bool ReadSections(uint64_t offset, size_t count) {
    constexpr size_t kSectionBytes = 40;
    if (count == 0) return false;
    std::vector<unsigned char> table(count * kSectionBytes);
    if (!readAt_(offset, table.data(), table.size())) return false;
    for (size_t i = 0; i < count; ++i) {
      const unsigned char* const row = &table[i * kSectionBytes];
      sections_.push_back({Long(row + 12), Long(row + 16), Long(row + 20)});
    }
    return true;
  }

  // Reads from where a section stands in memory; only what the file holds of one section.
  bool ReadMemory(uint64_t address, void* target, size_t count) const {
    for (const Section& section : sections_) {
      if (address < section.address) continue;
      const uint64_t distance = address - section.address;
      if (distance >= section.sizeBytes) continue;
      return count <= section.sizeBytes - distance &&
             readAt_(section.offset + distance, target, count);
    }
    return false;
  }

  // The entry `id` of a resource directory, or its first one.
  bool FindEntry(uint64_t directory, std::optional<uint32_t> id, uint32_t* offset) const {
    constexpr size_t kHeaderBytes = 16;
    constexpr size_t kEntryBytes = 8;
    std::array<unsigned char, kHeaderBytes> header;
    if (!ReadMemory(directory, header.data(), header.size())) return false;
    const size_t count = size_t{Word(&header[12])} + Word(&header[14]);
    if (count == 0) return false;

    std::vector<unsigned char> entries((id ? count : 1) * kEntryBytes);
    if (!ReadMemory(directory + kHeaderBytes, entries.data(), entries.size())) return false;
    for (size_t i = 0; i < entries.size(); i += kEntryBytes) {
      if (id && Long(&entries[i]) != *id) continue;
      *offset = Long(&entries[i + 4]);
      return true;
    }
    return false;
  }

  std::optional<std::vector<unsigned char>> ReadData(uint64_t entry) const {
    std::array<unsigned char, 8> addressAndSize;
    if (!ReadMemory(entry, addressAndSize.data(), addressAndSize.size())) return std::nullopt;
    const uint32_t sizeBytes = std::min(Long(&addressAndSize[4]), kLongestBlock);
    if (sizeBytes < kShortestBlock) return std::nullopt;
    std::vector<unsigned char> data(sizeBytes);
    if (!ReadMemory(Long(addressAndSize.data()), data.data(), data.size())) return std::nullopt;
    return data;
  }

  const ReadAt& readAt_;
  std::vector<Section> sections_;
};

}  // namespace

std::optional<std::vector<unsigned char>> ReadVersionResource(const ReadAt& readAt) {
  return Image(readAt).ReadVersion();
}
