#include "agent/zelctl/text_output.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "libZel/string.h"

namespace {

constexpr size_t kIndentStep = 2;

struct Character {
  uint32_t codePoint = 0;
  size_t length = 0;  ///< 0: the bytes are not UTF-8 (RFC 3629)
};

Character DecodeCharacter(std::string_view text) {
  constexpr std::array<uint32_t, 5> kSmallest = {0, 0, 0x80, 0x800, 0x10000};
  const auto lead = static_cast<unsigned char>(text[0]);
  if (lead < 0x80) return {lead, 1};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC0 || lead > 0xF7 || text.size() < length) return {};

  uint32_t codePoint = lead & (0x7Fu >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto next = static_cast<unsigned char>(text[i]);
    if ((next & 0xC0) != 0x80) return {};
    codePoint = codePoint << 6 | (next & 0x3Fu);
  }
  if (codePoint < kSmallest[length] || codePoint > 0x10FFFF) return {};
  return {codePoint, length};
}

bool IsBetween(uint32_t value, uint32_t first, uint32_t last) {
  return value >= first && value <= last;
}

/// Control characters, marks that turn the direction of writing, line separators, surrogates.
bool ActsOnTerminal(uint32_t codePoint) {
  return codePoint < 0x20 || IsBetween(codePoint, 0x7F, 0x9F) || codePoint == 0x61C ||
         IsBetween(codePoint, 0x200E, 0x200F) || IsBetween(codePoint, 0x2028, 0x202E) ||
         IsBetween(codePoint, 0x2066, 0x2069) || IsBetween(codePoint, 0xD800, 0xDFFF);
}

void AppendEscape(const char* format, unsigned value, std::string* text) {
  char buffer[16];
  std::snprintf(buffer, sizeof buffer, format, value);
  text->append(buffer);
}

void AppendVisible(uint32_t codePoint, std::string* text) {
  switch (codePoint) {
    case '\n':
      text->append("\\n");
      return;
    case '\r':
      text->append("\\r");
      return;
    case '\t':
      text->append("\\t");
      return;
    default:
      AppendEscape(codePoint < 0x80 ? "\\x%02x" : "\\u%04x", codePoint, text);
  }
}

/// Columns that a text without control characters takes, one for each character.
size_t DisplayWidth(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
  }));
}

void AppendTableLine(const std::vector<std::string>& cells, const std::vector<size_t>& widths,
                     std::string* text) {
  constexpr size_t kGap = 2;
  for (size_t i = 0; i < cells.size(); ++i) {
    text->append(cells[i]);
    if (i + 1 < cells.size()) text->append(widths[i] - DisplayWidth(cells[i]) + kGap, ' ');
  }
  while (!text->empty() && text->back() == ' ') text->pop_back();
  text->push_back('\n');
}

std::string FormatScalar(const ZelContainer::Entry& entry, size_t index);

/// A value within one line.
std::string FormatInline(const ZelContainer::Entry& entry) {
  if (!entry.IsList()) return FormatScalar(entry, 0);
  std::string text = "[";
  for (size_t i = 0; i < entry.Count(); ++i) {
    if (i > 0) text += ", ";
    text += FormatScalar(entry, i);
  }
  return text + "]";
}

std::string FormatInline(const ZelContainer& container) {
  std::string text = "{";
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    const ZelContainer::Entry entry = container.EntryAt(i);
    if (i > 0) text += ", ";
    text.append(entry.Key()).append(": ").append(FormatInline(entry));
  }
  return text + "}";
}

std::string FormatScalar(const ZelContainer::Entry& entry, size_t index) {
  switch (entry.Type()) {
    case ZelValueType::kString:
      return std::string(entry.StringAt(index));
    case ZelValueType::kInt32:
    case ZelValueType::kInt64:
      return std::to_string(entry.IntegerAt(index));
    case ZelValueType::kBool:
      return entry.BoolAt(index) ? "true" : "false";
    case ZelValueType::kContainer:
      return FormatInline(entry.ContainerAt(index));
  }
  return {};
}

std::string Indented(std::string_view lines, size_t indent) {
  std::string text;
  while (!lines.empty()) {
    const size_t end = lines.find('\n') + 1;
    text.append(indent, ' ').append(lines.substr(0, end));
    lines.remove_prefix(end);
  }
  return text;
}

/// Rows become lines, their keys (in order of first appearance) columns.
std::string FormatRows(const ZelContainer::Entry& list) {
  std::vector<std::string> header;
  ZelContainer columns;
  std::vector<std::vector<std::string>> rows;
  for (size_t i = 0; i < list.Count(); ++i) {
    const ZelContainer row = list.ContainerAt(i);
    std::vector<std::string> cells(header.size());
    for (size_t k = 0; k < row.CountKeys(); ++k) {
      const ZelContainer::Entry entry = row.EntryAt(k);
      const ZelString key(entry.Key());
      auto column = static_cast<int32_t>(header.size());
      if (!columns.GetInt32(key, &column, kNoIndex)) {
        columns.SetInt32(key, column, kNoIndex);
        header.emplace_back(entry.Key());
        cells.emplace_back();
      }
      cells[static_cast<size_t>(column)] = FormatInline(entry);
    }
    rows.push_back(std::move(cells));
  }
  return FormatTable(header, rows);
}

std::string FormatEntry(const ZelContainer::Entry& entry) {
  const std::string key = EscapeForTerminal(entry.Key()) + ":";
  const bool isContainer = entry.Type() == ZelValueType::kContainer;
  if (isContainer && entry.IsList()) return key + "\n" + Indented(FormatRows(entry), kIndentStep);
  if (isContainer) {
    return key + "\n" + Indented(FormatContainer(entry.ContainerAt(0)), kIndentStep);
  }
  if (!entry.IsList()) return key + " " + EscapeForTerminal(FormatScalar(entry, 0)) + "\n";

  std::string text = key + "\n";
  for (size_t i = 0; i < entry.Count(); ++i) {
    text += "  - " + EscapeForTerminal(FormatScalar(entry, i)) + "\n";
  }
  return text;
}

std::string GroupThousands(uint64_t value) {
  std::string digits = std::to_string(value);
  for (size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
  return digits;
}

}  // namespace

std::string EscapeForTerminal(std::string_view text, bool keepLines) {
  std::string visible;
  visible.reserve(text.size());
  while (!text.empty()) {
    const Character character = DecodeCharacter(text);
    const size_t length = std::max<size_t>(character.length, 1);
    const bool isLayout = character.codePoint == '\n' || character.codePoint == '\t';
    if (character.length == 0) {
      AppendEscape("\\x%02x", static_cast<unsigned char>(text[0]), &visible);
    } else if (ActsOnTerminal(character.codePoint) && !(keepLines && isLayout)) {
      AppendVisible(character.codePoint, &visible);
    } else {
      visible.append(text.substr(0, length));
    }
    text.remove_prefix(length);
  }
  return visible;
}

std::string FormatTable(const std::vector<std::string>& header,
                        const std::vector<std::vector<std::string>>& rows) {
  std::vector<std::vector<std::string>> lines = {header};
  lines.insert(lines.end(), rows.begin(), rows.end());

  std::vector<size_t> widths(header.size(), 0);
  for (std::vector<std::string>& cells : lines) {
    for (size_t i = 0; i < cells.size(); ++i) {
      cells[i] = EscapeForTerminal(cells[i]);
      widths[i] = std::max(widths[i], DisplayWidth(cells[i]));
    }
  }

  std::string text;
  for (const std::vector<std::string>& cells : lines) AppendTableLine(cells, widths, &text);
  return text;
}

std::string FormatContainer(const ZelContainer& container) {
  std::string text;
  for (size_t i = 0; i < container.CountKeys(); ++i) text += FormatEntry(container.EntryAt(i));
  return text;
}

std::string FormatLocalTime(int64_t secondsUtc) {
  const auto time = static_cast<std::time_t>(secondsUtc);
  const std::tm* const local = std::localtime(&time);
  char text[32] = "?";
  if (local != nullptr) std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", local);
  return text;
}

std::string FormatShortSize(uint64_t sizeBytes) {
  constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  constexpr double kStep = 1024;
  if (sizeBytes < 1024) return std::to_string(sizeBytes) + " B";

  size_t unit = 0;
  double value = static_cast<double>(sizeBytes) / kStep;
  while (value >= kStep && unit + 1 < kUnits.size()) {
    value /= kStep;
    ++unit;
  }
  char rounded[32];
  std::snprintf(rounded, sizeof rounded, "%.1f ", value);
  return rounded + std::string(kUnits[unit]);
}

std::string FormatSize(uint64_t sizeBytes) {
  const std::string exact = GroupThousands(sizeBytes) + (sizeBytes == 1 ? " byte" : " bytes");
  return sizeBytes < 1024 ? exact : exact + " (" + FormatShortSize(sizeBytes) + ")";
}
