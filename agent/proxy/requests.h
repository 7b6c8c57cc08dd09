#pragma once

#include <string>

#include "agent/proxy_protocol/message.h"

/// What the proxy tells of itself and its session.
struct SessionFacts {
  std::string userName;
  std::string sessionId;
  std::string platform;
  uint32_t processId = 0;
  /// In seconds since 1970-01-01 UTC.
  int64_t startedAt = 0;
};

/// Answers the requests "session" and "run" and refuses all others. docs/proxy.md describes them.
/// Any number of threads may call at once.
proxy_protocol::Message AnswerRequest(const proxy_protocol::Message& request,
                                      const SessionFacts& session);
