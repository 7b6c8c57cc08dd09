#pragma once

#include <chrono>
#include <cstdint>
#include <filesystem>

#include "agent/libZel/file_system.h"
#include "agent/libZel/outcome.h"

// Files behind http and https URLs. Servers' certificates are verified; up to five redirects are
// followed, to http and https only; a transfer that stands still for 30 seconds fails. Credentials
// in a URL are used, but never told in a reason.
namespace http_file {

struct Properties {
  enum class Presence {
    kExists,
    /// The server says so: 404 or 410.
    kMissing,
    kUnknown
  };
  Presence presence = Presence::kUnknown;
  /// The Content-Length; 0 when the server does not tell it.
  uint64_t sizeBytes = 0;
  /// Why `presence` is kUnknown.
  ZelString reason;
};

/// HEAD, which takes `longest` at most, redirects included.
Properties GetProperties(const ZelString& url,
                         std::chrono::milliseconds longest = std::chrono::seconds(30));

/// GET into a file that was created, with the time of Last-Modified where the server tells it.
Outcome Download(const ZelString& url, file_system::PendingFile* file);

/// PUT. Without `replace` a file that is there already stays: the server is asked before, and asked
/// with If-None-Match to see to it.
Outcome Upload(const std::filesystem::path& source, const ZelString& url, bool replace);

/// Download and upload through a temporary file.
Outcome Copy(const ZelString& source, const ZelString& destination, bool replace);

/// DELETE.
Outcome Delete(const ZelString& url);

/// The URL without user name, password and query (which may hold a signature), fit for a log.
ZelString WithoutCredentials(const ZelString& url);

}  // namespace http_file
