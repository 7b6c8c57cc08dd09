#pragma once

#include <libdeflate.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

/// One entry as an archive tells it: also what is not true.
struct ZipRecord {
  std::string name;
  std::string content = {};
  uint16_t flags = 0;
  uint16_t method = 0;
  /// The system that made it: 3 is Unix, 0 DOS.
  uint8_t system = 3;
  uint32_t mode = 0100644;
  uint8_t dosAttributes = 0;
  /// 2024-02-03 04:05:06.
  uint16_t dosDate = (44 << 9) | (2 << 5) | 3;
  uint16_t dosTime = (4 << 11) | (5 << 5) | 3;
  std::string localExtra = {};
  std::string extra = {};
  /// Added to what is true.
  int64_t sizeError = 0;
  uint32_t crcError = 0;
};

/// Little-endian bytes of a number.
inline std::string LittleEndian(uint64_t value, size_t size) {
  std::string bytes;
  for (size_t i = 0; i < size; ++i) bytes += static_cast<char>(i < 8 ? value >> (8 * i) : 0);
  return bytes;
}

inline std::string Deflated(std::string_view content) {
  const std::unique_ptr<libdeflate_compressor, void (*)(libdeflate_compressor*)> packer(
      libdeflate_alloc_compressor(6), libdeflate_free_compressor);
  std::string packed(libdeflate_deflate_compress_bound(packer.get(), content.size()), '\0');
  packed.resize(libdeflate_deflate_compress(packer.get(), content.data(), content.size(),
                                            packed.data(), packed.size()));
  return packed;
}

/// Puts archives together by hand, hostile ones above all.
class ZipBuilder {
 public:
  ZipBuilder& Add(const ZipRecord& record) {
    const std::string packed = record.method == 8 ? Deflated(record.content) : record.content;
    const uint32_t crc =
        libdeflate_crc32(0, record.content.data(), record.content.size()) + record.crcError;
    const uint64_t size = record.content.size() + static_cast<uint64_t>(record.sizeError);
    const std::string common = LittleEndian(record.flags, 2) + LittleEndian(record.method, 2) +
                               LittleEndian(record.dosTime, 2) + LittleEndian(record.dosDate, 2) +
                               LittleEndian(crc, 4) + LittleEndian(packed.size(), 4) +
                               LittleEndian(size, 4) + LittleEndian(record.name.size(), 2);
    const uint64_t offset = body_.size();
    body_ += "PK\3\4" + LittleEndian(20, 2) + common + LittleEndian(record.localExtra.size(), 2) +
             record.name + record.localExtra + packed;
    directory_ += "PK\1\2" + LittleEndian(20 | record.system << 8, 2) + LittleEndian(20, 2) +
                  common + LittleEndian(record.extra.size(), 2) + LittleEndian(0, 2) +
                  LittleEndian(0, 2) + LittleEndian(0, 2) +
                  LittleEndian(record.mode << 16 | record.dosAttributes, 4) +
                  LittleEndian(offset, 4) + record.name + record.extra;
    ++count_;
    return *this;
  }
  ZipBuilder& Add(const std::string& name, const std::string& content) {
    ZipRecord record;
    record.name = name;
    record.content = content;
    return Add(record);
  }

  /// `between` stands in front of the directory.
  std::string Bytes(const std::string& between = "", const std::string& comment = "") const {
    const uint64_t offset = body_.size() + between.size();
    return body_ + between + directory_ + "PK\5\6" + LittleEndian(0, 4) + LittleEndian(count_, 2) +
           LittleEndian(count_, 2) + LittleEndian(directory_.size(), 4) + LittleEndian(offset, 4) +
           LittleEndian(comment.size(), 2) + comment;
  }

 private:
  std::string body_;
  std::string directory_;
  uint16_t count_ = 0;
};
