#include "agent/libZelCore/http_route.h"

#include <algorithm>
#include <iterator>

#include "agent/libZel/ascii.h"
#include "agent/libZel/device_names.h"
#include "agent/libZel/percent_decoding.h"
#include "agent/libZelCore/alias_table.h"
#include "agent/libZelCore/excerpt.h"
#include "libZel/string.h"

namespace http = boost::beast::http;

namespace {

constexpr std::string_view kHealthTarget = "/v1/health";
constexpr std::string_view kActionsTarget = "/v1/actions";
constexpr size_t kLongestFileName = 255;

// What separates or ends names, and what their percent-encodings look like. A name that still holds
// one of these after decoding was encoded twice, by someone who hoped for two readers of it.
constexpr std::string_view kEncodedForbidden[] = {"%2e", "%2f", "%5c", "%00"};

/// The path of a target in origin form or absolute form (RFC 9112 section 3.2).
std::string_view TargetPath(std::string_view target) {
  for (const std::string_view scheme : {"http://", "https://"}) {
    if (!target.starts_with(scheme)) continue;
    const size_t slash = target.find('/', scheme.size());
    return slash == std::string_view::npos ? "/" : target.substr(slash);
  }
  return target;
}

bool IsRead(http::verb method) {
  return method == http::verb::get || method == http::verb::head;
}

bool HoldsEncodedForbidden(std::string_view text) {
  for (size_t i = text.find('%'); i != text.npos && i + 3 <= text.size();
       i = text.find('%', i + 1)) {
    const char part[] = {'%', AsciiLower(text[i + 1]), AsciiLower(text[i + 2])};
    const std::string_view encoded(part, sizeof part);
    if (std::ranges::find(kEncodedForbidden, encoded) != std::end(kEncodedForbidden)) return true;
  }
  return false;
}

/// C0, DEL, and C1 in UTF-8.
bool HoldsControlCharacter(std::string_view text) {
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0)
      return true;
  }
  return false;
}

std::string CheckAlias(std::string_view alias) {
  if (IsAliasName(alias)) return {};
  return "the alias is not 1 to 64 letters, digits, \".\", \"-\" and \"_\", the first one no \".\"";
}

HttpRoute Refused(unsigned status, std::string_view code, std::string message,
                  std::string_view extraFields = {}) {
  HttpRoute route;
  route.refusal = HttpRefusal{status, code, std::move(message), extraFields, {}};
  return route;
}

HttpRoute NotFound(std::string_view target) {
  return Refused(404, "not_found", "there is nothing at " + Excerpt(target));
}

HttpRoute FindOwnRoute(http::verb method, std::string_view path, std::string_view target) {
  HttpRoute route;
  if (path == kHealthTarget) {
    route.kind = HttpRoute::Kind::kHealth;
  } else if (path == kActionsTarget) {
    route.kind = HttpRoute::Kind::kActions;
  } else if (path.starts_with(kActionsTarget) && path.size() > kActionsTarget.size() + 1 &&
             path[kActionsTarget.size()] == '/') {
    route.kind = HttpRoute::Kind::kCall;
    const auto action = DecodePercent(path.substr(kActionsTarget.size() + 1));
    if (!action)
      return Refused(400, "malformed_request", "the target's percent-encoding is malformed");
    route.action = *action;
  } else {
    return NotFound(target);
  }
  const bool isCall = route.kind == HttpRoute::Kind::kCall;
  if (isCall && method != http::verb::post)
    return Refused(405, "method_not_allowed", "actions are called with POST", "Allow: POST\r\n");
  if (!isCall && !IsRead(method))
    return Refused(405, "method_not_allowed", "this can only be read", "Allow: GET, HEAD\r\n");
  return route;
}

/// `path` without its leading slash.
HttpRoute FindUpload(http::verb method, std::string_view path, std::string_view target) {
  const bool isPut = method == http::verb::put;
  const auto malformed = [&](std::string message) {
    return isPut ? Refused(400, "malformed_target", std::move(message)) : NotFound(target);
  };
  const size_t slash = path.find('/');
  const bool hasTwoParts = slash != path.npos && path.find('/', slash + 1) == path.npos;
  if (!hasTwoParts) return malformed("the target is not of the form /alias/file");

  HttpRoute route;
  route.kind = HttpRoute::Kind::kUpload;
  route.alias = path.substr(0, slash);
  std::string problem = CheckAlias(route.alias);
  if (problem.empty()) problem = DecodeFileName(path.substr(slash + 1), &route.file);
  if (!problem.empty()) return malformed(std::move(problem));
  if (isPut) return route;
  return Refused(405, "method_not_allowed", "files are stored with PUT", "Allow: PUT\r\n");
}

}  // namespace

std::string DecodeFileName(std::string_view encoded, std::string* name) {
  if (HoldsEncodedForbidden(encoded))
    return "the file's name holds a percent-encoded \".\", \"/\", \"\\\" or NUL";
  const auto decoded = DecodePercent(encoded);
  if (!decoded) return "the target's percent-encoding is malformed";
  *name = *decoded;
  if (name->empty()) return "the file's name is missing";
  if (name->size() > kLongestFileName) return "the file's name is longer than 255 bytes";
  if (HoldsEncodedForbidden(*name)) return "the file's name is percent-encoded twice";
  if (ZelString(*name).Utf8() != *name) return "the file's name is not UTF-8";
  if (HoldsControlCharacter(*name)) return "the file's name holds a control character";
  if (name->find_first_of("/\\<>:\"|?*") != name->npos)
    return "the file's name holds a character that no file name can hold";
  if (name->ends_with('.') || name->ends_with(' ')) return "the file's name ends in a dot or blank";
  if (IsDeviceName(*name)) return "the file's name is reserved for a device";
  return {};
}

HttpRoute FindRoute(http::verb method, std::string_view target) {
  const std::string_view path = TargetPath(target);
  if (!path.starts_with('/')) return NotFound(target);
  const std::string_view rest = path.substr(1);
  const std::string_view first = rest.substr(0, rest.find('/'));
  if (first == kProtocolName) return FindOwnRoute(method, path, target);
  return FindUpload(method, rest, target);
}
