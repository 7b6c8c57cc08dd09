#pragma once

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "agent/libZel/network/byte_stream.h"
#include "agent/libZel/smb/bytes.h"

/// Gives out bytes that were prepared, then fails as if the other side had closed; keeps what is
/// written.
class MemoryStream final : public ByteStream {
 public:
  explicit MemoryStream(smb::Bytes answers) : answers_(std::move(answers)) {}

  void Write(std::span<const uint8_t> bytes, Deadline) override {
    written_.insert(written_.end(), bytes.begin(), bytes.end());
  }
  void Read(std::span<uint8_t> bytes, Deadline) override {
    if (bytes.size() > answers_.size() - position_)
      throw std::runtime_error("receiving: the other side closed the connection");
    std::copy_n(answers_.begin() + static_cast<ptrdiff_t>(position_), bytes.size(), bytes.begin());
    position_ += bytes.size();
  }

  const smb::Bytes& Written() const { return written_; }

 private:
  const smb::Bytes answers_;
  size_t position_ = 0;
  smb::Bytes written_;
};
