#include "agent/libZelCore/http_upload.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "agent/libZel/pending_upload.h"
#include "agent/libZel/progress.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/http_call.h"

namespace {

constexpr uint64_t kBufferBytes = 1024 * 1024;

HttpRefusal RefusalOf(const PendingUpload::Result& result) {
  std::string reason(result.reason.Utf8());
  switch (result.trouble) {
    case PendingUpload::Trouble::kDiskFull:
      return {507, "disk_full", std::move(reason), {}, {}};
    case PendingUpload::Trouble::kNotAFile:
      return {409, "not_a_file", std::move(reason), {}, {}};
    default:
      return {500, "cannot_store", std::move(reason), {}, {}};
  }
}

}  // namespace

HttpUpload::HttpUpload(AliasTable& aliases, const UploadRequest& request, UploadSource& source)
    : aliases_(aliases), request_(request), source_(source), owner_(OwnerText(request.caller)) {}

HttpUpload::~HttpUpload() = default;

UploadOutcome HttpUpload::Run() {
  try {
    Prepare();
    if (!outcome_.refusal) Receive();
    if (!outcome_.refusal) Store();
  } catch (const std::exception& error) {
    Fail({500, "cannot_store", error.what(), {}, {}});
  }
  file_.reset();  // before anybody hears of it
  Log();
  return outcome_;
}

/// All that can be refused before the body is read.
void HttpUpload::Prepare() {
  std::string problem;
  upload_ = aliases_.BeginUpload(owner_, request_.alias, &problem);
  if (!upload_) return Fail({404, "unknown_alias", std::move(problem), {}, {}});

  file_ = std::make_unique<PendingUpload>();
  const auto created =
      file_->Create(upload_->Directory(), ZelString(request_.file), request_.length.value_or(0));
  if (!created) return Fail(RefusalOf(created));

  const uint64_t total = request_.length.value_or(0);
  progress_ = std::make_unique<Progress>(Progress::Kind::kReceive, file_->Destination(), total);
  if (!request_.sha256.empty()) digest_.emplace();
  bufferBytes_ = static_cast<size_t>(std::clamp<uint64_t>(
      request_.length.value_or(kBufferBytes), UploadSource::kLeastBufferBytes, kBufferBytes));
}

void HttpUpload::Receive() {
  outcome_.isBegun = true;
  Ask(0);
  for (size_t current = 0;; current ^= 1) {
    UploadPiece piece = Wait();
    if (piece.failure) return Fail(std::move(*piece.failure));
    outcome_.isWhole = piece.isLast;
    if (!piece.isLast) Ask(current ^ 1);
    try {
      Keep(buffers_[current].get(), piece.byteCount);
    } catch (const std::exception& error) {
      Fail({500, "cannot_store", error.what(), {}, {}});
    }
    if (!outcome_.refusal && !piece.isLast) continue;
    // The buffer belongs to the source until the piece is there.
    if (!piece.isLast) outcome_.isWhole = Wait().isLast;
    return;
  }
}

void HttpUpload::Ask(size_t buffer) {
  if (!buffers_[buffer]) buffers_[buffer] = std::make_unique_for_overwrite<char[]>(bufferBytes_);
  source_.ReadPiece({buffers_[buffer].get(), bufferBytes_}, [this](UploadPiece piece) {
    // Under the lock: once it is released, this object may be gone.
    const std::lock_guard lock(mutex_);
    arrived_ = std::move(piece);
    changed_.notify_one();
  });
}

UploadPiece HttpUpload::Wait() {
  std::unique_lock lock(mutex_);
  changed_.wait(lock, [this] { return arrived_.has_value(); });
  UploadPiece piece = std::move(*arrived_);
  arrived_.reset();
  return piece;
}

void HttpUpload::Keep(const char* bytes, size_t count) {
  if (digest_) digest_->Add({bytes, count});
  const auto written = file_->Write(bytes, count);
  if (!written) return Fail(RefusalOf(written));
  outcome_.byteCount += count;
  progress_->Add(count);
}

void HttpUpload::Store() {
  if (digest_ && digest_->Hex() != request_.sha256) return Fail(WrongDigest());
  const auto stored = file_->Commit();
  if (!stored) return Fail(RefusalOf(stored));
  upload_->Complete();
  progress_->Finish({});
}

void HttpUpload::Fail(HttpRefusal refusal) {
  if (progress_) progress_->Finish(ZelString(refusal.message));
  outcome_.refusal = std::move(refusal);
}

void HttpUpload::Log() const {
  const std::string bytes = std::to_string(outcome_.byteCount);
  if (!outcome_.refusal) {
    CoreLog().PrintWithNL("File %s of %s bytes stored in alias %s of %s", request_.file.c_str(),
                          bytes.c_str(), request_.alias.c_str(), owner_.c_str());
    return;
  }
  CoreLog().WarningWithNL("File %s for alias %s of %s not stored, after %s bytes: %s",
                          request_.file.c_str(), request_.alias.c_str(), owner_.c_str(),
                          bytes.c_str(), outcome_.refusal->message.c_str());
}

bool UploadThreads::Start(std::function<void()> work) {
  Threads ended;
  bool isStarted = false;
  {
    const std::lock_guard lock(mutex_);
    ended.swap(ended_);
    if (!isStopping_ && running_.size() < most_) {
      const auto self = running_.emplace(running_.end());
      try {
        *self = std::thread([this, self, work = std::move(work)]() mutable {
          work();
          work = nullptr;
          const std::lock_guard inner(mutex_);
          ended_.splice(ended_.end(), running_, self);
          changed_.notify_all();
        });
        isStarted = true;
        lacksThread_ = false;
      } catch (const std::exception& error) {
        running_.erase(self);
        // Once, however many come meanwhile.
        if (!std::exchange(lacksThread_, true))
          CoreLog().WarningWithNL("No thread for an upload: %s", error.what());
      }
    }
  }
  for (std::thread& thread : ended) thread.join();
  return isStarted;
}

void UploadThreads::Stop() {
  Threads ended;
  {
    std::unique_lock lock(mutex_);
    isStopping_ = true;
    changed_.wait(lock, [this] { return running_.empty(); });
    ended.swap(ended_);
  }
  for (std::thread& thread : ended) thread.join();
}
