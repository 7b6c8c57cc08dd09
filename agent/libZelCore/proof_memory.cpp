#include "agent/libZelCore/proof_memory.h"

#include "agent/libZel/whole_number.h"

namespace {

uint64_t HexNumber(std::string_view digits) {
  return ReadWholeNumber<uint64_t>(digits, 16).value_or(0);
}

}  // namespace

ProofMemory::ProofMemory(std::chrono::milliseconds window, size_t most)
    : window_(window), most_(most) {}

ProofMemory::Verdict ProofMemory::Take(int64_t dateSeconds, std::string_view nonce,
                                       Clock::time_point now) {
  using std::chrono::duration_cast, std::chrono::milliseconds;
  const int64_t nowMs = duration_cast<milliseconds>(now.time_since_epoch()).count();
  // A date has at most 12 digits or so; nothing here can overflow.
  const int64_t apartMs = nowMs - dateSeconds * 1000;
  if (apartMs > window_.count() || -apartMs > window_.count()) return Verdict::kExpired;

  const std::lock_guard lock(mutex_);
  Forget(now);
  const Nonce key{HexNumber(nonce.substr(0, 16)), HexNumber(nonce.substr(16))};
  Nonces& nonces = byDate_[dateSeconds];
  if (nonces.contains(key)) return Verdict::kReplayed;
  if (size_ >= most_) return Verdict::kFull;
  nonces.insert(key);
  ++size_;
  return Verdict::kNew;
}

size_t ProofMemory::Size() {
  const std::lock_guard lock(mutex_);
  return size_;
}

void ProofMemory::Forget(Clock::time_point now) {
  using std::chrono::duration_cast, std::chrono::seconds;
  const int64_t oldest = duration_cast<seconds>((now - window_).time_since_epoch()).count();
  while (!byDate_.empty() && byDate_.begin()->first < oldest) {
    size_ -= byDate_.begin()->second.size();
    byDate_.erase(byDate_.begin());
  }
}
