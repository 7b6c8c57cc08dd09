#pragma once

#include <concepts>
#include <cstdint>
#include <type_traits>

class ZelString;

/// The system's wide character: a UTF-16 code unit everywhere (`wchar_t` where that is 16 bits
/// wide, `char16_t` elsewhere).
using TCHAR = std::conditional_t<sizeof(wchar_t) == 2, wchar_t, char16_t>;

/// One argument of a formatting call. It borrows texts, so it must not outlive the call's full
/// expression.
class ZelFormatArgument {
 public:
  enum class Kind { kSigned, kUnsigned, kString, kNarrow, kWide };

  template <std::signed_integral T>
  ZelFormatArgument(T value) : kind_(Kind::kSigned), bits_(8 * sizeof(T)) {
    value_.asSigned = value;
  }
  template <std::unsigned_integral T>
  ZelFormatArgument(T value) : kind_(Kind::kUnsigned), bits_(8 * sizeof(T)) {
    value_.asUnsigned = value;
  }
  ZelFormatArgument(const ZelString& text) : kind_(Kind::kString) { value_.asString = &text; }
  ZelFormatArgument(const char* utf8) : kind_(Kind::kNarrow) { value_.asNarrow = utf8; }
  ZelFormatArgument(const TCHAR* wide) : kind_(Kind::kWide) { value_.asWide = wide; }

  Kind GetKind() const { return kind_; }
  /// The width of a number's type.
  unsigned Bits() const { return bits_; }
  int64_t Signed() const { return value_.asSigned; }
  uint64_t Unsigned() const { return value_.asUnsigned; }
  const ZelString& String() const { return *value_.asString; }
  const char* Narrow() const { return value_.asNarrow; }
  const TCHAR* Wide() const { return value_.asWide; }

 private:
  Kind kind_;
  unsigned bits_ = 0;
  union {
    int64_t asSigned;
    uint64_t asUnsigned;
    const ZelString* asString;
    const char* asNarrow;
    const TCHAR* asWide;
  } value_;
};
