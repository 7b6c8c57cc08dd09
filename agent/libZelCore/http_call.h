#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "agent/libZelCore/action_database.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/http_reply.h"
#include "agent/libZelCore/http_request.h"
#include "libZel/container.h"

/// Appends the list of actions as JSON.
void EncodeActions(const ActionDatabase& actions, std::string* out);

/// Decodes the body of a call of `action` and writes who is calling. Returns why that cannot be.
std::optional<HttpRefusal> DecodeParameters(const std::string& body, const Caller& caller,
                                            std::string_view signature, ZelContainer* parameters);

/// Whether the body of an upload is a whole file as it is; else the refusal.
std::optional<HttpRefusal> CheckContent(const HttpRequest& request);

/// Whether `sha256` (empty: anything will do) is the digest of the body; else the refusal.
std::optional<HttpRefusal> CheckDigest(const std::string& body, const std::string& sha256);

/// The refusal of a body with another digest than its proof says.
HttpRefusal WrongDigest();
