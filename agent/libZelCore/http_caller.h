#pragma once

#include <string>

#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/http_request.h"
#include "agent/libZelCore/http_shared.h"

/// What a request's credentials come to.
struct CallerCheck {
  Authenticator::Answer answer;
  std::string problem;     ///< why they are refused, where there is more to say than that
  std::string bodySha256;  ///< what a proof says of the body; empty without a proof
};

/// What the connection of a request tells.
struct ConnectionFacts {
  bool isEncrypted = false;
  bool showsCertificate = false;  ///< one of the fleet
  std::string localAddress;       ///< this machine's end, without port
};

/// The quick part: proofs of requests, remembered credentials, passwords of agents.
CallerCheck CheckCallerQuickly(HttpShared& shared, const HttpRequest& request,
                               const ConnectionFacts& connection);

/// Whether the role of the caller allows the action, whatever its parameters.
bool MayCall(const Settings& settings, const Caller& caller, const std::string& action);
