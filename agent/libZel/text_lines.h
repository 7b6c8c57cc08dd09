#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "libZel/string.h"

/// The bytes of a text file, seen as lines that end in LF (a CR before it belongs to the line end);
/// the last one may lack it. The text is UTF-16 when it starts with a byte-order mark of that, else
/// UTF-8, with a mark or without. Any bytes will do: those that belong to no character are kept.
class TextLines {
 public:
  /// A text of no lines.
  TextLines() = default;
  explicit TextLines(std::string bytes);

  const std::string& Bytes() const { return bytes_; }
  /// Tells this content from others.
  uint64_t Stamp() const;

  /// The text without its mark, as a `ZelString` holds it: a byte 0xNN that is not UTF-8 is the
  /// lone surrogate U+DCNN. It stands in this object, or in `buffer` when it had to be converted.
  std::string_view Text(std::string* buffer) const;

  /// The bytes of line `line` (counted from 1) with its line end; none when there is no such line.
  std::optional<std::string_view> Line(unsigned long line) const;

  /// Puts `text`, as it is, in front of line `line`; the number after the last line appends, behind
  /// a line end where the last line has none. False, with nothing changed, for other numbers and
  /// where no text can follow (UTF-16 that ends in half a character).
  bool Insert(unsigned long line, const ZelString& text);
  /// Deletes line `line` with its line end. False, with nothing changed, when there is none.
  bool Delete(unsigned long line);

 private:
  enum class Encoding { kUtf8, kUtf16Little, kUtf16Big };
  struct Range {
    size_t start = 0;
    size_t end = 0;
  };

  Range FindLine(unsigned long line) const;
  size_t EndOfLine(size_t start) const;
  bool EndsWith(const char* ascii) const;
  std::string Encode(const ZelString& text) const;

  std::string bytes_;
  Encoding encoding_ = Encoding::kUtf8;
  size_t markBytes_ = 0;
};
