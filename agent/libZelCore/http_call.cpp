#include "agent/libZelCore/http_call.h"

#include "agent/libZel/request_proof.h"
#include "agent/libZelCore/calling_user.h"
#include "agent/libZelCore/json_codec.h"
#include "agent/libZelCore/parameter_types.h"

void EncodeActions(const ActionDatabase& actions, std::string* out) {
  *out += '[';
  for (const ActionInfo& action : actions.List()) {
    if (out->back() == '}') *out += ',';
    *out += R"({"name":)";
    EncodeString(action.name, out);
    *out += R"(,"signature":)";
    EncodeString(action.signature, out);
    *out += '}';
  }
  *out += ']';
}

std::optional<HttpRefusal> DecodeParameters(const std::string& body, const Caller& caller,
                                            std::string_view signature, ZelContainer* parameters) {
  static const ZelString kConsoleUser("DACurrentConsoleUser");
  static const ZelString kRequestInfo("HttpProtocolRequestInfo");
  static const ZelString kVouchedFor(kCallingUserKey);
  static const ZelString kRequestAddress("HttpProtocolRequestAddress");
  static const ZelString kRequestUser("HttpProtocolRequestUser");

  JsonDecodeResult decoded = DecodeContainer(body);
  if (!decoded.error.empty())
    return HttpRefusal{400, "malformed_body", std::move(decoded.error), {}, {}};
  *parameters = std::move(decoded.container);
  const bool isConsole = caller.kind == Caller::Kind::kConsoleUser;
  if (isConsole) {
    parameters->Remove(kConsoleUser);
    parameters->Remove(kRequestInfo);
    parameters->Remove(kVouchedFor);
  }
  std::string wrongType = FindWrongType(signature, *parameters);
  if (!wrongType.empty()) return HttpRefusal{400, "wrong_type", std::move(wrongType), {}, {}};
  if (!isConsole) return std::nullopt;

  ZelContainer info;
  info.SetString(kRequestAddress, ZelString(caller.address), kNoIndex);
  info.SetString(kRequestUser, ZelString(caller.login), kNoIndex);
  parameters->SetString(kConsoleUser, ZelString(caller.login), kNoIndex);
  parameters->SetContainer(kRequestInfo, info, kNoIndex);
  return std::nullopt;
}

std::optional<HttpRefusal> CheckContent(const HttpRequest& request) {
  // A part would take the place of the whole (RFC 9110 section 14.5).
  if (request.isPart)
    return HttpRefusal{400, "malformed_request", "parts of files are not taken", {}, {}};
  if (!request.isEncoded) return std::nullopt;
  return HttpRefusal{415,
                     "unsupported_encoding",
                     "a file's content is taken without encoding only",
                     "Accept-Encoding: identity\r\n",
                     {}};
}

std::optional<HttpRefusal> CheckDigest(const std::string& body, const std::string& sha256) {
  if (sha256.empty()) return std::nullopt;
  BodyDigest digest;
  digest.Add(body);
  if (digest.Hex() == sha256) return std::nullopt;
  return WrongDigest();
}

HttpRefusal WrongDigest() {
  return {400, "wrong_digest", "the body is not the one that the proof was made for", {}, {}};
}
