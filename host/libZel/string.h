#pragma once

#include <atomic>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>

#include "libZel/format_argument.h"

/// Text encodings of `Assign`, `GetString` and `GetSize`.
constexpr int kEncodingUtf8 = 100;
/// UTF-16 in little-endian byte order, without a byte-order mark.
constexpr int kEncodingUtf16 = 110;

/// A text. Inside it is WTF-8 (UTF-8 that may also hold lone surrogates, so that file names which
/// are not valid Unicode survive a round trip); the UTF-16 view is made on demand. It may hold NUL
/// characters. Positions, lengths and counts are bytes of the UTF-8 form.
///
/// Threads: like a standard container. Any number of threads may read one string at once, the wide
/// view included; a writer needs it alone.
class ZelString {
 public:
  static constexpr size_t kNotFound = static_cast<size_t>(-1);

  ZelString() = default;
  /// `utf8` is a terminated text, WTF-8 included; a byte 0xNN that belongs to no character is kept
  /// as the lone surrogate U+DCNN. A null pointer gives the empty text.
  ZelString(const char* utf8);
  ZelString(std::string_view utf8);
  ZelString(const std::string& utf8) : ZelString(std::string_view(utf8)) {}
  ZelString(std::string&& utf8);
  /// `wide` is a terminated UTF-16 text. A null pointer gives the empty text.
  ZelString(const TCHAR* wide);
  ZelString(std::basic_string_view<TCHAR> wide);
  ZelString(const ZelString& other) : text_(other.text_) {}
  ZelString(ZelString&& other) noexcept;
  ZelString& operator=(const ZelString& other);
  ZelString& operator=(ZelString&& other) noexcept;
  ~ZelString();

  /// Replaces the text by `byteCount` bytes in `encoding` (`kEncodingUtf8` or `kEncodingUtf16`).
  /// False, with the text unchanged, for another encoding or an odd number of UTF-16 bytes.
  bool Assign(const void* bytes, size_t byteCount, int encoding);
  /// Replaces the text by a terminated UTF-16 text.
  void SetToTCHAR(const TCHAR* wide);

  /// The text's bytes in `encoding`, followed by a terminator of that encoding. The pointer is
  /// owned by the string and valid until it changes; null for another encoding.
  const char* GetString(int encoding) const;
  /// The number of bytes that `GetString(encoding)` holds, without the terminator; 0 for another
  /// encoding.
  size_t GetSize(int encoding) const;
  /// The terminated UTF-16 view, valid until the string changes.
  const TCHAR* GetTCHAR() const;
  /// The bytes inside, valid until the string changes.
  std::string_view Utf8() const { return text_; }

  /// The bytes inside, taken out of a string that is no longer needed.
  std::string TakeUtf8() &&;

  size_t GetLength() const { return text_.size(); }
  bool IsEmpty() const { return text_.empty(); }
  void Clear();

  ZelString& operator+=(const ZelString& tail);
  /// Appends `text` (or the ASCII character) `count` times.
  ZelString& Append(const ZelString& text, size_t count = 1);
  ZelString& Append(char character, size_t count = 1);
  /// Removes up to `count` bytes from `position`; a position past the end removes nothing.
  void Remove(size_t position, size_t count);
  /// Up to `count` bytes from `position`; empty when `position` lies past the end.
  ZelString SubString(size_t position, size_t count = kNotFound) const;
  ZelString GetSubstring(size_t position, size_t count) const { return SubString(position, count); }
  /// Position of the first occurrence of `text` at or after `from`, or `kNotFound`.
  size_t Find(const ZelString& text, size_t from = 0) const;

  /// Replaces every occurrence of `from`, found left to right without overlap, by `to`. With
  /// `ignoreCase`, the letters A to Z match without regard to case. An empty `from` changes
  /// nothing. Returns the number of replacements.
  size_t ReplaceAll(const ZelString& from, const ZelString& to, bool ignoreCase);
  /// `ignoreCase` compares the letters A to Z without regard to case.
  bool StartsWith(const char* prefix, bool ignoreCase = false) const;
  bool EndsWith(const char* suffix, bool ignoreCase = false) const;

  /// The number at the start of the text (after blanks) in `base` 2 to 36; base 0 recognises the
  /// prefix 0x, and 0 for octal unless a digit 8 or 9 follows ("08" is eight). Without digits, and
  /// in any other base, 0; beyond the range the largest (smallest) value.
  uint32_t ToUL(int base) const;
  int64_t ToInt64(int base) const;
  static ZelString FromInt64(int64_t value);

  /// Replaces the text by `format` with its directives filled in from the arguments in order:
  /// "%S" and "%s" take a text of any kind, "%d" and "%i" a signed, "%u" an unsigned, "%x" and "%X"
  /// a hexadecimal number, "%c" a character code, "%%" a percent sign. Flags "-" and "0", a width
  /// up to 1024 and, for texts, a precision in bytes are understood; length modifiers (h, l, ll)
  /// are ignored. A directive that is unknown, or has no argument or one of the wrong kind, stays
  /// in the result as it stands.
  template <typename... Arguments>
  ZelString& Printf(const ZelString& format, const Arguments&... arguments) {
    return FormatList(format, {ZelFormatArgument(arguments)...});
  }
  ZelString& FormatList(const ZelString& format,
                        std::initializer_list<ZelFormatArgument> arguments);

  /// Whether the bytes are well-formed UTF-8 (RFC 3629: no surrogates, no overlong forms). No bytes
  /// are; `bytes` may then be null.
  static bool IsTextUTF8(const char* bytes, uint32_t byteCount);

  /// Ordinal comparison: by code unit of the UTF-8 form, case-sensitive, independent of locale.
  friend bool operator==(const ZelString& a, const ZelString& b) { return a.text_ == b.text_; }
  friend std::strong_ordering operator<=>(const ZelString& a, const ZelString& b) {
    return a.text_ <=> b.text_;
  }

 private:
  using WideText = std::basic_string<TCHAR>;

  const WideText& Wide() const;
  void DropWide();

  std::string text_;
  mutable std::atomic<WideText*> wide_{nullptr};
};

ZelString operator+(const ZelString& a, const ZelString& b);

template <>
struct std::hash<ZelString> {
  size_t operator()(const ZelString& text) const noexcept {
    return std::hash<std::string_view>()(text.Utf8());
  }
};
