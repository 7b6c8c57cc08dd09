#include "agent/libZel/zip_output.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "agent/libZel/file_system.h"
#include "agent/libZel/zip_error.h"

namespace {

constexpr size_t kOutputBufferBytes = 1 << 20;

// Collects what is written: libzip goes back to the head of each entry once that is complete.
class Output {
 public:
  explicit Output(file_system::PendingFile* file) : file_(file) {}

  zip_int64_t Answer(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
      case ZIP_SOURCE_STAT:
        // There is no archive yet.
        return failure_.Set(ZIP_ER_READ, ENOENT);
      case ZIP_SOURCE_BEGIN_WRITE:
        buffer_.reserve(kOutputBufferBytes);
        return 0;
      case ZIP_SOURCE_WRITE:
        return Write(static_cast<const char*>(data), static_cast<size_t>(length));
      case ZIP_SOURCE_SEEK_WRITE:
        return Seek(data, length);
      case ZIP_SOURCE_TELL_WRITE:
        return static_cast<zip_int64_t>(position_);
      case ZIP_SOURCE_COMMIT_WRITE:
        return Flush();
      case ZIP_SOURCE_CLOSE:
      case ZIP_SOURCE_ROLLBACK_WRITE:
      case ZIP_SOURCE_REMOVE:
        return 0;
      case ZIP_SOURCE_ERROR:
        return failure_.Tell(data, length);
      case ZIP_SOURCE_SUPPORTS:
        return ZIP_SOURCE_SUPPORTS_WRITABLE;
      default:
        return failure_.Set(ZIP_ER_OPNOTSUPP, 0);
    }
  }

 private:
  uint64_t BufferEnd() const { return bufferBegin_ + buffer_.size(); }

  zip_int64_t Flush() {
    const int error = file_->WriteAt(bufferBegin_, buffer_.data(), buffer_.size());
    if (error != 0) return failure_.Set(ZIP_ER_WRITE, error);
    bufferBegin_ = position_;
    buffer_.clear();
    return 0;
  }

  zip_int64_t Write(const char* bytes, size_t count) {
    const bool continuesBuffer = position_ >= bufferBegin_ && position_ <= BufferEnd();
    if (!continuesBuffer || position_ - bufferBegin_ + count > kOutputBufferBytes) {
      if (Flush() != 0) return -1;
    }
    if (count > kOutputBufferBytes) {
      const int error = file_->WriteAt(position_, bytes, count);
      if (error != 0) return failure_.Set(ZIP_ER_WRITE, error);
      bufferBegin_ = position_ + count;
    } else {
      const auto offset = static_cast<size_t>(position_ - bufferBegin_);
      buffer_.resize(std::max(buffer_.size(), offset + count));
      std::memcpy(buffer_.data() + offset, bytes, count);
    }
    position_ += count;
    sizeBytes_ = std::max(sizeBytes_, position_);
    return static_cast<zip_int64_t>(count);
  }

  zip_int64_t Seek(void* data, zip_uint64_t length) {
    const zip_int64_t position =
        zip_source_seek_compute_offset(position_, sizeBytes_, data, length, failure_.Get());
    if (position < 0) return -1;
    position_ = static_cast<uint64_t>(position);
    return 0;
  }

  file_system::PendingFile* const file_;
  uint64_t position_ = 0;
  uint64_t sizeBytes_ = 0;
  // What is not in the file yet, and where it belongs.
  uint64_t bufferBegin_ = 0;
  std::vector<char> buffer_;
  ZipFailure failure_;
};

zip_int64_t AnswerOutput(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
  auto* const output = static_cast<Output*>(state);
  if (command == ZIP_SOURCE_FREE) {
    delete output;
    return 0;
  }
  return output->Answer(data, length, command);
}

}  // namespace

zip_source_t* MakeZipOutput(file_system::PendingFile* file, zip_error_t* error) {
  auto output = std::make_unique<Output>(file);
  zip_source_t* const made = zip_source_function_create(AnswerOutput, output.get(), error);
  if (made != nullptr) output.release();
  return made;
}
