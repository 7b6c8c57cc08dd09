// Files compressed by several threads, and the compressor that makes one stream of blocks.

#include "agent/libZel/pack_ahead.h"

#include <gtest/gtest.h>
#include <libdeflate.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <utility>

#include "tests/agent/archive_files.h"

namespace fs = std::filesystem;

namespace {

constexpr size_t kBlock = PackAhead::kBlockBytes;
constexpr size_t kWindow = Compressor::kWindowBytes;

std::string Unpacked(const std::string& packed, size_t sizeBytes) {
  const std::unique_ptr<libdeflate_decompressor, void (*)(libdeflate_decompressor*)> unpacker(
      libdeflate_alloc_decompressor(), libdeflate_free_decompressor);
  std::string content(sizeBytes + 1, '\0');
  size_t used = 0;
  size_t count = 0;
  const libdeflate_result result = libdeflate_deflate_decompress_ex(
      unpacker.get(), packed.data(), packed.size(), content.data(), content.size(), &used, &count);
  EXPECT_EQ(result, LIBDEFLATE_SUCCESS);
  EXPECT_EQ(used, packed.size()) << "nothing stands behind the stream";
  content.resize(count);
  return content;
}

size_t SizeInOneGo(const std::string& content, int level) {
  z_stream stream = {};
  EXPECT_EQ(deflateInit2(&stream, level, Z_DEFLATED, -MAX_WBITS, MAX_MEM_LEVEL, 0), Z_OK);
  std::string packed(deflateBound(&stream, static_cast<uLong>(content.size())), '\0');
  std::string read = content;
  stream.next_in = reinterpret_cast<Bytef*>(read.data());
  stream.avail_in = static_cast<uInt>(read.size());
  stream.next_out = reinterpret_cast<Bytef*>(packed.data());
  stream.avail_out = static_cast<uInt>(packed.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  const size_t sizeBytes = stream.total_out;
  deflateEnd(&stream);
  return sizeBytes;
}

std::string Repeated(const std::string& period, size_t count) {
  std::string content = period;
  while (content.size() < count) content += content;
  content.resize(count);
  return content;
}

// What becomes smaller by its repetitions alone, which reach from one block to the next.
std::string Periods(size_t count) {
  return Repeated(Noise(kWindow - 1000), count);
}

std::string Lines(size_t count) {
  std::string some;
  for (int i = 0; some.size() < 3 * kWindow; ++i) {
    some += "line " + std::to_string(i) + " of " + std::to_string(i % 97) + "\n";
  }
  return Repeated(some, count);
}

TEST(Compressor, MakesOneStreamOfBlocks) {
  for (const std::string& content : {Lines(200000), Noise(200000), std::string(200000, '\0')}) {
    for (const int level : {1, 6, 9}) {
      const std::unique_ptr<Compressor> compressor = MakeCompressor(level);
      for (const size_t block : {size_t{1000}, kWindow, size_t{199999}, size_t{200000}}) {
        std::string packed;
        for (size_t at = 0; at <= content.size(); at += block) {
          const size_t before = std::min(at, kWindow);
          const std::string_view all = content;
          std::vector<char> bytes;
          compressor->PackBlock(all.substr(at - before, before), all.substr(at, block),
                                at + block > content.size(), &bytes);
          packed.append(bytes.begin(), bytes.end());
        }
        EXPECT_TRUE(Unpacked(packed, content.size()) == content) << level << ", " << block;
      }
    }
  }
}

// Stands for one that cannot make anything smaller, and tells what comes to it.
class Watching final : public Compressor {
 public:
  using Watch = std::function<void(std::string_view before, std::string_view block)>;

  explicit Watching(Watch watch) : watch_(std::move(watch)) {}

  bool PackWhole(std::string_view, std::vector<char>*) override { return false; }
  void PackBlock(std::string_view before, std::string_view block, bool,
                 std::vector<char>* packed) override {
    watch_(before, block);
    packed->assign(block.begin(), block.end());
  }

 private:
  const Watch watch_;
};

class PackAheadTest : public testing::Test {
 protected:
  using Pieces = std::vector<PackAhead::Piece>;

  PackAhead::Job Put(const ZelString& name, const std::string& content) {
    WriteFile(directory_.Native(name), content);
    return {directory_.Native(name), content.size()};
  }
  PackAhead::Job PutZeros(const ZelString& name, uint64_t sizeBytes) {
    PackAhead::Job job = Put(name, "");
    job.sizeBytes = sizeBytes;
    fs::resize_file(job.path, sizeBytes);
    return job;
  }
  static std::unique_ptr<Compressor> MakeFast() { return MakeCompressor(1); }
  static PackAhead::MakeCompressor MakeWatching(const Watching::Watch& watch) {
    return [watch] { return std::make_unique<Watching>(watch); };
  }
  static Pieces TakeAll(PackAhead* ahead, size_t job) {
    Pieces pieces;
    do {
      pieces.push_back(ahead->Take(job));
    } while (!pieces.back().isLast);
    return pieces;
  }
  static std::string Joined(const Pieces& pieces) {
    std::string bytes;
    for (const PackAhead::Piece& piece : pieces) {
      EXPECT_EQ(piece.error, 0);
      bytes.append(piece.bytes.begin(), piece.bytes.end());
    }
    return bytes;
  }

  TemporaryDirectory directory_;
};

TEST_F(PackAheadTest, MakesOneStreamOfALargeFile) {
  for (const size_t size : {3 * kBlock - 1, 3 * kBlock, 3 * kBlock + 1}) {
    const std::string content = Lines(size - 100) + Noise(100);
    PackAhead ahead({Put("large", content)}, MakeFast, 4);
    const Pieces pieces = TakeAll(&ahead, 0);
    EXPECT_EQ(pieces.size(), size / kBlock + 1);
    EXPECT_TRUE(Unpacked(Joined(pieces), size) == content) << size;
  }
}

TEST_F(PackAheadTest, TellsSizeAndChecksumOfEachPiece) {
  const std::string content = Lines(2 * kBlock + 1);
  PackAhead ahead({Put("large", content)}, MakeFast, 2);
  size_t at = 0;
  for (const PackAhead::Piece& piece : TakeAll(&ahead, 0)) {
    EXPECT_EQ(piece.crc, libdeflate_crc32(0, content.data() + at, piece.sizeBytes));
    at += piece.sizeBytes;
  }
  EXPECT_EQ(at, content.size());
}

TEST_F(PackAheadTest, GivesTheFilesInTheirOrder) {
  const std::string large = Lines(PackAhead::kSmallBytes + 1);
  PackAhead ahead({Put("a", Lines(1000)), Put("b", large), Put("c", ""), Put("d", large)}, MakeFast,
                  4);
  EXPECT_EQ(Unpacked(Joined(TakeAll(&ahead, 0)), 1000), Lines(1000));
  EXPECT_TRUE(Unpacked(Joined(TakeAll(&ahead, 1)), large.size()) == large);
  EXPECT_EQ(TakeAll(&ahead, 2).front().sizeBytes, 0u);
  EXPECT_TRUE(Unpacked(Joined(TakeAll(&ahead, 3)), large.size()) == large);
}

TEST_F(PackAheadTest, NeverGivesOneFileForAnother) {
  PackAhead ahead({Put("a", "1"), Put("b", "2")}, MakeFast, 1);
  EXPECT_THROW(ahead.Take(1), std::logic_error);
}

TEST_F(PackAheadTest, MakesBlocksHardlyLargerThanOneStream) {
  constexpr size_t kSize = 3 * kBlock;
  const std::pair<const char*, std::string> contents[] = {{"lines", Lines(kSize)},
                                                          {"periods", Periods(kSize)},
                                                          {"noise", Noise(kSize)},
                                                          {"zeros", std::string(kSize, '\0')}};
  for (const auto& [name, content] : contents) {
    PackAhead ahead(
        {Put("large", content)}, [] { return MakeCompressor(6); }, 4);
    const size_t inOneGo = SizeInOneGo(content, 6);
    EXPECT_LT(Joined(TakeAll(&ahead, 0)).size(), inOneGo + inOneGo / 200) << name;
  }
}

TEST_F(PackAheadTest, CompressesSeveralBlocksOfOneFileAtOnce) {
  std::mutex mutex;
  std::condition_variable changed;
  int insideCount = 0;
  bool haveMet = false;
  // Two that are in work at once meet here; one alone would wait in vain.
  const auto meet = [&](std::string_view, std::string_view) {
    std::unique_lock lock(mutex);
    haveMet = haveMet || ++insideCount == 2;
    changed.notify_all();
    changed.wait_for(lock, std::chrono::seconds(20), [&] { return haveMet; });
    --insideCount;
  };
  PackAhead ahead({PutZeros("large", 3 * kBlock)}, MakeWatching(meet), 2);
  TakeAll(&ahead, 0);
  EXPECT_TRUE(haveMet);
}

TEST_F(PackAheadTest, WaitsWhileTooMuchIsNotTaken) {
  constexpr int kBlocks = 40;
  constexpr int kMaxAhead = (32 << 20) / kBlock;
  std::atomic<int> packedCount{0};
  std::atomic<int> takenCount{0};
  std::atomic<int> mostAhead{0};
  const auto count = [&](std::string_view, std::string_view) {
    const int ahead = ++packedCount - takenCount;
    if (ahead > mostAhead) mostAhead = ahead;
  };
  PackAhead ahead({PutZeros("large", kBlocks * kBlock - 1)}, MakeWatching(count), 2);
  for (int i = 0; i < kBlocks; ++i) {
    while (packedCount < std::min(kBlocks, i + kMaxAhead)) std::this_thread::yield();
    ++takenCount;
    EXPECT_EQ(ahead.Take(0).error, 0);
  }
  EXPECT_EQ(mostAhead, kMaxAhead);
}

TEST_F(PackAheadTest, EndsWhileBlocksWaitToBeTaken) {
  std::atomic<int> packedCount{0};
  {
    PackAhead ahead({PutZeros("large", 40 * kBlock)},
                    MakeWatching([&](std::string_view, std::string_view) { ++packedCount; }), 4);
    EXPECT_FALSE(ahead.Take(0).isLast);
  }
  EXPECT_LT(packedCount, 40);
}

TEST_F(PackAheadTest, LooksForRepetitionsInWhatItHasRead) {
  // The file changes behind the reader, where the next block would look for repetitions.
  const std::string content = Periods(2 * kBlock + 1);
  const PackAhead::Job job = Put("large", content);
  std::string seen;
  const auto change = [&](std::string_view before, std::string_view block) {
    EXPECT_TRUE(seen.ends_with(before));
    EXPECT_EQ(before.size(), seen.empty() ? 0 : kWindow);
    seen += block;
    std::fstream file(job.path, std::ios::binary | std::ios::in | std::ios::out);
    file.write(std::string(seen.size(), 'x').data(), static_cast<std::streamsize>(seen.size()));
  };
  PackAhead ahead({job}, MakeWatching(change), 1);
  EXPECT_TRUE(Joined(TakeAll(&ahead, 0)) == content);
  EXPECT_TRUE(seen == content);
}

TEST_F(PackAheadTest, ReadsASmallFileThatHasGrownToItsEnd) {
  const std::string grown = Lines(PackAhead::kSmallBytes + 3 * kBlock);
  PackAhead::Job job = Put("grown", grown);
  job.sizeBytes = 10;
  PackAhead ahead({job, Put("next", "next"), job}, MakeFast, 2);
  EXPECT_TRUE(Unpacked(Joined(TakeAll(&ahead, 0)), grown.size()) == grown);
  EXPECT_EQ(Joined(TakeAll(&ahead, 1)), "next");
  EXPECT_TRUE(Unpacked(Joined(TakeAll(&ahead, 2)), grown.size()) == grown);
}

TEST_F(PackAheadTest, ReadsALargeFileThatHasShrunkToItsEnd) {
  for (const size_t size : {size_t{0}, size_t{1}, kBlock, kBlock + 1}) {
    PackAhead::Job job = Put("shrunk", Lines(size));
    job.sizeBytes = 100 * kBlock;
    PackAhead ahead({job, Put("next", "next")}, MakeFast, 2);
    EXPECT_TRUE(Unpacked(Joined(TakeAll(&ahead, 0)), size) == Lines(size)) << size;
    EXPECT_EQ(Joined(TakeAll(&ahead, 1)), "next");
  }
}

TEST_F(PackAheadTest, TellsWhichFileCannotBeRead) {
  const PackAhead::Job missing = {directory_.Native("missing"), 100 * kBlock};
  PackAhead ahead({missing, Put("next", "next")}, MakeFast, 2);
  const PackAhead::Piece piece = ahead.Take(0);
  EXPECT_NE(piece.error, 0);
  EXPECT_TRUE(piece.isLast);
  EXPECT_EQ(Joined(TakeAll(&ahead, 1)), "next");
}

TEST_F(PackAheadTest, StoresWithoutACompressor) {
  const std::string content = Lines(3 * kBlock);
  PackAhead ahead(
      {Put("large", content), Put("small", "aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa")},
      [] { return nullptr; }, 2);
  const Pieces pieces = TakeAll(&ahead, 0);
  EXPECT_FALSE(pieces.front().isDeflated);
  EXPECT_TRUE(Joined(pieces) == content);
  EXPECT_FALSE(ahead.Take(1).isDeflated);
}

}  // namespace
