#pragma once

#include <array>
#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "agent/libZel/compressor.h"

/// Reads and compresses files on threads of its own, ahead of the one that writes them into an
/// archive: small files as a whole, large ones in blocks, of which several are in work at once.
/// What is begun and not yet taken stays below a limit.
class PackAhead {
 public:
  /// Files up to this size are small.
  static constexpr uint64_t kSmallBytes = 8 << 20;
  /// Of large files, but for the last one of each. In smaller blocks, what is all alike would
  /// become noticeably larger.
  static constexpr size_t kBlockBytes = 4 << 20;

  struct Job {
    std::filesystem::path path;
    /// As far as is known.
    uint64_t sizeBytes = 0;
  };
  /// A file, or a block of it.
  struct Piece {
    /// Why the file cannot be read, or 0.
    int error = 0;
    /// Nothing of the file follows.
    bool isLast = true;
    bool isDeflated = false;
    std::vector<char> bytes;
    /// Of what it was made of.
    uint64_t sizeBytes = 0;
    uint32_t crc = 0;
  };
  /// Is called once on each thread; null when nothing is to be compressed.
  using MakeCompressor = std::function<std::unique_ptr<Compressor>()>;

  static unsigned ThreadsOfMachine();

  /// Throws when not even one thread can be started.
  PackAhead(std::vector<Job> jobs, MakeCompressor makeCompressor, unsigned maxThreads);
  ~PackAhead();
  PackAhead(const PackAhead&) = delete;
  PackAhead& operator=(const PackAhead&) = delete;

  /// Waits for the next piece. The jobs' turns are in their order; each ends with its last piece or
  /// an error.
  Piece Take(size_t job);

 private:
  class BlockReader;
  class Packer;
  // What a thread has to do.
  struct Turn {
    size_t number = 0;
    size_t job = 0;
    bool isWhole = false;
    uint64_t countedBytes = 0;
    // Why its block cannot be read, or 0.
    int error = 0;
  };
  struct Done {
    size_t job = 0;
    // A small file that has grown: nothing of it is here.
    bool hasGrown = false;
    Piece piece;
  };
  // In work and not yet taken.
  static constexpr uint64_t kMaxAheadBytes = 32 << 20;
  static constexpr size_t kMaxAheadPieces = 2048;

  void Work(std::unique_ptr<Compressor> compressor);
  bool Begin(Turn* turn, Packer* packer);
  bool Reserve(Turn* turn);
  int ReadBlock(size_t job, std::unique_ptr<BlockReader>* reader, Packer* packer) const;
  void End(const Turn& turn, Done done);
  Done TakeNext();
  Piece TakeGrown(size_t job);

  const std::vector<Job> jobs_;
  const MakeCompressor makeCompressor_;

  // Held while a thread takes a turn, so that turns and what is read for them are in order.
  std::mutex turns_;
  size_t nextJob_ = 0;
  // The large file that has begun.
  std::unique_ptr<BlockReader> reader_;

  std::mutex mutex_;
  std::condition_variable changed_;
  bool isStopped_ = false;
  uint64_t aheadBytes_ = 0;
  size_t begunCount_ = 0;
  size_t takenCount_ = 0;
  // By the turn's number.
  std::array<std::optional<Done>, kMaxAheadPieces> done_;

  // The small file that has grown, which is read where it is taken.
  std::unique_ptr<Packer> grownPacker_;
  std::unique_ptr<BlockReader> grownReader_;

  std::vector<std::thread> threads_;
};
