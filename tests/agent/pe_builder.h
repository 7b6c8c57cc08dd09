#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Makes Portable Executables with a version resource, byte by byte, for tests of their reader.
namespace pe {

using Bytes = std::string;

inline void PutWord(Bytes* bytes, unsigned value) {
  bytes->push_back(static_cast<char>(value & 0xFF));
  bytes->push_back(static_cast<char>(value >> 8 & 0xFF));
}

inline void PutLong(Bytes* bytes, uint32_t value) {
  PutWord(bytes, value & 0xFFFF);
  PutWord(bytes, value >> 16);
}

inline void PutText(Bytes* bytes, std::u16string_view text) {
  for (const char16_t c : text) PutWord(bytes, c);
  PutWord(bytes, 0);
}

inline void Pad(Bytes* bytes, size_t boundary) {
  while (bytes->size() % boundary != 0) bytes->push_back('\0');
}

/// A node of a version resource. Blocks start at multiples of four.
inline Bytes Block(std::u16string_view key, bool isText, const Bytes& value,
                   const std::vector<Bytes>& children) {
  Bytes block;
  PutWord(&block, 0);
  PutWord(&block, static_cast<unsigned>(isText ? value.size() / 2 : value.size()));
  PutWord(&block, isText ? 1 : 0);
  PutText(&block, key);
  if (!value.empty()) Pad(&block, 4);
  block += value;
  for (const Bytes& child : children) {
    Pad(&block, 4);
    block += child;
  }
  block[0] = static_cast<char>(block.size() & 0xFF);
  block[1] = static_cast<char>(block.size() >> 8);
  return block;
}

using Texts = std::vector<std::pair<std::u16string, std::u16string>>;

struct Table {
  std::u16string key;  ///< "040904b0"
  Texts texts;
};

/// 52 bytes that begin with the signature of the fixed part.
inline Bytes FixedPart() {
  Bytes fixed;
  PutLong(&fixed, 0xFEEF04BD);
  PutLong(&fixed, 0x00010000);
  fixed.resize(52, '\x11');
  return fixed;
}

inline Bytes StringTable(const Table& table) {
  std::vector<Bytes> texts;
  for (const auto& [name, text] : table.texts) {
    Bytes value;
    if (!text.empty()) PutText(&value, text);
    texts.push_back(Block(name, true, value, {}));
  }
  return Block(table.key, true, {}, texts);
}

/// A version resource with the tables, which it names as translations unless `translations` says
/// otherwise (language and code page of each).
inline Bytes VersionResource(const std::vector<Table>& tables,
                             const std::vector<std::pair<unsigned, unsigned>>& translations) {
  std::vector<Bytes> children;
  std::vector<Bytes> tableBlocks;
  for (const Table& table : tables) tableBlocks.push_back(StringTable(table));
  if (!tables.empty()) children.push_back(Block(u"StringFileInfo", true, {}, tableBlocks));
  if (!translations.empty()) {
    Bytes value;
    for (const auto& [language, codePage] : translations) {
      PutWord(&value, language);
      PutWord(&value, codePage);
    }
    const Bytes translation = Block(u"Translation", false, value, {});
    children.push_back(Block(u"VarFileInfo", true, {}, {translation}));
  }
  return Block(u"VS_VERSION_INFO", false, FixedPart(), children);
}

struct Options {
  bool is64Bit = true;
  uint32_t resourceType = 16;
  bool hasNamedEntry = false;  ///< the resource has a name instead of the number 1
  uint16_t machine = 0x8664;
};

/// A library with one section that holds `resource`. Nothing runs in it.
inline Bytes Library(const Bytes& resource, const Options& options = {}) {
  constexpr uint32_t kAddress = 0x2000;
  constexpr uint32_t kOffset = 0x200;
  constexpr uint32_t kHighBit = 0x80000000;

  Bytes section;
  const auto putDirectory = [&](uint32_t id, uint32_t offset, bool isNamed) {
    section.append(12, '\0');
    PutWord(&section, isNamed ? 1 : 0);
    PutWord(&section, isNamed ? 0 : 1);
    PutLong(&section, id);
    PutLong(&section, offset);
  };
  putDirectory(options.resourceType, kHighBit | 24, false);
  putDirectory(options.hasNamedEntry ? kHighBit | 88 : 1, kHighBit | 48, options.hasNamedEntry);
  putDirectory(0x409, 72, false);
  PutLong(&section, kAddress + 96);
  PutLong(&section, static_cast<uint32_t>(resource.size()));
  PutLong(&section, 0);
  PutLong(&section, 0);
  PutWord(&section, 1);
  PutWord(&section, 'V');
  section.resize(96, '\0');
  section += resource;
  Pad(&section, 16);

  Bytes file = "MZ";
  file.resize(0x3C, '\0');
  PutLong(&file, 0x40);
  PutLong(&file, 0x00004550);
  PutWord(&file, options.machine);
  PutWord(&file, 1);
  file.append(12, '\0');
  const size_t optionalBytes = (options.is64Bit ? 112 : 96) + 16 * 8;
  PutWord(&file, static_cast<unsigned>(optionalBytes));
  PutWord(&file, 0x2022);

  Bytes optional;
  PutWord(&optional, options.is64Bit ? 0x20B : 0x10B);
  optional.resize((options.is64Bit ? 112 : 96) - 4, '\0');
  PutLong(&optional, 16);
  optional.append(16, '\0');
  PutLong(&optional, kAddress);
  PutLong(&optional, static_cast<uint32_t>(section.size()));
  optional.resize(optionalBytes, '\0');
  file += optional;

  file += Bytes(".rsrc\0\0\0", 8);
  PutLong(&file, static_cast<uint32_t>(section.size()));
  PutLong(&file, kAddress);
  PutLong(&file, static_cast<uint32_t>(section.size()));
  PutLong(&file, kOffset);
  file.append(16, '\0');
  file.resize(kOffset, '\0');
  return file + section;
}

}  // namespace pe
