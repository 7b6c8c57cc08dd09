#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string_view>
#include <unordered_set>

/// Tells proofs of requests that are new from those that are too old, or were seen before. What it
/// remembers is bounded: a proof is forgotten once its date is outside of the window.
///
/// Threads: any number may ask at once.
class ProofMemory {
 public:
  using Clock = std::chrono::system_clock;

  enum class Verdict {
    kNew,
    kExpired,   ///< dated further from now than the window, before or after
    kReplayed,  ///< taken before
    kFull       ///< too many to remember: taking it would make room for a replay
  };

  /// `window` is how far a proof's date may be from now.
  explicit ProofMemory(std::chrono::milliseconds window, size_t most = 1024 * 1024);

  /// Judges a proof and remembers a new one. `nonce` is of 32 hexadecimal digits. Only for proofs
  /// whose mac is right, so that strangers cannot fill the memory.
  Verdict Take(int64_t dateSeconds, std::string_view nonce, Clock::time_point now);
  size_t Size();

 private:
  using Nonce = std::array<uint64_t, 2>;
  struct Hash {
    size_t operator()(const Nonce& nonce) const { return static_cast<size_t>(nonce[0] ^ nonce[1]); }
  };
  using Nonces = std::unordered_set<Nonce, Hash>;

  void Forget(Clock::time_point now);

  const std::chrono::milliseconds window_;
  const size_t most_;
  std::mutex mutex_;
  /// By date: the date is part of what the mac is over, so a replay has the same one.
  std::map<int64_t, Nonces> byDate_;
  size_t size_ = 0;
};
