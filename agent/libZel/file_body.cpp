#include "agent/libZel/file_body.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>

#include "agent/libZel/file_checks.h"
#include "agent/libZel/request_proof.h"

namespace {

constexpr uint32_t kBodyPieceBytes = uint32_t{1} << 20;
// What libcurl asks for at once: large, so that few calls of the system are needed for each byte.
constexpr long kUploadBufferBytes = 1L << 20;

}  // namespace

Outcome FileBody::Open(const std::filesystem::path& path) {
  path_ = path;
  const file_system::Status status = file_system::Look(path);
  const Outcome source = CheckSource(status);
  if (!source) return source;
  sizeBytes_ = status.sizeBytes;
  return Rewind();
}

Outcome FileBody::Rewind() {
  file_.emplace();
  leftBytes_ = sizeBytes_;
  return OutcomeOf(file_->Open(path_));
}

Outcome FileBody::Read(char* bytes, size_t sizeBytes, uint32_t* count) {
  *count = 0;
  const auto wanted =
      static_cast<uint32_t>(std::min<uint64_t>({sizeBytes, leftBytes_, kUploadBufferBytes}));
  if (wanted == 0) return {};
  const int error = file_->Read(bytes, wanted, count);
  if (error != 0) return OutcomeOf(error);
  if (*count == 0) return FailedBecause("the file became shorter while it was sent");
  leftBytes_ -= *count;
  return {};
}

Outcome FileBody::Digest(std::string* hex) {
  BodyDigest digest;
  const std::unique_ptr<char[]> piece(new char[kBodyPieceBytes]);
  while (leftBytes_ > 0) {
    uint32_t count = 0;
    const Outcome outcome = Read(piece.get(), kBodyPieceBytes, &count);
    if (!outcome) return outcome;
    digest.Add({piece.get(), count});
  }
  *hex = digest.Hex();
  return Rewind();
}

void FileBody::SendWith(http_exchange::Request* request, Progress* progress) {
  progress_ = progress;
  request->Set(CURLOPT_UPLOAD, 1L);
  request->Set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferBytes);
  request->SetSize(CURLOPT_INFILESIZE_LARGE, sizeBytes_);
  request->Set(CURLOPT_READFUNCTION, ReadPiece);
  request->SetContext(CURLOPT_READDATA, this);
  request->Set(CURLOPT_SEEKFUNCTION, Restart);
  request->SetContext(CURLOPT_SEEKDATA, this);
}

size_t FileBody::ReadPiece(char* bytes, size_t size, size_t count, void* context) {
  auto& body = *static_cast<FileBody*>(context);
  uint32_t got = 0;
  try {
    body.failure_ = body.Read(bytes, size * count, &got);
    if (body.progress_ != nullptr) body.progress_->Add(got);
  } catch (const std::exception&) {
    return CURL_READFUNC_ABORT;
  }
  return body.failure_ ? got : CURL_READFUNC_ABORT;
}

// A redirected upload starts again.
int FileBody::Restart(void* context, curl_off_t offset, int origin) {
  if (origin != SEEK_SET || offset != 0) return CURL_SEEKFUNC_CANTSEEK;
  try {
    return static_cast<FileBody*>(context)->Rewind() ? CURL_SEEKFUNC_OK : CURL_SEEKFUNC_FAIL;
  } catch (const std::exception&) {
    return CURL_SEEKFUNC_FAIL;
  }
}
