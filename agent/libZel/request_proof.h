#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "agent/libZel/security_context.h"

// A proof of a request (PAC): instead of its password, an agent sends an HMAC-SHA256 (RFC 2104)
// under the fleet secret over what it asks for. It stands in the field Authorization:
//
//   PAC agent=NAME,date=SECONDS,nonce=HEX,sha256=HEX,mac=HEX
//
// date: seconds since 1970-01-01 UTC; nonce: 16 random bytes; sha256: the digest of the body;
// mac: over method, target, Host, agent, date, nonce and digest, each followed by a line feed.

/// SHA-256 (FIPS 180-4) of a body that comes in pieces. Throws std::runtime_error where the
/// cryptographic library does not offer it.
class BodyDigest {
 public:
  BodyDigest();
  ~BodyDigest();
  BodyDigest(const BodyDigest&) = delete;
  BodyDigest& operator=(const BodyDigest&) = delete;

  void Add(std::string_view piece);
  /// The digest in 64 lower-case hexadecimal digits; once, at the end.
  std::string Hex();

 private:
  struct Implementation;
  std::unique_ptr<Implementation> implementation_;
};

struct RequestProof {
  std::string agentName;
  int64_t dateSeconds = 0;
  std::string nonce;       ///< 32 lower-case hexadecimal digits
  std::string bodySha256;  ///< 64 lower-case hexadecimal digits
  std::string mac;
};

/// What a proof is about, as it stands in the request.
struct ProvenRequest {
  std::string_view method;
  std::string_view target;
  std::string_view host;
};

/// The value of the field Authorization, dated now. `bodySha256` is in lower-case hexadecimal
/// digits. Throws std::runtime_error when the system gives no random numbers.
std::string MakeProof(const PacContext& context, const ProvenRequest& request,
                      std::string_view bodySha256);

/// Nothing for a field of another scheme or form: names, their order and the number of digits are
/// as above, names of agents are 1 to 64 letters, digits, ".", "-" and "_".
std::optional<RequestProof> ParseProof(std::string_view authorization);

/// Whether the proof was made under `fleetSecret` for this request, in constant time. Its date and
/// whether it was seen before are for the caller to judge. False with an empty secret.
bool IsProofOf(const RequestProof& proof, const ProvenRequest& request,
               std::string_view fleetSecret);
