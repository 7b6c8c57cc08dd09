#pragma once

#include <chrono>
#include <cstdint>
#include <span>

/// When a step must be done.
using Deadline = std::chrono::steady_clock::time_point;

/// Bytes in both directions, in order. What fails throws std::runtime_error with a sentence for the
/// log; the stream is then good for nothing more.
class ByteStream {
 public:
  virtual ~ByteStream() = default;

  /// Sends all of `bytes`.
  virtual void Write(std::span<const uint8_t> bytes, Deadline deadline) = 0;
  /// Fills all of `bytes`; the end of the stream before that is a failure.
  virtual void Read(std::span<uint8_t> bytes, Deadline deadline) = 0;
};
