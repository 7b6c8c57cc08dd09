#include "agent/libZelCore/http_caller.h"

#include <algorithm>
#include <boost/asio/ip/address.hpp>
#include <boost/beast/http/verb.hpp>

#include "agent/libZel/ascii.h"
#include "agent/libZel/request_proof.h"
#include "agent/libZelCore/core_platform.h"

namespace asio = boost::asio;
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

/// The host of a field Host: without port and brackets.
std::string_view HostOf(std::string_view field) {
  if (field.starts_with('[')) return field.substr(1, field.find(']') - 1);
  return field.substr(0, field.rfind(':'));
}

/// Whether a request was meant for this machine. A proof that somebody has read on the way could
/// else be shown to every other agent of the fleet, each of which sees it for the first time.
bool IsOwnHost(std::string_view field, std::string_view localAddress, const Settings& settings) {
  const std::string_view host = HostOf(field);
  boost::system::error_code ec;
  const auto address = asio::ip::make_address(std::string(host), ec);
  if (!ec) return address.to_string() == localAddress;

  const std::string machine = core_platform::HostName();
  const bool isMachine = EqualsIgnoringCase(host.substr(0, host.find('.')),
                                            std::string_view(machine).substr(0, machine.find('.')));
  const bool isLoopback = localAddress.starts_with("127.") || localAddress == "::1";
  if (isMachine || (isLoopback && EqualsIgnoringCase(host, "localhost"))) return true;
  return std::any_of(settings.hostNames.begin(), settings.hostNames.end(),
                     [&](const std::string& name) { return EqualsIgnoringCase(host, name); });
}

CallerCheck CheckProof(HttpShared& shared, const HttpRequest& request,
                       const ConnectionFacts& connection) {
  const auto proof = ParseProof(request.authorization);
  if (!proof) return Refused({}, "the proof is malformed");

  Caller caller{Caller::Kind::kAgent, proof->agentName, {}, {}};
  const auto method = http::to_string(request.method);
  const ProvenRequest proven{{method.data(), method.size()}, request.target, request.host};
  if (!IsProofOf(*proof, proven, shared.settings.fleetSecret)) {
    return Refused(std::move(caller),
                   "the proof was made under another secret or for another request");
  }
  // Over TLS nobody has read it.
  if (!connection.isEncrypted &&
      !IsOwnHost(request.host, connection.localAddress, shared.settings)) {
    return Refused(std::move(caller), "the proof is for the host \"" + request.host +
                                          "\", which is not known for this machine's "
                                          "([security] host_names)");
  }
  const auto verdict =
      shared.proofs.Take(proof->dateSeconds, proof->nonce, ProofMemory::Clock::now());
  if (verdict != ProofMemory::Verdict::kNew) return Refused(std::move(caller), ProblemOf(verdict));
  return {{Authenticator::Verdict::kAccepted, std::move(caller)}, {}, proof->bodySha256};
}

}  // namespace

CallerCheck CheckCallerQuickly(HttpShared& shared, const HttpRequest& request,
                               const ConnectionFacts& connection) {
  const bool isProof = request.authorization.starts_with("PAC ");
  CallerCheck check = isProof ? CheckProof(shared, request, connection) : CallerCheck{};
  if (!isProof) check.answer = shared.authenticator.CheckQuickly(request.authorization);

  const bool isAgent = check.answer.verdict == Authenticator::Verdict::kAccepted &&
                       check.answer.caller.kind == Caller::Kind::kAgent;
  if (!isAgent) return check;
  if (!isProof && shared.settings.pac == PacUse::kSendAndReceive)
    return Refused(check.answer.caller, "agents must send proofs of their requests");
  if (!connection.showsCertificate && shared.settings.ssl == SslUse::kSendAndReceiveExt)
    return Refused(check.answer.caller, "agents must show a certificate of the fleet");
  return check;
}

bool MayCall(const Settings& settings, const Caller& caller, const std::string& action) {
  if (caller.kind == Caller::Kind::kAgent || caller.role == kAdministrator) return true;
  const std::vector<std::string>& reserved = settings.administratorsOnly;
  return !std::binary_search(reserved.begin(), reserved.end(), action);
}
