#include "agent/libZel/request_proof.h"

std::string MakeProof(const PacContext&, const ProvenRequest&, std::string_view) {
  return {};
}
std::optional<RequestProof> ParseProof(std::string_view) {
  return {};
}
bool IsProofOf(const RequestProof&, const ProvenRequest&, std::string_view) {
  return false;
}
