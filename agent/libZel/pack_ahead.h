#pragma once

#include <condition_variable>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

/// Reads and compresses small files on threads of its own, ahead of the one that writes them into
/// an archive. What is compressed and not yet taken stays below a limit.
class PackAhead {
 public:
  /// Files up to this size are small.
  static constexpr uint64_t kSmallBytes = 8 << 20;

  struct Job {
    std::filesystem::path path;
    /// As far as is known.
    uint64_t sizeBytes = 0;
  };
  struct Packed {
    /// Why the file cannot be read, or 0.
    int error = 0;
    /// It has grown: nothing of it is here.
    bool isTooLarge = false;
    bool isDeflated = false;
    std::vector<char> bytes;
    uint64_t sizeBytes = 0;
    uint32_t crc = 0;
  };

  /// `level` is 0 (stored) to 9. Throws when not even one thread can be started.
  PackAhead(std::vector<Job> jobs, int level);
  ~PackAhead();
  PackAhead(const PackAhead&) = delete;
  PackAhead& operator=(const PackAhead&) = delete;

  /// Waits for a job. Each is taken once, in order.
  Packed Take(size_t index);

 private:
  class Worker;
  struct Done {
    Packed packed;
    uint64_t countedBytes = 0;
  };

  void Work();
  bool Next(size_t* index);

  const std::vector<Job> jobs_;
  const int level_;
  std::mutex mutex_;
  std::condition_variable changed_;
  size_t next_ = 0;
  uint64_t aheadBytes_ = 0;
  bool isStopped_ = false;
  // For each job, while it is done and not yet taken.
  std::vector<std::optional<Done>> done_;
  std::vector<std::thread> threads_;
};
