#include "agent/libZel/zip_directory.h"

#include <libdeflate.h>

#include <algorithm>
#include <ctime>
#include <stdexcept>
#include <string_view>

#include "agent/libZel/file_time_ticks.h"
#include "agent/libZel/nanoseconds.h"
#include "agent/libZel/zip_fields.h"
#include "agent/libZel/zip_names.h"

namespace {

constexpr uint32_t kEntrySignature = 0x02014b50;
constexpr uint32_t kLocalSignature = 0x04034b50;
constexpr uint32_t kEndSignature = 0x06054b50;
constexpr uint32_t kEnd64Signature = 0x06064b50;
constexpr uint32_t kLocatorSignature = 0x07064b50;
constexpr size_t kEntryBytes = 46;
constexpr size_t kLocalBytes = 30;
constexpr size_t kEndBytes = 22;
constexpr size_t kEnd64Bytes = 56;
constexpr size_t kLocatorBytes = 20;
constexpr size_t kMaxCommentBytes = 0xFFFF;
constexpr uint64_t kMaxDirectoryBytes = uint64_t{512} << 20;
constexpr std::string_view kEndMark("PK\5\6", 4);
constexpr std::string_view kLocatorMark("PK\6\7", 4);
constexpr uint64_t kMaxOtherEnds = 8;

constexpr uint16_t kUtf8Flag = 0x0800;
constexpr uint16_t kDescriptorFlag = 0x0008;
constexpr uint32_t kAbsent32 = 0xFFFFFFFF;
constexpr uint16_t kAbsent16 = 0xFFFF;

// What is wrong with the archive.
struct BadArchive : std::runtime_error {
  using std::runtime_error::runtime_error;
};

void Require(bool holds, const char* elseReason) {
  if (!holds) throw BadArchive(elseReason);
}

// Takes little-endian numbers from the start of some bytes.
class Fields {
 public:
  explicit Fields(std::string_view bytes) : bytes_(bytes) {}

  uint64_t Number(size_t size) {
    const std::string_view taken = Bytes(size);
    uint64_t value = 0;
    for (size_t i = size; i-- > 0;) value = value << 8 | static_cast<unsigned char>(taken[i]);
    return value;
  }
  uint8_t U8() { return static_cast<uint8_t>(Number(1)); }
  uint16_t U16() { return static_cast<uint16_t>(Number(2)); }
  uint32_t U32() { return static_cast<uint32_t>(Number(4)); }
  uint64_t U64() { return Number(8); }
  std::string_view Bytes(size_t count) {
    Require(count <= bytes_.size(), "a record in it ends too early");
    const std::string_view taken = bytes_.substr(0, count);
    bytes_.remove_prefix(count);
    return taken;
  }
  size_t Left() const { return bytes_.size(); }

 private:
  std::string_view bytes_;
};

// An entry while its local record is looked for.
struct Record {
  ZipEntry* entry = nullptr;
  // The name's bytes in the directory.
  std::string_view name;
};

struct Directory {
  uint64_t entryCount = 0;
  uint64_t sizeBytes = 0;
  uint64_t offset = 0;
};

int64_t UnixTimeOf(uint16_t dosDate, uint16_t dosTime) {
  std::tm local{};
  local.tm_year = (dosDate >> 9) + 80;
  local.tm_mon = ((dosDate >> 5) & 15) - 1;
  local.tm_mday = dosDate & 31;
  local.tm_hour = dosTime >> 11;
  local.tm_min = (dosTime >> 5) & 63;
  local.tm_sec = (dosTime & 31) * 2;
  local.tm_isdst = -1;
  return static_cast<int64_t>(std::mktime(&local));
}

std::optional<int64_t> NtfsTime(Fields field) {
  constexpr uint64_t kLastTicks = uint64_t{1} << 60;
  field.U32();
  while (field.Left() >= 4) {
    const uint16_t tag = field.U16();
    Fields value(field.Bytes(field.U16()));
    if (tag != 1 || value.Left() < 8) continue;
    const uint64_t ticks = value.U64();
    if (ticks > kLastTicks) return std::nullopt;
    const int64_t sinceUnix = static_cast<int64_t>(ticks) - kUnixEpochTicks;
    // What lies beyond 1677 to 2262 has no place in 64 bits.
    if (sinceUnix / kTicksPerSecond > INT64_MAX / kNsPerSecond - 1) return std::nullopt;
    if (sinceUnix / kTicksPerSecond < INT64_MIN / kNsPerSecond + 1) return std::nullopt;
    return sinceUnix * 100;
  }
  return std::nullopt;
}

class ZipDirectoryReader {
 public:
  ZipDirectoryReader(const ZipBytes& bytes, uint64_t sizeBytes)
      : bytes_(bytes), sizeBytes_(sizeBytes) {}

  std::vector<ZipEntry> Run(uint32_t maxEntries) {
    const Directory directory = FindDirectory();
    Require(directory.entryCount <= maxEntries, "it has more entries than the limit allows");
    Require(directory.sizeBytes <= kMaxDirectoryBytes, "its directory is too large");
    Require(directory.entryCount <= directory.sizeBytes / kEntryBytes,
            "its directory is smaller than its entries");
    const std::string records = Read(directory.offset, directory.sizeBytes);

    Fields fields(records);
    std::vector<ZipEntry> entries(directory.entryCount);
    std::vector<Record> inOrder;
    inOrder.reserve(entries.size());
    for (ZipEntry& entry : entries) inOrder.push_back(ReadEntry(&fields, &entry));
    Require(fields.Left() == 0, "its directory is larger than its entries");
    CheckPlaces(&inOrder, directory.offset);
    return entries;
  }

 private:
  std::string Read(uint64_t offset, uint64_t count) {
    Require(offset <= sizeBytes_ && count <= sizeBytes_ - offset, "it is truncated");
    std::string buffer(static_cast<size_t>(count), '\0');
    Require(bytes_(offset, buffer.data(), buffer.size()), "it cannot be read");
    return buffer;
  }

  Directory FindDirectory() {
    Require(sizeBytes_ >= kEndBytes, "it is too short for a ZIP archive");
    const uint64_t tailBytes = std::min<uint64_t>(sizeBytes_, kEndBytes + kMaxCommentBytes);
    const std::string tail = Read(sizeBytes_ - tailBytes, tailBytes);
    // Only the last one counts: a comment that holds another could hide it.
    const size_t position = tail.rfind(kEndMark);
    Require(position != tail.npos && tail.size() - position >= kEndBytes,
            "it has no directory: it is no ZIP archive, or truncated");
    CheckOtherEnds(std::string_view(tail).substr(0, position));
    const uint64_t end = sizeBytes_ - tailBytes + position;

    Fields fields(std::string_view(tail).substr(position));
    Require(fields.U32() == kEndSignature, "it has no directory");
    const uint16_t disk = fields.U16();
    const uint16_t firstDisk = fields.U16();
    const uint16_t entriesHere = fields.U16();
    Directory directory;
    directory.entryCount = fields.U16();
    directory.sizeBytes = fields.U32();
    directory.offset = fields.U32();
    const uint16_t commentBytes = fields.U16();
    Require(fields.Left() == commentBytes, "something follows its end");
    Require(disk == firstDisk && (disk == 0 || disk == kAbsent16) &&
                entriesHere == directory.entryCount,
            "it is one part of several");

    const uint64_t directoryEnd = ReadEnd64(end, &directory);
    Require(
        directory.offset <= directoryEnd && directory.sizeBytes == directoryEnd - directory.offset,
        "its directory does not stand where its end says");
    return directory;
  }

  // libzip reads a directory for whatever looks like an end: thousands of them that all tell of
  // the one large directory would take it hours. Archives among the entries have ends, too, but
  // those that lie here whole have directories that fit in here together.
  static void CheckOtherEnds(std::string_view bytes) {
    uint64_t directoryBytes = 0;
    for (size_t at = bytes.find(kEndMark); at != bytes.npos; at = bytes.find(kEndMark, at + 1)) {
      const bool isLarge =
          bytes.size() - at < kEndBytes ||
          (at >= kLocatorBytes && bytes.substr(at - kLocatorBytes).starts_with(kLocatorMark));
      directoryBytes += isLarge ? kMaxCommentBytes : ToldDirectoryBytes(bytes.substr(at));
    }
    Require(directoryBytes <= kMaxOtherEnds * kMaxCommentBytes,
            "it has too many ends of directories");
  }

  static uint64_t ToldDirectoryBytes(std::string_view end) {
    Fields fields(end);
    fields.U64();
    const uint64_t entriesHere = fields.U16();
    const uint64_t entryCount = std::max<uint64_t>(fields.U16(), entriesHere);
    const uint64_t sizeBytes = std::max<uint64_t>(fields.U32(), entryCount * kEntryBytes);
    return std::min<uint64_t>(sizeBytes, kMaxCommentBytes);
  }

  // Takes over what stands in the larger record, if there is one. Returns where the directory must
  // end.
  uint64_t ReadEnd64(uint64_t end, Directory* directory) {
    if (end < kLocatorBytes + kEnd64Bytes) return end;
    const uint64_t locatorOffset = end - kLocatorBytes;
    const std::string locatorBytes = Read(locatorOffset, kLocatorBytes);
    Fields locator(locatorBytes);
    if (locator.U32() != kLocatorSignature) return end;
    Require(locator.U32() == 0, "it is one part of several");
    const uint64_t end64 = locator.U64();
    Require(locator.U32() <= 1, "it is one part of several");
    Require(end64 <= locatorOffset && locatorOffset - end64 >= kEnd64Bytes,
            "its zip64 record does not stand where its locator says");

    const std::string recordBytes = Read(end64, kEnd64Bytes);
    Fields record(recordBytes);
    Require(record.U32() == kEnd64Signature && record.U64() == locatorOffset - end64 - 12,
            "its zip64 record does not stand where its locator says");
    record.U32();
    Require(record.U32() == 0 && record.U32() == 0, "it is one part of several");
    Directory larger;
    const uint64_t entriesHere = record.U64();
    larger.entryCount = record.U64();
    larger.sizeBytes = record.U64();
    larger.offset = record.U64();
    const auto agrees = [](uint64_t small, uint64_t absent, uint64_t large) {
      return small == absent || small == large;
    };
    Require(entriesHere == larger.entryCount &&
                agrees(directory->entryCount, kAbsent16, larger.entryCount) &&
                agrees(directory->sizeBytes, kAbsent32, larger.sizeBytes) &&
                agrees(directory->offset, kAbsent32, larger.offset),
            "its two ends contradict each other");
    *directory = larger;
    return end64;
  }

  // The offset of the entry's local record goes to `dataOffset` for now.
  static Record ReadEntry(Fields* fields, ZipEntry* entry) {
    Require(fields->U32() == kEntrySignature, "its directory is damaged");
    fields->U8();
    const uint8_t system = fields->U8();
    fields->U16();
    entry->flags = fields->U16();
    entry->method = fields->U16();
    const uint16_t dosTime = fields->U16();
    const uint16_t dosDate = fields->U16();
    entry->crc = fields->U32();
    entry->packedBytes = fields->U32();
    entry->sizeBytes = fields->U32();
    const uint16_t nameBytes = fields->U16();
    const uint16_t extraBytes = fields->U16();
    const uint16_t commentBytes = fields->U16();
    const uint16_t disk = fields->U16();
    fields->U16();
    const uint32_t attributes = fields->U32();
    entry->dataOffset = fields->U32();
    const std::string_view name = fields->Bytes(nameBytes);
    const Fields extra(fields->Bytes(extraBytes));
    fields->Bytes(commentBytes);
    Require(disk == 0 || disk == kAbsent16, "it is one part of several");

    constexpr uint8_t kUnix = 3;
    constexpr uint8_t kMac = 19;
    entry->mode = attributes >> 16;
    entry->dosAttributes = static_cast<uint8_t>(attributes);
    const bool isUnix = system == kUnix || system == kMac;
    entry->name = (entry->flags & kUtf8Flag) != 0 || isUnix ? zip_names::FromBytes(name)
                                                            : zip_names::FromCodePage437(name);
    ReadExtra(extra, name, entry);
    if (!entry->modifiedNs && dosDate != 0) {
      entry->modifiedNs = UnixTimeOf(dosDate, dosTime) * kNsPerSecond;
    }
    return {entry, name};
  }

  static void ReadExtra(Fields extra, std::string_view name, ZipEntry* entry) {
    std::optional<int64_t> ntfsTime;
    bool hasSizes = entry->sizeBytes != kAbsent32 && entry->packedBytes != kAbsent32 &&
                    entry->dataOffset != kAbsent32;
    // Some programs leave a few bytes behind the last field.
    while (extra.Left() >= 4) {
      const uint16_t id = extra.U16();
      Fields field(extra.Bytes(extra.U16()));
      if (id == kZip64Field && !hasSizes) {
        ReadSizes(field, entry);
        hasSizes = true;
      } else if (id == kUnixTimeField && field.Left() >= 5 && (field.U8() & 1) != 0) {
        entry->modifiedNs = int64_t{static_cast<int32_t>(field.U32())} * kNsPerSecond;
      } else if (id == kNtfsField && field.Left() >= 4) {
        ntfsTime = NtfsTime(field);
      } else if (id == kUtf8NameField && field.Left() >= 5 && field.U8() == 1) {
        const bool isOfThisName = field.U32() == libdeflate_crc32(0, name.data(), name.size());
        if (isOfThisName) entry->name = zip_names::FromBytes(field.Bytes(field.Left()));
      }
    }
    if (!entry->modifiedNs) entry->modifiedNs = ntfsTime;
    Require(hasSizes, "an entry in it lacks its zip64 sizes");
  }

  static void ReadSizes(Fields field, ZipEntry* entry) {
    for (uint64_t* value : {&entry->sizeBytes, &entry->packedBytes, &entry->dataOffset}) {
      if (*value == kAbsent32) *value = field.U64();
    }
  }

  // Finds the packed bytes of each entry, and sees to it that the entries fill the file.
  void CheckPlaces(std::vector<Record>* records, uint64_t directoryOffset) {
    std::stable_sort(records->begin(), records->end(), [](const Record& a, const Record& b) {
      return a.entry->dataOffset < b.entry->dataOffset;
    });
    uint64_t end = 0;
    uint16_t flags = 0;
    for (const Record& record : *records) {
      CheckGap(end, record.entry->dataOffset, flags);
      FindData(record, directoryOffset);
      end = record.entry->dataOffset + record.entry->packedBytes;
      flags = record.entry->flags;
    }
    CheckGap(end, directoryOffset, flags);
  }

  // Behind an entry there may be a second copy of its checksum and sizes, where its flags say so.
  static void CheckGap(uint64_t begin, uint64_t end, uint16_t flags) {
    Require(begin <= end, "entries in it overlap");
    const uint64_t gap = end - begin;
    const bool isDescriptor =
        (flags & kDescriptorFlag) != 0 && (gap == 12 || gap == 16 || gap == 20 || gap == 24);
    Require(gap == 0 || isDescriptor, "it holds something besides its entries");
  }

  // The local record must say the same as the directory.
  void FindData(const Record& record, uint64_t directoryOffset) {
    ZipEntry& entry = *record.entry;
    const uint64_t offset = entry.dataOffset;
    const uint64_t minBytes = kLocalBytes + record.name.size();
    Require(offset <= directoryOffset && directoryOffset - offset >= minBytes, "it is truncated");
    const std::string bytes = Read(offset, minBytes);
    Fields local(bytes);
    Require(local.U32() == kLocalSignature, "an entry in it does not stand where it should");
    local.U16();
    const uint16_t flags = local.U16();
    const uint16_t method = local.U16();
    local.U32();
    const bool isLater = (flags & kDescriptorFlag) != 0;
    const auto agrees = [&](uint64_t value) {
      const uint32_t here = local.U32();
      return here == value || here == kAbsent32 || (here == 0 && isLater);
    };
    const bool hasSizes = agrees(entry.crc) && agrees(entry.packedBytes) && agrees(entry.sizeBytes);
    const size_t nameBytes = local.U16();
    const uint64_t headBytes = minBytes + local.U16();
    constexpr uint16_t kComparedFlags = kDescriptorFlag | kZipEncryptedFlags;
    Require(hasSizes && method == entry.method && ((flags ^ entry.flags) & kComparedFlags) == 0 &&
                nameBytes == record.name.size() && local.Bytes(nameBytes) == record.name,
            "an entry in it contradicts the directory");
    Require(headBytes <= directoryOffset - offset &&
                entry.packedBytes <= directoryOffset - offset - headBytes,
            "it is truncated");
    entry.dataOffset = offset + headBytes;
  }

  const ZipBytes& bytes_;
  const uint64_t sizeBytes_;
};

}  // namespace

ZipDirectory ReadZipDirectory(const ZipBytes& bytes, uint64_t sizeBytes, uint32_t maxEntries) {
  ZipDirectory directory;
  try {
    directory.entries = ZipDirectoryReader(bytes, sizeBytes).Run(maxEntries);
  } catch (const BadArchive& error) {
    directory.error = ZelString(error.what());
  }
  return directory;
}
