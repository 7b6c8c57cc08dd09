#pragma once

#include <boost/asio/buffer.hpp>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "agent/libZel/request_proof.h"
#include "agent/libZelCore/alias_table.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/http_reply.h"

class PendingUpload;
class Progress;

/// A piece of an upload's body.
struct UploadPiece {
  size_t byteCount = 0;
  bool isLast = false;
  /// Why there is no piece. Without a status: the connection is gone, and the message says how.
  std::optional<HttpRefusal> failure;
};

/// Where the body of an upload comes from.
class UploadSource {
 public:
  using Done = std::function<void(UploadPiece)>;

  virtual ~UploadSource() = default;
  /// Asks for the next piece. `done` is called once, from another thread or this one. The buffer
  /// must live until then, and there is one piece at a time.
  virtual void ReadPiece(boost::asio::mutable_buffer buffer, Done done) = 0;

  /// The least that a buffer must hold.
  static constexpr size_t kLeastBufferBytes = 256 * 1024;
};

struct UploadRequest {
  Caller caller;
  std::string alias;
  std::string file;                ///< WTF-8
  std::optional<uint64_t> length;  ///< nothing for a chunked body
  std::string sha256;              ///< what the body's digest must be; empty: anything
};

/// How an upload ended.
struct UploadOutcome {
  std::optional<HttpRefusal> refusal;  ///< without a status: the connection is gone
  bool isBegun = false;                ///< whether any of the body has been asked for
  bool isWhole = false;                ///< whether the body was read to its end
  uint64_t byteCount = 0;
};

/// One upload, from the alias to the stored file. The disk may be slow: it has a thread of its own,
/// and while one piece is written the next one is being received.
class HttpUpload {
 public:
  HttpUpload(AliasTable& aliases, const UploadRequest& request, UploadSource& source);
  ~HttpUpload();

  /// Takes as long as it takes; the source ends it when nothing comes.
  UploadOutcome Run();

 private:
  void Prepare();
  void Receive();
  void Store();
  void Ask(size_t buffer);
  UploadPiece Wait();
  void Keep(const char* bytes, size_t count);
  void Fail(HttpRefusal refusal);
  void Log() const;

  AliasTable& aliases_;
  const UploadRequest& request_;
  UploadSource& source_;
  const std::string owner_;
  UploadOutcome outcome_;
  std::unique_ptr<AliasTable::Upload> upload_;
  std::unique_ptr<Progress> progress_;
  std::unique_ptr<PendingUpload> file_;
  std::optional<BodyDigest> digest_;

  size_t bufferBytes_ = 0;
  std::unique_ptr<char[]> buffers_[2];
  std::mutex mutex_;
  std::condition_variable changed_;
  std::optional<UploadPiece> arrived_;
};

/// The threads of the uploads under way.
class UploadThreads {
 public:
  explicit UploadThreads(size_t most) : most_(most) {}
  ~UploadThreads() { Stop(); }

  /// Runs `work`, which must not throw, on a thread of its own; false when too many run, or none
  /// may begin any more.
  bool Start(std::function<void()> work);
  /// Starts no more, waits for those that run.
  void Stop();

 private:
  using Threads = std::list<std::thread>;

  const size_t most_;
  std::mutex mutex_;
  Threads running_;
  Threads ended_;  ///< to be joined
  std::condition_variable changed_;
  bool lacksThread_ = false;  ///< and the log has told
  bool isStopping_ = false;
};
