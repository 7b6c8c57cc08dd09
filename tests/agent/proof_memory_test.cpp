#include "agent/libZelCore/proof_memory.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using std::chrono::seconds;
using ProofVerdict = ProofMemory::Verdict;

constexpr int64_t kDate = 1'700'000'000;
constexpr ProofMemory::Clock::time_point kNow{seconds(kDate)};

std::string Nonce(unsigned number) {
  std::string digits = std::to_string(number);
  return std::string(32 - digits.size(), '0') + digits;
}

TEST(ProofMemory, TakesEachProofOnce) {
  ProofMemory memory(seconds(300));
  EXPECT_EQ(memory.Take(kDate, Nonce(1), kNow), ProofVerdict::kNew);
  EXPECT_EQ(memory.Take(kDate, Nonce(1), kNow), ProofVerdict::kReplayed);
  EXPECT_EQ(memory.Take(kDate, Nonce(2), kNow), ProofVerdict::kNew);
  EXPECT_EQ(memory.Take(kDate, Nonce(1), kNow + seconds(300)), ProofVerdict::kReplayed);
}

TEST(ProofMemory, TakesNoProofOutsideOfTheWindow) {
  ProofMemory memory(seconds(300));
  EXPECT_EQ(memory.Take(kDate - 301, Nonce(1), kNow), ProofVerdict::kExpired);
  EXPECT_EQ(memory.Take(kDate + 301, Nonce(1), kNow), ProofVerdict::kExpired);
  EXPECT_EQ(memory.Take(999'999'999'999, Nonce(1), kNow), ProofVerdict::kExpired);
  EXPECT_EQ(memory.Take(kDate - 300, Nonce(1), kNow), ProofVerdict::kNew);
  EXPECT_EQ(memory.Take(kDate + 300, Nonce(1), kNow), ProofVerdict::kNew);
  EXPECT_EQ(memory.Size(), 2U);
}

TEST(ProofMemory, ForgetsWhatHasExpired) {
  ProofMemory memory(seconds(300));
  for (unsigned i = 0; i < 1000; ++i) memory.Take(kDate, Nonce(i), kNow);
  EXPECT_EQ(memory.Size(), 1000U);
  const auto later = kNow + seconds(301);
  EXPECT_EQ(memory.Take(kDate + 301, Nonce(1), later), ProofVerdict::kNew);
  EXPECT_EQ(memory.Size(), 1U);
  EXPECT_EQ(memory.Take(kDate, Nonce(1), later), ProofVerdict::kExpired);
}

TEST(ProofMemory, RefusesWhatItCannotRemember) {
  ProofMemory memory(seconds(300), 2);
  EXPECT_EQ(memory.Take(kDate, Nonce(1), kNow), ProofVerdict::kNew);
  EXPECT_EQ(memory.Take(kDate, Nonce(2), kNow), ProofVerdict::kNew);
  EXPECT_EQ(memory.Take(kDate, Nonce(3), kNow), ProofVerdict::kFull);
  EXPECT_EQ(memory.Take(kDate, Nonce(1), kNow), ProofVerdict::kReplayed);
}

}  // namespace
