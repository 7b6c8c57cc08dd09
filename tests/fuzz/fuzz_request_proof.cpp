// Proofs of requests: what is taken for one has the one form that there is, no proof holds that was
// not made under the secret, one that was made holds for its own request alone, and none is taken
// twice.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZel/request_proof.h"
#include "agent/libZelCore/proof_memory.h"
#include "tests/fuzz/require.h"

namespace {

constexpr std::string_view kSecret = "0123456789abcdef";
constexpr int64_t kLastDate = 9'000'000'000;
constexpr ProvenRequest kRequest{"POST", "/v1/actions/Any", "relay:7460"};

std::string Written(const RequestProof& proof) {
  return "PAC agent=" + proof.agentName + ",date=" + std::to_string(proof.dateSeconds) +
         ",nonce=" + proof.nonce + ",sha256=" + proof.bodySha256 + ",mac=" + proof.mac;
}

void CheckField(std::string_view field) {
  const auto proof = ParseProof(field);
  if (!proof) return;
  Require(Written(*proof) == field);
  Require(!IsProofOf(*proof, kRequest, kSecret) && !IsProofOf(*proof, kRequest, ""));

  using std::chrono::seconds;
  // The clock itself counts no further.
  if (proof->dateSeconds > kLastDate) return;
  ProofMemory memory(std::chrono::minutes(5));
  const ProofMemory::Clock::time_point now{seconds(proof->dateSeconds)};
  Require(memory.Take(proof->dateSeconds, proof->nonce, now) == ProofMemory::Verdict::kNew);
  Require(memory.Take(proof->dateSeconds, proof->nonce, now) == ProofMemory::Verdict::kReplayed);
  Require(memory.Take(proof->dateSeconds, proof->nonce, now + seconds(301)) ==
          ProofMemory::Verdict::kExpired);
  Require(memory.Size() == 1);
}

// A request for whatever target, and the same request for another one.
void CheckTarget(std::string_view target) {
  const PacContext context{"pc-1", std::string(kSecret)};
  const ProvenRequest request{"PUT", target, "relay"};
  const auto proof = ParseProof(MakeProof(context, request, std::string(64, 'a')));
  Require(proof && IsProofOf(*proof, request, kSecret));
  const std::string other = std::string(target) + "x";
  Require(!IsProofOf(*proof, {"PUT", other, "relay"}, kSecret));
  Require(!IsProofOf(*proof, {"POST", target, "relay"}, kSecret));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  CheckField(input);
  CheckField("PAC " + std::string(input));
  CheckTarget(input);
  return 0;
}
