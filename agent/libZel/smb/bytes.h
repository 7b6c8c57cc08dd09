#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <stdexcept>
#include <string_view>
#include <utility>
#include <vector>

namespace smb {

using Bytes = std::vector<uint8_t>;
using ByteView = std::span<const uint8_t>;

inline ByteView ViewOf(std::string_view text) {
  return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

/// Puts a message together. Numbers are little-endian, as everywhere in SMB.
class ByteWriter {
 public:
  ByteWriter& U8(uint8_t value) { return Number(value, 1); }
  ByteWriter& U16(uint16_t value) { return Number(value, 2); }
  ByteWriter& U32(uint32_t value) { return Number(value, 4); }
  ByteWriter& U64(uint64_t value) { return Number(value, 8); }
  ByteWriter& Zeros(size_t count) {
    // One by one: GCC 12 takes the other ways, once inlined, for writes beyond the end.
    for (size_t i = 0; i < count; ++i) bytes_.push_back(0);
    return *this;
  }
  ByteWriter& Raw(ByteView bytes) {
    bytes_.insert(bytes_.end(), bytes.begin(), bytes.end());
    return *this;
  }
  ByteWriter& AlignTo8() { return Zeros((8 - bytes_.size() % 8) % 8); }

  size_t Size() const { return bytes_.size(); }
  Bytes Take() { return std::move(bytes_); }

 private:
  ByteWriter& Number(uint64_t value, size_t size) {
    for (size_t i = 0; i < size; ++i) bytes_.push_back(static_cast<uint8_t>(value >> (8 * i)));
    return *this;
  }

  Bytes bytes_;
};

/// Looks into a message of the other side. What lies beyond its end throws std::runtime_error.
class ByteReader {
 public:
  explicit ByteReader(ByteView bytes) : bytes_(bytes) {}

  uint8_t U8(size_t offset) const { return static_cast<uint8_t>(Number(offset, 1)); }
  uint16_t U16(size_t offset) const { return static_cast<uint16_t>(Number(offset, 2)); }
  uint32_t U32(size_t offset) const { return static_cast<uint32_t>(Number(offset, 4)); }
  uint64_t U64(size_t offset) const { return Number(offset, 8); }
  ByteView Part(size_t offset, size_t count) const {
    if (offset > bytes_.size() || count > bytes_.size() - offset)
      throw std::runtime_error("the server's answer is too short");
    return bytes_.subspan(offset, count);
  }
  size_t Size() const { return bytes_.size(); }

 private:
  uint64_t Number(size_t offset, size_t size) const {
    const ByteView part = Part(offset, size);
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) value |= uint64_t{part[i]} << (8 * i);
    return value;
  }

  ByteView bytes_;
};

}  // namespace smb
