#include "agent/libZel/zip_reader.h"

#include <libdeflate.h>
#include <zip.h>

#include <algorithm>

#include "agent/libZel/output_tree.h"
#include "agent/libZel/positioned_file.h"
#include "agent/libZel/zip_error.h"
#include "agent/libZel/zip_fields.h"
#include "agent/libZel/zip_names.h"
#include "agent/libZel/zip_owners.h"
#include "agent/libZel/zip_rules.h"
#include "agent/libZel/zip_source.h"

namespace {

// Entries up to this size are unpacked at once, larger ones in pieces.
constexpr uint64_t kAtOnceBytes = 8 << 20;
constexpr size_t kUnpackedPieceBytes = 256 * 1024;
// Some programs compress even the content that a directory has not.
constexpr uint64_t kMaxPackedNothing = 2;

constexpr uint32_t kTypeMask = 0170000;
constexpr uint32_t kDirectoryType = 0040000;
constexpr uint32_t kFileType = 0100000;
constexpr uint32_t kPermissionMask = 0777;
constexpr uint8_t kDosReadOnly = 0x01;
constexpr uint8_t kDosDirectory = 0x10;

const ZelString kWrongSize("its content is not as long as it tells");

struct FreeUnpacker {
  void operator()(libdeflate_decompressor* unpacker) const {
    libdeflate_free_decompressor(unpacker);
  }
};

bool IsDirectoryEntry(const ZipEntry& entry) {
  if (zip_names::EndsInSeparator(entry.name.Utf8())) return true;
  const uint32_t type = entry.mode & kTypeMask;
  return type == 0 ? (entry.dosAttributes & kDosDirectory) != 0 : type == kDirectoryType;
}

std::optional<uint32_t> PermissionsOf(const ZipEntry& entry) {
  if (entry.mode == 0) return std::nullopt;
  return entry.mode & kPermissionMask;
}

file_system::OutputAttributes AttributesOf(const ZipEntry& entry) {
  file_system::OutputAttributes attributes;
  attributes.modifiedNs = entry.modifiedNs;
  attributes.permissions = PermissionsOf(entry);
  attributes.isReadOnly = attributes.permissions ? (*attributes.permissions & kZipWriteBits) == 0
                                                 : (entry.dosAttributes & kDosReadOnly) != 0;
  return attributes;
}

// Why its kind and content keep an entry from coming out, or null.
const char* ReasonInEntry(const ZipEntry& entry) {
  if (entry.IsEncrypted()) return "it is encrypted";
  const uint32_t type = entry.mode & kTypeMask;
  if (type != 0 && type != kFileType && type != kDirectoryType) {
    return "it is a link or special file";
  }
  if (IsDirectoryEntry(entry)) {
    const bool isEmpty = entry.sizeBytes == 0 && entry.packedBytes <= kMaxPackedNothing;
    return isEmpty ? nullptr : "it is a directory with content";
  }
  if (zip_names::IsOfDirectory(entry.name.Utf8())) return "its name is one of a directory";
  if (entry.method != kZipStored && entry.method != kZipDeflated) {
    return "its compression method is not known";
  }
  if (entry.method == kZipStored && entry.packedBytes != entry.sizeBytes) {
    return kWrongSize.GetString(kEncodingUtf8);
  }
  return nullptr;
}

std::vector<const char*> ReasonsToRefuse(const std::vector<ZipEntry>& entries,
                                         const ArchiveLimits& limits) {
  ZipNameRules rules(limits, entries.size());
  std::vector<const char*> reasons;
  reasons.reserve(entries.size());
  for (const ZipEntry& entry : entries) {
    const char* const reason = rules.ReasonToRefuse(entry.name.Utf8());
    reasons.push_back(reason != nullptr ? reason : ReasonInEntry(entry));
  }
  return reasons;
}

}  // namespace

struct ZipReader::Implementation {
  Outcome OpenWithLibzip(size_t entryCount);
  Outcome Compare(size_t index);
  uint64_t Allowance() const;

  Outcome WriteAtOnce(const ZipEntry& entry, file_system::OutputTree* tree);
  Outcome WriteInPieces(size_t index, file_system::OutputTree* tree, uint64_t* writtenBytes);

  file_system::PositionedFile file;
  std::unique_ptr<zip_t, FreeZip> archive;
  ArchiveLimits limits;
  std::vector<ZipEntry> entries;
  // For each entry, or null.
  std::vector<const char*> reasons;
  uint64_t cameOutBytes = 0;

  std::unique_ptr<libdeflate_decompressor, FreeUnpacker> unpacker;
  std::vector<char> packed;
  std::vector<char> unpacked;
};

ZipReader::ZipReader() : implementation_(std::make_unique<Implementation>()) {}
ZipReader::~ZipReader() = default;

Outcome ZipReader::Implementation::OpenWithLibzip(size_t entryCount) {
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* const source = MakeZipSource(file, &error);
  if (source != nullptr) {
    // Its own checks of consistency also refuse what is only one entry's fault.
    archive.reset(zip_open_from_source(source, ZIP_RDONLY, &error));
    if (!archive) zip_source_free(source);
  }
  const Outcome outcome = archive ? Outcome{} : OutcomeOf(&error);
  zip_error_fini(&error);
  if (!outcome) return outcome;

  const bool agrees = static_cast<uint64_t>(zip_get_num_entries(archive.get(), 0)) == entryCount;
  return agrees ? Outcome{} : FailedBecause("its number of entries is not clear");
}

// Both ways to read the archive must see the same.
Outcome ZipReader::Implementation::Compare(size_t index) {
  const ZipEntry& entry = entries[index];
  zip_stat_t seen;
  if (zip_stat_index(archive.get(), index, 0, &seen) != 0) {
    return OutcomeOf(zip_get_error(archive.get()));
  }
  constexpr auto kNeeded = static_cast<zip_uint64_t>(ZIP_STAT_SIZE | ZIP_STAT_COMP_SIZE |
                                                     ZIP_STAT_CRC | ZIP_STAT_COMP_METHOD);
  const bool agrees = (seen.valid & kNeeded) == kNeeded && seen.size == entry.sizeBytes &&
                      seen.comp_size == entry.packedBytes && seen.crc == entry.crc &&
                      seen.comp_method == entry.method;
  return agrees ? Outcome{} : FailedBecause("its sizes are not clear");
}

// How many bytes may still come out.
uint64_t ZipReader::Implementation::Allowance() const {
  const uint64_t all = AllowedBytes(limits, file.SizeBytes());
  return all - std::min(all, cameOutBytes);
}

Outcome ZipReader::Implementation::WriteAtOnce(const ZipEntry& entry,
                                               file_system::OutputTree* tree) {
  packed.resize(static_cast<size_t>(entry.packedBytes));
  size_t done = 0;
  const int error = file.ReadAt(entry.dataOffset, packed.data(), packed.size(), &done);
  if (error != 0) return OutcomeOf(error);
  if (done != packed.size()) return FailedBecause("the archive is truncated");

  std::string_view content(packed.data(), packed.size());
  if (entry.method == kZipDeflated) {
    if (!unpacker) unpacker.reset(libdeflate_alloc_decompressor());
    if (!unpacker) throw std::bad_alloc();
    // A byte more, so that nothing is written where the content is empty.
    unpacked.resize(std::max<size_t>(static_cast<size_t>(entry.sizeBytes), 1));
    size_t usedBytes = 0;
    size_t unpackedBytes = 0;
    const libdeflate_result result = libdeflate_deflate_decompress_ex(
        unpacker.get(), packed.data(), packed.size(), unpacked.data(),
        static_cast<size_t>(entry.sizeBytes), &usedBytes, &unpackedBytes);
    if (result == LIBDEFLATE_INSUFFICIENT_SPACE) return FailedBecause(kWrongSize);
    if (result != LIBDEFLATE_SUCCESS) return FailedBecause("its content is damaged");
    if (unpackedBytes != entry.sizeBytes || usedBytes != packed.size()) {
      return FailedBecause(kWrongSize);
    }
    content = {unpacked.data(), unpackedBytes};
  }
  if (libdeflate_crc32(0, content.data(), content.size()) != entry.crc) {
    return FailedBecause("its checksum is wrong");
  }
  return OutcomeOf(tree->Write(content.data(), content.size()));
}

Outcome ZipReader::Implementation::WriteInPieces(size_t index, file_system::OutputTree* tree,
                                                 uint64_t* writtenBytes) {
  const std::unique_ptr<zip_file_t, FreeZip> content(zip_fopen_index(archive.get(), index, 0));
  if (!content) return OutcomeOf(zip_get_error(archive.get()));
  unpacked.resize(std::max(unpacked.size(), kUnpackedPieceBytes));
  uint64_t left = entries[index].sizeBytes;
  for (;;) {
    const zip_int64_t count = zip_fread(content.get(), unpacked.data(), kUnpackedPieceBytes);
    if (count < 0) return OutcomeOf(zip_file_get_error(content.get()));
    if (count == 0) return left == 0 ? Outcome{} : FailedBecause(kWrongSize);
    if (static_cast<uint64_t>(count) > left) return FailedBecause(kWrongSize);
    const int error = tree->Write(unpacked.data(), static_cast<size_t>(count));
    if (error != 0) return OutcomeOf(error);
    left -= static_cast<uint64_t>(count);
    *writtenBytes += static_cast<uint64_t>(count);
  }
}

Outcome ZipReader::Open(const std::filesystem::path& path, const ArchiveLimits& limits) {
  Implementation& self = *implementation_;
  self.limits = limits;
  const int error = self.file.Open(path);
  if (error != 0) return OutcomeOf(error);
  const ZipBytes bytes = [&self](uint64_t offset, void* buffer, size_t count) {
    size_t done = 0;
    return self.file.ReadAt(offset, buffer, count, &done) == 0 && done == count;
  };
  ZipDirectory directory = ReadZipDirectory(bytes, self.file.SizeBytes(), limits.maxEntries);
  if (!directory.error.IsEmpty()) return FailedBecause(directory.error);
  std::vector<const char*> reasons = ReasonsToRefuse(directory.entries, limits);
  Outcome outcome = self.OpenWithLibzip(directory.entries.size());
  if (!outcome) return outcome;
  // Last, because nothing fails any more: there are entries only together with their reasons.
  self.entries = std::move(directory.entries);
  self.reasons = std::move(reasons);
  return outcome;
}

const std::vector<ZipEntry>& ZipReader::Entries() const {
  return implementation_->entries;
}

const char* ZipReader::ReasonToRefuse(size_t index) const {
  return implementation_->reasons[index];
}

Outcome ZipReader::Extract(size_t index, file_system::OutputTree* tree, uint64_t* writtenBytes) {
  Implementation& self = *implementation_;
  const ZipEntry& entry = self.entries[index];
  if (const char* reason = self.reasons[index]) {
    return FailedBecause(reason, file_system::kErrorInvalidName);
  }
  const std::vector<std::string> names = zip_names::Split(entry.name.Utf8());
  if (IsDirectoryEntry(entry)) return OutcomeOf(tree->MakeDirectory(names, AttributesOf(entry)));
  if (entry.sizeBytes > self.Allowance()) {
    return FailedBecause("more would come out of the archive than the limits allow");
  }
  Outcome outcome = self.Compare(index);
  if (!outcome) return outcome;

  const int error = tree->Create(names, PermissionsOf(entry));
  if (error != 0) return OutcomeOf(error);
  const bool isSmall = entry.sizeBytes <= kAtOnceBytes && entry.packedBytes <= 2 * kAtOnceBytes;
  const uint64_t writtenBefore = *writtenBytes;
  outcome = isSmall ? self.WriteAtOnce(entry, tree) : self.WriteInPieces(index, tree, writtenBytes);
  if (outcome && isSmall) *writtenBytes += entry.sizeBytes;
  self.cameOutBytes += *writtenBytes - writtenBefore;
  if (outcome) outcome = OutcomeOf(tree->Commit(AttributesOf(entry)));
  if (!outcome) tree->Discard();
  return outcome;
}
