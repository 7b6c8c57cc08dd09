#pragma once

#include <cstdint>

#include "module/action.h"

// What moving a file from this agent to another one takes: who this agent is, a temporary alias of
// the other one's HTTP service, and an upload into it.

/// This agent as others know it.
struct Sender {
  ZelString name;
  ZelString password;
  ZelString ipAddress;
  /// "address:port", for the log.
  ZelString endpoint;
};

/// Asks the agent for its address and port. What it does not tell stays empty, and 0.
void ReadEndpoint(Sender* sender);

/// Asks the agent for its name and its HTTP password.
void ReadCredentials(Sender* sender);

/// "backup" and the seconds since 1970-01-01 as a signed 32-bit number, which wraps in 2038.
ZelString AliasNameAt(int64_t seconds);

/// The alias name of now: two transfers of one second share it.
ZelString MakeAliasName();

/// "\" becomes "/".
void UseForwardSlashes(ZelString* path);

/// Appends "/" unless `path` ends with one.
void EndWithSlash(ZelString* path);

/// The request that puts the file `path` where `resource` says.
HttpFileMessage MakeUpload(const ZelString& path, const ZelString& resource);

/// A client with this agent's log and, where the agent's settings ask for them, TLS and PAC.
class TransferClient {
 public:
  TransferClient(const ZelString& user, const ZelString& password);

  /// Sends the file to the agent at `host`; 0, or what went wrong. `agent` is its identity, or
  /// null.
  int Send(const ZelString* agent, const ZelString& host, HttpFileMessage& upload, uint32_t port);

 private:
  HttpClient client_;
};
