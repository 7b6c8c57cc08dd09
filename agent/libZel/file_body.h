#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>

#include "agent/libZel/http_exchange.h"
#include "agent/libZel/open_file.h"
#include "agent/libZel/outcome.h"
#include "agent/libZel/progress.h"

/// A file on its way into a request's body, piece by piece. Its size is taken when it is opened:
/// one that grows afterwards is sent up to there, one that shrinks fails.
class FileBody {
 public:
  /// Regular files only.
  Outcome Open(const std::filesystem::path& path);
  uint64_t SizeBytes() const { return sizeBytes_; }

  /// SHA-256 in hexadecimal digits, of what `SendWith` sends if nobody writes to the file.
  Outcome Digest(std::string* hex);
  /// Makes this the body of `request`, a PUT, which must not outlive it. What goes out counts in
  /// `progress`, which may be null.
  void SendWith(http_exchange::Request* request, Progress* progress);
  /// What went wrong with the file while it was sent, if anything.
  const Outcome& Failure() const { return failure_; }

 private:
  static size_t ReadPiece(char* bytes, size_t size, size_t count, void* context);
  static int Restart(void* context, curl_off_t offset, int origin);
  Outcome Rewind();
  /// At most what is left; less than that is a failure at the end of the file alone.
  Outcome Read(char* bytes, size_t sizeBytes, uint32_t* count);

  std::filesystem::path path_;
  std::optional<file_system::OpenFile> file_;
  uint64_t sizeBytes_ = 0;
  uint64_t leftBytes_ = 0;
  Progress* progress_ = nullptr;
  Outcome failure_;
};
