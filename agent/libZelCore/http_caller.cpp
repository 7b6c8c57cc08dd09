#include "agent/libZelCore/http_caller.h"

#include <algorithm>
#include <boost/beast/http/verb.hpp>

#include "agent/libZel/request_proof.h"

namespace http = boost::beast::http;

namespace {

CallerCheck Refused(Caller caller, std::string problem) {
  return {{Authenticator::Verdict::kRefused, std::move(caller)}, std::move(problem), {}};
}

const char* ProblemOf(ProofMemory::Verdict verdict) {
  switch (verdict) {
    case ProofMemory::Verdict::kExpired:
      return "the proof is expired, or the clocks differ by too much";
    case ProofMemory::Verdict::kReplayed:
      return "the proof was used before";
    case ProofMemory::Verdict::kFull:
      return "too many proofs are to be remembered";
    default:
      return "";
  }
}

CallerCheck CheckProof(HttpShared& shared, const HttpRequest& request) {
  const auto proof = ParseProof(request.authorization);
  if (!proof) return Refused({}, "the proof is malformed");

  Caller caller{Caller::Kind::kAgent, proof->agentName, {}, {}};
  const auto method = http::to_string(request.method);
  const ProvenRequest proven{{method.data(), method.size()}, request.target, request.host};
  if (!IsProofOf(*proof, proven, shared.settings.fleetSecret)) {
    return Refused(std::move(caller),
                   "the proof was made under another secret or for another request");
  }
  const auto verdict =
      shared.proofs.Take(proof->dateSeconds, proof->nonce, ProofMemory::Clock::now());
  if (verdict != ProofMemory::Verdict::kNew) return Refused(std::move(caller), ProblemOf(verdict));
  return {{Authenticator::Verdict::kAccepted, std::move(caller)}, {}, proof->bodySha256};
}

}  // namespace

CallerCheck CheckCallerQuickly(HttpShared& shared, const HttpRequest& request,
                               bool showsCertificate) {
  const bool isProof = request.authorization.starts_with("PAC ");
  CallerCheck check = isProof ? CheckProof(shared, request) : CallerCheck{};
  if (!isProof) check.answer = shared.authenticator.CheckQuickly(request.authorization);

  const bool isAgent = check.answer.verdict == Authenticator::Verdict::kAccepted &&
                       check.answer.caller.kind == Caller::Kind::kAgent;
  if (!isAgent) return check;
  if (!isProof && shared.settings.pac == PacUse::kSendAndReceive)
    return Refused(check.answer.caller, "agents must send proofs of their requests");
  if (!showsCertificate && shared.settings.ssl == SslUse::kSendAndReceiveExt)
    return Refused(check.answer.caller, "agents must show a certificate of the fleet");
  return check;
}

bool MayCall(const Settings& settings, const Caller& caller, const std::string& action) {
  if (caller.kind == Caller::Kind::kAgent || caller.role == kAdministrator) return true;
  const std::vector<std::string>& reserved = settings.administratorsOnly;
  return !std::binary_search(reserved.begin(), reserved.end(), action);
}
