#include "agent/libZel/compressor.h"

#include <libdeflate.h>
#include <zlib.h>

#include <limits>
#include <new>
#include <stdexcept>

namespace {

// Files so small do not become smaller.
constexpr size_t kTinyBytes = 16;
// What marks the end of a block that is not the last one, and the bits in front of it.
constexpr size_t kMarkBytes = 16;

// zlib's fields take bytes that are not constant, and numbers of its own.
Bytef* BytesOf(std::string_view text) {
  return reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
}
uInt CountOf(size_t bytes) {
  if (bytes > std::numeric_limits<uInt>::max()) throw std::length_error("the block is too large");
  return static_cast<uInt>(bytes);
}

// zlib, for what cannot be compressed at once.
class BlockStream {
 public:
  explicit BlockStream(int level) {
    constexpr int kRawDeflate = -MAX_WBITS;
    if (deflateInit2(&stream_, level, Z_DEFLATED, kRawDeflate, MAX_MEM_LEVEL, Z_DEFAULT_STRATEGY) !=
        Z_OK) {
      throw std::bad_alloc();
    }
  }
  ~BlockStream() { deflateEnd(&stream_); }
  BlockStream(const BlockStream&) = delete;
  BlockStream& operator=(const BlockStream&) = delete;

  /// How much `Pack` may need.
  size_t RoomFor(size_t bytes) {
    return deflateBound(&stream_, static_cast<uLong>(bytes)) + kMarkBytes;
  }
  /// Returns how much it has needed.
  size_t Pack(std::string_view before, std::string_view block, bool isLast,
              std::vector<char>* room) {
    deflateReset(&stream_);
    if (!before.empty()) {
      deflateSetDictionary(&stream_, BytesOf(before), CountOf(before.size()));
    }
    stream_.next_in = BytesOf(block);
    stream_.avail_in = CountOf(block.size());
    stream_.next_out = BytesOf({room->data(), room->size()});
    stream_.avail_out = CountOf(room->size());
    // The mark ends with a whole byte, so the next block can follow.
    const int result = deflate(&stream_, isLast ? Z_FINISH : Z_SYNC_FLUSH);
    const bool isComplete =
        result == (isLast ? Z_STREAM_END : Z_OK) && stream_.avail_in == 0 && stream_.avail_out != 0;
    if (!isComplete) throw std::logic_error("a block has not become as small as it must");
    return room->size() - stream_.avail_out;
  }

 private:
  z_stream stream_ = {};
};

class Deflate final : public Compressor {
 public:
  explicit Deflate(int level) : level_(level) {}

  bool PackWhole(std::string_view content, std::vector<char>* packed) override {
    if (content.size() < kTinyBytes) return false;
    if (!whole_) whole_.reset(libdeflate_alloc_compressor(level_));
    if (!whole_) throw std::bad_alloc();
    room_.resize(content.size() - 1);
    const size_t packedBytes = libdeflate_deflate_compress(
        whole_.get(), content.data(), content.size(), room_.data(), room_.size());
    if (packedBytes == 0) return false;
    packed->assign(room_.begin(), room_.begin() + static_cast<ptrdiff_t>(packedBytes));
    return true;
  }

  void PackBlock(std::string_view before, std::string_view block, bool isLast,
                 std::vector<char>* packed) override {
    if (!blocks_) blocks_ = std::make_unique<BlockStream>(level_);
    room_.resize(blocks_->RoomFor(block.size()));
    const size_t packedBytes = blocks_->Pack(before, block, isLast, &room_);
    packed->assign(room_.begin(), room_.begin() + static_cast<ptrdiff_t>(packedBytes));
  }

 private:
  struct Free {
    void operator()(libdeflate_compressor* whole) const { libdeflate_free_compressor(whole); }
  };

  const int level_;
  std::unique_ptr<libdeflate_compressor, Free> whole_;
  std::unique_ptr<BlockStream> blocks_;
  std::vector<char> room_;
};

}  // namespace

std::unique_ptr<Compressor> MakeCompressor(int level) {
  return std::make_unique<Deflate>(level);
}
