#pragma once

#include <cstddef>
#include <memory>
#include <string_view>
#include <vector>

/// Compresses the content of files into raw deflate (RFC 1951), one after the other. For one thread
/// at once.
class Compressor {
 public:
  /// How far behind itself deflate looks for repetitions.
  static constexpr size_t kWindowBytes = 32 << 10;

  virtual ~Compressor() = default;

  /// Compresses a whole file; false when that does not make it smaller.
  virtual bool PackWhole(std::string_view content, std::vector<char>* packed) = 0;
  /// Compresses one block of a file, which may be empty. What all its blocks become, the last one
  /// marked, is one stream. `before` is what stands in front of the block, up to `kWindowBytes`.
  virtual void PackBlock(std::string_view before, std::string_view block, bool isLast,
                         std::vector<char>* packed) = 0;
};

/// `level` is the effort from 1 to 9.
std::unique_ptr<Compressor> MakeCompressor(int level);
