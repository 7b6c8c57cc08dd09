#pragma once

#include <boost/beast/http/verb.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "agent/libZelCore/http_reply.h"

/// What a request asks for.
struct HttpRoute {
  enum class Kind { kNone, kHealth, kActions, kCall, kUpload };
  Kind kind = Kind::kNone;
  std::string action;  ///< kCall: its name
  std::string alias;   ///< kUpload
  std::string file;    ///< kUpload: the file's name, WTF-8; one that every platform can store
  std::optional<HttpRefusal> refusal;  ///< why there is no such thing; the rest is then of no use
};

/// Takes a request's method and target (RFC 9112 section 3.2, origin or absolute form) apart. Looks
/// at nothing else: whether there is such an action or alias is for the caller to find out.
HttpRoute FindRoute(boost::beast::http::verb method, std::string_view target);

/// What is wrong with the name of an uploaded file as it stands in a target, percent-encoded; empty
/// when nothing is, and `*name` is then the decoded name.
std::string DecodeFileName(std::string_view encoded, std::string* name);
