#include "agent/libZel/zip_writer.h"

#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "agent/libZel/boundary.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/pack_ahead.h"
#include "agent/libZel/source_tree.h"
#include "agent/libZel/wtf8.h"
#include "agent/libZel/zip_error.h"
#include "agent/libZel/zip_fields.h"
#include "agent/libZel/zip_items.h"
#include "agent/libZel/zip_output.h"
#include "agent/libZel/zip_owners.h"

namespace {

// What all sources of one archive share. The first failure ends the packing.
struct Packing {
  std::vector<ZipItem> items;
  int level = 0;
  uint64_t totalBytes = 0;
  const ZipWriter::Step* step = nullptr;
  std::unique_ptr<PackAhead> ahead;
  zip_t* archive = nullptr;
  Outcome failure;

  void Fail(const ZipItem& item, int error) {
    if (!failure) return;
    failure =
        FailedBecause(FromNativePath(item.path) + ": " + file_system::ErrorText(error), error);
  }
};

// The content of one file, as libzip takes it.
class ZipContent {
 public:
  ZipContent(Packing* packing, size_t index, size_t job)
      : packing_(packing), item_(packing->items[index]), index_(index), job_(job) {}

  zip_int64_t Answer(void* data, zip_uint64_t length, zip_source_cmd_t command) {
    switch (command) {
      case ZIP_SOURCE_STAT:
        return Stat(static_cast<zip_stat_t*>(data));
      case ZIP_SOURCE_OPEN:
        return Begin();
      case ZIP_SOURCE_READ:
        return Read(data, length);
      case ZIP_SOURCE_CLOSE:
        piece_.bytes = {};
        return 0;
      case ZIP_SOURCE_ERROR:
        return failure_.Tell(data, length);
      case ZIP_SOURCE_SUPPORTS:
        return ZIP_SOURCE_SUPPORTS_READABLE;
      default:
        return failure_.Set(ZIP_ER_OPNOTSUPP, 0);
    }
  }

 private:
  zip_int64_t FailToRead(int systemError) {
    packing_->Fail(item_, systemError);
    return failure_.Set(ZIP_ER_READ, systemError);
  }

  zip_int64_t TakePiece() {
    piece_ = packing_->ahead->Take(job_);
    position_ = 0;
    if (piece_.error != 0) return FailToRead(piece_.error);
    crc_ = static_cast<uint32_t>(
        crc32_combine(crc_, piece_.crc, static_cast<z_off_t>(piece_.sizeBytes)));
    sizeBytes_ += piece_.sizeBytes;
    packedBytes_ += piece_.bytes.size();
    return 0;
  }

  // The first piece tells what kind of entry it becomes.
  zip_int64_t Begin() {
    if (isBegun_) return 0;
    isBegun_ = true;
    if (TakePiece() != 0) return -1;
    // libzip would compress what is stored on purpose.
    if (!piece_.isDeflated &&
        zip_set_file_compression(packing_->archive, index_, ZIP_CM_STORE, 0) != 0) {
      return failure_.Set(ZIP_ER_INTERNAL, 0);
    }
    return 0;
  }

  zip_int64_t Stat(zip_stat_t* status) {
    if (Begin() != 0) return -1;
    zip_stat_init(status);
    status->mtime = static_cast<time_t>(item_.modifiedSeconds);
    status->comp_method = piece_.isDeflated ? ZIP_CM_DEFLATE : ZIP_CM_STORE;
    status->valid |= ZIP_STAT_MTIME | ZIP_STAT_COMP_METHOD;
    // libzip asks again when everything has been read.
    if (!piece_.isLast) return sizeof *status;
    status->size = sizeBytes_;
    status->valid |= ZIP_STAT_SIZE;
    if (!piece_.isDeflated) return sizeof *status;
    status->comp_size = packedBytes_;
    status->crc = crc_;
    status->valid |= ZIP_STAT_COMP_SIZE | ZIP_STAT_CRC;
    return sizeof *status;
  }

  zip_int64_t Read(void* data, zip_uint64_t length) {
    while (position_ == piece_.bytes.size()) {
      if (piece_.isLast) return 0;
      if (TakePiece() != 0) return -1;
    }
    const size_t left = piece_.bytes.size() - position_;
    const auto count = static_cast<size_t>(std::min<uint64_t>(length, left));
    std::memcpy(data, piece_.bytes.data() + position_, count);
    position_ += count;
    if (count == left) (*packing_->step)(piece_.sizeBytes, packing_->totalBytes);
    return static_cast<zip_int64_t>(count);
  }

  Packing* const packing_;
  const ZipItem& item_;
  const size_t index_;
  const size_t job_;
  bool isBegun_ = false;
  PackAhead::Piece piece_;
  // How much of the piece has been read.
  size_t position_ = 0;
  // Of all pieces so far.
  uint64_t sizeBytes_ = 0;
  uint64_t packedBytes_ = 0;
  uint32_t crc_ = 0;
  ZipFailure failure_;
};

// No exception may pass through libzip.
zip_int64_t AnswerContent(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
  auto* const content = static_cast<ZipContent*>(state);
  if (command == ZIP_SOURCE_FREE) {
    delete content;
    return 0;
  }
  return Guarded("packing", zip_int64_t{-1},
                 [&] { return content->Answer(data, length, command); });
}

uint32_t ExternalAttributesOf(const ZipItem& item) {
  constexpr uint32_t kDirectory = 0x10;
  constexpr uint32_t kReadOnly = 0x01;
  // Read-only, hidden, system, directory and archive.
  constexpr uint32_t kDosAttributes = 0x37;
  if (!file_system::kSourcesHaveModes) return item.mode & kDosAttributes;
  const uint32_t dos =
      (item.IsDirectory() ? kDirectory : 0) | ((item.mode & kZipWriteBits) == 0 ? kReadOnly : 0);
  return item.mode << 16 | dos;
}

// Adds the entry of an item without its content. Returns its number, or -1.
zip_int64_t AddEntry(Packing* packing, size_t index, size_t job) {
  const ZipItem& item = packing->items[index];
  zip_t* const archive = packing->archive;
  const zip_flags_t encoding = IsUtf8(item.name) ? ZIP_FL_ENC_UTF_8 : ZIP_FL_ENC_CP437;
  if (item.IsDirectory()) return zip_dir_add(archive, item.name.c_str(), encoding);
  auto content = std::make_unique<ZipContent>(packing, index, job);
  zip_source_t* const source = zip_source_function(archive, AnswerContent, content.get());
  if (source == nullptr) return -1;
  content.release();
  const zip_int64_t entry = zip_file_add(archive, item.name.c_str(), source, encoding);
  if (entry < 0) zip_source_free(source);
  return entry;
}

bool Describe(zip_t* archive, zip_uint64_t entry, const ZipItem& item) {
  const zip_uint8_t system = file_system::kSourcesHaveModes ? ZIP_OPSYS_UNIX : ZIP_OPSYS_DOS;
  if (zip_file_set_external_attributes(archive, entry, 0, system, ExternalAttributesOf(item)) != 0)
    return false;
  if (item.IsDirectory() && zip_set_file_compression(archive, entry, ZIP_CM_STORE, 0) != 0)
    return false;
  if (item.IsDirectory() &&
      zip_file_set_mtime(archive, entry, static_cast<time_t>(item.modifiedSeconds), 0) != 0)
    return false;
  const auto seconds = static_cast<int32_t>(item.modifiedSeconds);
  if (seconds != item.modifiedSeconds) return true;
  zip_uint8_t field[5] = {1};
  for (int i = 0; i < 4; ++i)
    field[i + 1] = static_cast<zip_uint8_t>(static_cast<uint32_t>(seconds) >> (8 * i));
  return zip_file_extra_field_set(archive, entry, kUnixTimeField, ZIP_EXTRA_FIELD_NEW, field,
                                  sizeof field, ZIP_FL_LOCAL | ZIP_FL_CENTRAL) == 0;
}

Outcome AddAll(Packing* packing) {
  size_t job = 0;
  for (size_t i = 0; i < packing->items.size(); ++i) {
    const ZipItem& item = packing->items[i];
    const zip_int64_t entry = AddEntry(packing, i, job);
    if (entry < 0 || !Describe(packing->archive, static_cast<zip_uint64_t>(entry), item)) {
      const Outcome outcome = OutcomeOf(zip_get_error(packing->archive));
      return FailedBecause(FromNativePath(item.path) + ": " + outcome.reason, outcome.code);
    }
    if (!item.IsDirectory()) ++job;
  }
  return {};
}

using Archive = std::unique_ptr<zip_t, FreeZip>;

Outcome OpenOutput(file_system::PendingFile* file, Archive* archive) {
  ZipFailure failure;
  zip_source_t* const output = MakeZipOutput(file, failure.Get());
  if (output != nullptr) {
    archive->reset(zip_open_from_source(output, ZIP_CREATE | ZIP_TRUNCATE, failure.Get()));
    if (!*archive) zip_source_free(output);
  }
  return *archive ? Outcome{} : OutcomeOf(failure.Get());
}

// libzip makes no archive without entries.
int WriteEmptyArchive(file_system::PendingFile* file) {
  constexpr char kEnd[22] = {'P', 'K', 5, 6};
  return file->WriteAt(0, kEnd, sizeof kEnd);
}

}  // namespace

struct ZipWriter::Implementation {
  Outcome Write(Packing* packing);

  file_system::PendingFile file;
  bool isComplete = false;
};

ZipWriter::ZipWriter() : implementation_(std::make_unique<Implementation>()) {}
ZipWriter::~ZipWriter() = default;

Outcome ZipWriter::Implementation::Write(Packing* packing) {
  if (packing->items.empty()) return OutcomeOf(WriteEmptyArchive(&file));
  Archive output;
  Outcome outcome = OpenOutput(&file, &output);
  if (!outcome) return outcome;
  packing->archive = output.get();

  std::vector<PackAhead::Job> jobs;
  for (const ZipItem& item : packing->items) {
    if (!item.IsDirectory()) jobs.push_back({item.path, item.sizeBytes});
  }
  outcome = AddAll(packing);
  if (!outcome) return outcome;
  packing->ahead = std::make_unique<PackAhead>(
      std::move(jobs),
      [level = packing->level] { return level == 0 ? nullptr : MakeCompressor(level); },
      PackAhead::ThreadsOfMachine());
  if (zip_close(output.get()) != 0) {
    return packing->failure ? OutcomeOf(zip_get_error(output.get())) : packing->failure;
  }
  output.release();
  return packing->failure;
}

Outcome ZipWriter::Pack(const std::filesystem::path& directory,
                        const std::filesystem::path& archive, int level, const Step& step) {
  Implementation& self = *implementation_;
  Packing packing;
  packing.level = std::clamp(level, 0, 9);
  packing.step = &step;
  Outcome outcome = ListZipItems(directory, archive, &packing.items);
  if (!outcome) return outcome;
  for (const ZipItem& item : packing.items) packing.totalBytes += item.sizeBytes;
  step(0, packing.totalBytes);

  const int error = self.file.Create(archive);
  if (error != 0) return OutcomeOf(error);
  outcome = self.Write(&packing);
  self.isComplete = outcome.code == 0;
  if (outcome) {
    const uint64_t archiveBytes = file_system::Look(self.file.Path()).sizeBytes;
    WarnOfZipItems(packing.items, archive, archiveBytes);
  }
  return outcome;
}

bool ZipWriter::IsComplete() const {
  return implementation_->isComplete;
}

int ZipWriter::Commit() {
  return implementation_->file.Commit(true);
}
