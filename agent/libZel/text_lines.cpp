#include "agent/libZel/text_lines.h"

#include <functional>
#include <utility>

#include "agent/libZel/wtf8.h"

namespace {

using std::string_view_literals::operator""sv;

constexpr size_t kUnitBytes = 2;

void SwapBytes(std::string* units) {
  for (size_t i = 0; i + 1 < units->size(); i += kUnitBytes)
    std::swap((*units)[i], (*units)[i + 1]);
}

}  // namespace

TextLines::TextLines(std::string bytes) : bytes_(std::move(bytes)) {
  if (bytes_.starts_with("\xEF\xBB\xBF"sv)) {
    markBytes_ = 3;
  } else if (bytes_.starts_with("\xFF\xFE"sv)) {
    encoding_ = Encoding::kUtf16Little;
    markBytes_ = 2;
  } else if (bytes_.starts_with("\xFE\xFF"sv)) {
    encoding_ = Encoding::kUtf16Big;
    markBytes_ = 2;
  }
}

uint64_t TextLines::Stamp() const {
  return std::hash<std::string_view>()(bytes_);
}

std::string_view TextLines::Text(std::string* buffer) const {
  const std::string_view content = std::string_view(bytes_).substr(markBytes_);
  if (encoding_ == Encoding::kUtf8) {
    if (IsUtf8(content)) return content;
    *buffer = EscapeBytes(content);
    return *buffer;
  }

  // Half a character at the end is none.
  std::string units(content.substr(0, content.size() / kUnitBytes * kUnitBytes));
  if (encoding_ == Encoding::kUtf16Big) SwapBytes(&units);
  ZelString text;
  text.Assign(units.data(), units.size(), kEncodingUtf16);
  *buffer = std::move(text).TakeUtf8();
  return *buffer;
}

std::optional<std::string_view> TextLines::Line(unsigned long line) const {
  const Range range = FindLine(line);
  if (range.start == range.end) return std::nullopt;
  return std::string_view(bytes_).substr(range.start, range.end - range.start);
}

bool TextLines::Insert(unsigned long line, const ZelString& text) {
  const Range range = FindLine(line);
  if (range.start != range.end) {
    bytes_.insert(range.start, Encode(text));
    return true;
  }

  const bool isAfterLast = line == 1 ? bytes_.size() == markBytes_ : line > 1 && Line(line - 1);
  if (!isAfterLast) return false;
  const bool isInHalf = encoding_ != Encoding::kUtf8 && bytes_.size() % kUnitBytes != 0;
  if (isInHalf) return false;
  std::string tail;
  if (bytes_.size() > markBytes_ && !EndsWith("\n")) {
    tail = Encode(text.EndsWith("\r\n") ? "\r\n" : "\n");
  }
  bytes_ += tail + Encode(text);
  return true;
}

bool TextLines::Delete(unsigned long line) {
  const Range range = FindLine(line);
  if (range.start == range.end) return false;
  bytes_.erase(range.start, range.end - range.start);
  return true;
}

// Where the line stands; an empty range when there is none.
TextLines::Range TextLines::FindLine(unsigned long line) const {
  if (line == 0) return {};
  Range range{markBytes_, EndOfLine(markBytes_)};
  for (; line > 1 && range.start < range.end; --line) {
    range = {range.end, EndOfLine(range.end)};
  }
  return range;
}

size_t TextLines::EndOfLine(size_t start) const {
  if (encoding_ == Encoding::kUtf8) {
    const size_t end = bytes_.find('\n', start);
    return end == std::string::npos ? bytes_.size() : end + 1;
  }
  const std::string_view lineFeed = encoding_ == Encoding::kUtf16Little ? "\n\0"sv : "\0\n"sv;
  for (size_t at = start; at + kUnitBytes <= bytes_.size(); at += kUnitBytes) {
    if (bytes_.compare(at, kUnitBytes, lineFeed) == 0) return at + kUnitBytes;
  }
  return bytes_.size();
}

bool TextLines::EndsWith(const char* ascii) const {
  return std::string_view(bytes_).substr(markBytes_).ends_with(Encode(ascii));
}

std::string TextLines::Encode(const ZelString& text) const {
  if (encoding_ == Encoding::kUtf8) return UnescapeBytes(text.Utf8());
  std::string units(text.GetString(kEncodingUtf16), text.GetSize(kEncodingUtf16));
  if (encoding_ == Encoding::kUtf16Big) SwapBytes(&units);
  return units;
}
