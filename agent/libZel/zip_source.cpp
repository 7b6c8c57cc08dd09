#include "agent/libZel/zip_source.h"

#include <algorithm>
#include <memory>
#include <new>

#include "agent/libZel/positioned_file.h"
#include "agent/libZel/zip_error.h"

namespace {

struct Source {
  explicit Source(const file_system::PositionedFile& archive) : file(archive) {}

  const file_system::PositionedFile& file;
  uint64_t position = 0;
  ZipFailure failure;
};

zip_int64_t ReadSource(Source* source, void* data, zip_uint64_t length) {
  const uint64_t size = source->file.SizeBytes();
  const uint64_t left = size - std::min(size, source->position);
  size_t done = 0;
  const auto wanted = static_cast<size_t>(std::min<uint64_t>(length, left));
  const int error = source->file.ReadAt(source->position, data, wanted, &done);
  if (error != 0) return source->failure.Set(ZIP_ER_READ, error);
  source->position += done;
  return static_cast<zip_int64_t>(done);
}

zip_int64_t SeekSource(Source* source, void* data, zip_uint64_t length) {
  const zip_int64_t position = zip_source_seek_compute_offset(
      source->position, source->file.SizeBytes(), data, length, source->failure.Get());
  if (position < 0) return -1;
  source->position = static_cast<uint64_t>(position);
  return 0;
}

zip_int64_t StatSource(Source* source, void* data) {
  auto* const status = static_cast<zip_stat_t*>(data);
  zip_stat_init(status);
  status->size = source->file.SizeBytes();
  status->valid |= ZIP_STAT_SIZE;
  return sizeof *status;
}

zip_int64_t AnswerSource(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
  auto* const source = static_cast<Source*>(state);
  switch (command) {
    case ZIP_SOURCE_OPEN:
      source->position = 0;
      return 0;
    case ZIP_SOURCE_READ:
      return ReadSource(source, data, length);
    case ZIP_SOURCE_CLOSE:
      return 0;
    case ZIP_SOURCE_STAT:
      return StatSource(source, data);
    case ZIP_SOURCE_ERROR:
      return source->failure.Tell(data, length);
    case ZIP_SOURCE_FREE:
      delete source;
      return 0;
    case ZIP_SOURCE_SEEK:
      return SeekSource(source, data, length);
    case ZIP_SOURCE_TELL:
      return static_cast<zip_int64_t>(source->position);
    case ZIP_SOURCE_SUPPORTS:
      return ZIP_SOURCE_SUPPORTS_SEEKABLE;
    default:
      return source->failure.Set(ZIP_ER_OPNOTSUPP, 0);
  }
}

}  // namespace

zip_source_t* MakeZipSource(const file_system::PositionedFile& file, zip_error_t* error) {
  auto source = std::make_unique<Source>(file);
  zip_source_t* const made = zip_source_function_create(AnswerSource, source.get(), error);
  if (made != nullptr) source.release();
  return made;
}
