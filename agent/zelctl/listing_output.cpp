#include "agent/zelctl/listing_output.h"

#include <algorithm>
#include <cstddef>

#include "agent/zelctl/text_output.h"
#include "libZel/string.h"

namespace {

constexpr uint32_t kTypeMask = 0170000;

ListingRow ReadListingRow(const ZelContainer& container) {
  ListingRow row;
  ZelString name;
  container.GetString("Name", &name, kNoIndex);
  row.name = name.Utf8();
  container.GetBool("IsDirectory", &row.isDirectory, kNoIndex);
  if (!container.GetBool("IsHidden", &row.isHidden, kNoIndex)) {
    row.isHidden = row.name.starts_with('.');
  }
  int64_t sizeBytes = 0;
  container.GetInt64("Size", &sizeBytes, kNoIndex);
  row.sizeBytes = static_cast<uint64_t>(std::max<int64_t>(sizeBytes, 0));
  // The unsigned time travels in 32 signed bits.
  container.GetInt32("ModifyDate", &row.modifyTime, kNoIndex);
  container.GetInt32("Mode", &row.mode, kNoIndex);
  return row;
}

char TypeLetter(uint32_t mode, bool isDirectory) {
  switch (mode & kTypeMask) {
    case 0010000:
      return 'p';
    case 0020000:
      return 'c';
    case 0040000:
      return 'd';
    case 0060000:
      return 'b';
    case 0100000:
      return '-';
    case 0120000:
      return 'l';
    case 0140000:
      return 's';
    default:
      return isDirectory ? 'd' : '-';
  }
}

/// `special` (set-ID or sticky) shares the place of the right to execute.
std::string FormatPermissions(uint32_t bits, bool isSpecial, char specialLetter) {
  const bool mayExecute = (bits & 1) != 0;
  const char plain = mayExecute ? 'x' : '-';
  const char upper = static_cast<char>(specialLetter - 'a' + 'A');
  const char special = mayExecute ? specialLetter : upper;
  return {(bits & 4) != 0 ? 'r' : '-', (bits & 2) != 0 ? 'w' : '-', isSpecial ? special : plain};
}

std::string FormatName(const ListingRow& row) {
  return EscapeForTerminal(row.name) + (row.isDirectory ? "/" : "");
}

}  // namespace

std::vector<ListingRow> ReadListingRows(const ZelContainer& listing) {
  std::vector<ListingRow> rows;
  ZelContainer row;
  for (uint32_t i = 0; listing.GetContainer("Values", &row, i); ++i)
    rows.push_back(ReadListingRow(row));
  return rows;
}

std::string FormatMode(uint32_t mode, bool isDirectory) {
  const std::string type(1, TypeLetter(mode, isDirectory));
  if (mode == 0) return type + "?????????";
  return type + FormatPermissions(mode >> 6, (mode & 04000) != 0, 's') +
         FormatPermissions(mode >> 3, (mode & 02000) != 0, 's') +
         FormatPermissions(mode, (mode & 01000) != 0, 't');
}

std::string FormatListing(const std::vector<ListingRow>& rows) {
  std::vector<std::string> sizes;
  size_t width = 0;
  for (const ListingRow& row : rows) {
    sizes.push_back(row.isDirectory ? "-" : FormatShortSize(row.sizeBytes));
    width = std::max(width, sizes.back().size());
  }
  std::string text;
  for (size_t i = 0; i < rows.size(); ++i) {
    text += FormatMode(rows[i].mode, rows[i].isDirectory) + "  ";
    text.append(width - sizes[i].size(), ' ').append(sizes[i]).append("  ");
    text += FormatLocalTime(rows[i].modifyTime) + "  " + FormatName(rows[i]) + "\n";
  }
  return text;
}

std::string FormatNames(const std::vector<ListingRow>& rows) {
  std::string text;
  for (const ListingRow& row : rows) text += FormatName(row) + "\n";
  return text;
}
