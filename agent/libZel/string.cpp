#include "libZel/string.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/wtf8.h"

namespace {

/// A high and a low surrogate that meet as neighbours form one character in WTF-8.
void AppendJoining(std::string_view tail, std::string* text) {
  constexpr size_t kSurrogateBytes = 3;
  uint32_t low = 0;
  uint32_t high = 0;
  if (text->size() >= kSurrogateBytes && DecodeWtf8(tail, &low) == kSurrogateBytes &&
      IsLowSurrogate(low)) {
    const std::string_view last = std::string_view(*text).substr(text->size() - kSurrogateBytes);
    if (DecodeWtf8(last, &high) == kSurrogateBytes && IsHighSurrogate(high)) {
      text->resize(text->size() - kSurrogateBytes);
      AppendWtf8(CombineSurrogates(high, low), text);
      tail.remove_prefix(kSurrogateBytes);
    }
  }
  text->append(tail);
}

std::string FromBytes(std::string_view bytes) {
  if (IsUtf8(bytes)) return std::string(bytes);
  std::string text;
  text.reserve(bytes.size());
  while (!bytes.empty()) {
    uint32_t codePoint = 0;
    size_t length = DecodeWtf8(bytes, &codePoint);
    if (length == 0) {
      codePoint = kByteEscapeBase + static_cast<unsigned char>(bytes[0]);
      length = 1;
    }
    std::string character;
    AppendWtf8(codePoint, &character);
    AppendJoining(character, &text);
    bytes.remove_prefix(length);
  }
  return text;
}

template <typename Unit>
std::string FromUtf16(std::basic_string_view<Unit> wide) {
  std::string text;
  text.reserve(wide.size());
  for (size_t i = 0; i < wide.size(); ++i) {
    const uint32_t unit = static_cast<uint16_t>(wide[i]);
    const bool isPair = IsHighSurrogate(unit) && i + 1 < wide.size() &&
                        IsLowSurrogate(static_cast<uint16_t>(wide[i + 1]));
    if (isPair) {
      AppendWtf8(CombineSurrogates(unit, static_cast<uint16_t>(wide[i + 1])), &text);
      ++i;
    } else {
      AppendWtf8(unit, &text);
    }
  }
  return text;
}

std::basic_string<TCHAR> ToUtf16(std::string_view text) {
  std::basic_string<TCHAR> wide;
  wide.reserve(text.size());
  while (!text.empty()) {
    uint32_t codePoint = 0;
    const size_t length = DecodeWtf8(text, &codePoint);
    text.remove_prefix(length);
    if (codePoint < 0x10000) {
      wide.push_back(static_cast<TCHAR>(codePoint));
      continue;
    }
    wide.push_back(static_cast<TCHAR>(0xD800 + ((codePoint - 0x10000) >> 10)));
    wide.push_back(static_cast<TCHAR>(0xDC00 + ((codePoint - 0x10000) & 0x3FF)));
  }
  return wide;
}

bool EqualAscii(std::string_view a, std::string_view b, bool ignoreCase) {
  return ignoreCase ? EqualsIgnoringCase(a, b) : a == b;
}

/// The digits of a number in a text, with what stands before them.
struct NumberText {
  std::string_view digits;
  int base = 10;
  bool isNegative = false;
};

NumberText FindNumber(std::string_view text, int base) {
  const size_t start = text.find_first_not_of(" \t\r\n\v\f");
  text.remove_prefix(std::min(start, text.size()));
  NumberText number;
  if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
    number.isNegative = text[0] == '-';
    text.remove_prefix(1);
  }
  const bool hasHexPrefix = text.size() > 2 && text[0] == '0' && AsciiLower(text[1]) == 'x';
  if (hasHexPrefix && (base == 0 || base == 16)) {
    text.remove_prefix(2);
    base = 16;
  }
  // "08" of a date is eight.
  const std::string_view run = text.substr(0, text.find_first_not_of("0123456789"));
  if (base == 0) base = run.starts_with('0') && run.find_first_of("89") == run.npos ? 8 : 10;
  if (base < 2 || base > 36) return number;
  number.digits = text;
  number.base = base;
  return number;
}

template <typename Number>
Number ParseClamped(const NumberText& number, Number largest) {
  Number value = 0;
  const char* end = number.digits.data() + number.digits.size();
  const auto result = std::from_chars(number.digits.data(), end, value, number.base);
  return result.ec == std::errc::result_out_of_range ? largest : value;
}

/// One directive of a format, "%-08.3S" taken apart.
struct Directive {
  size_t length = 0;  ///< bytes of the format, the percent sign included; 0: not a directive
  bool leftAligned = false;
  bool zeroPadded = false;
  size_t width = 0;
  size_t precision = std::numeric_limits<size_t>::max();
  char conversion = 0;
};

constexpr size_t kWidestField = 1024;

size_t ReadFieldSize(std::string_view format, size_t* position) {
  size_t value = 0;
  while (*position < format.size() && format[*position] >= '0' && format[*position] <= '9') {
    value = std::min<size_t>(value * 10 + static_cast<size_t>(format[*position] - '0'),
                             kWidestField + 1);
    ++*position;
  }
  return value;
}

Directive ParseDirective(std::string_view format) {
  Directive directive;
  size_t i = 1;
  for (; i < format.size() && (format[i] == '-' || format[i] == '0'); ++i) {
    (format[i] == '-' ? directive.leftAligned : directive.zeroPadded) = true;
  }
  directive.width = ReadFieldSize(format, &i);
  if (i < format.size() && format[i] == '.') {
    ++i;
    directive.precision = ReadFieldSize(format, &i);
  }
  while (i < format.size() && (format[i] == 'l' || format[i] == 'h')) ++i;
  if (i >= format.size() || directive.width > kWidestField) return {};
  directive.conversion = format[i];
  directive.length = i + 1;
  return directive;
}

void AppendPadded(std::string_view text, const Directive& directive, bool isNumber,
                  std::string* out) {
  const size_t padding = directive.width > text.size() ? directive.width - text.size() : 0;
  if (directive.leftAligned) {
    AppendJoining(text, out);
    out->append(padding, ' ');
    return;
  }
  if (isNumber && directive.zeroPadded) {
    const size_t signLength = text.starts_with('-') ? 1 : 0;
    out->append(text.substr(0, signLength)).append(padding, '0').append(text.substr(signLength));
    return;
  }
  out->append(padding, ' ');
  AppendJoining(text, out);
}

/// The longest start of `text` within `byteCount` bytes that splits no character.
std::string_view CutAtCharacter(std::string_view text, size_t byteCount) {
  if (byteCount >= text.size()) return text;
  while (byteCount > 0 && (static_cast<unsigned char>(text[byteCount]) & 0xC0) == 0x80) --byteCount;
  return text.substr(0, byteCount);
}

bool IsNumber(const ZelFormatArgument& argument) {
  return argument.GetKind() == ZelFormatArgument::Kind::kSigned ||
         argument.GetKind() == ZelFormatArgument::Kind::kUnsigned;
}

/// The number's bits as an unsigned value of its own width.
uint64_t AsUnsigned(const ZelFormatArgument& argument) {
  if (argument.GetKind() == ZelFormatArgument::Kind::kUnsigned) return argument.Unsigned();
  const auto bits = static_cast<uint64_t>(argument.Signed());
  return argument.Bits() >= 64 ? bits : bits & ((uint64_t{1} << argument.Bits()) - 1);
}

std::string TextOf(const ZelFormatArgument& argument) {
  switch (argument.GetKind()) {
    case ZelFormatArgument::Kind::kString:
      return std::string(argument.String().Utf8());
    case ZelFormatArgument::Kind::kNarrow:
      return std::string(ZelString(argument.Narrow()).Utf8());
    default:
      return std::string(ZelString(argument.Wide()).Utf8());
  }
}

std::string NumberIn(uint64_t value, int base) {
  char digits[32];
  const auto end = std::to_chars(digits, digits + sizeof digits, value, base);
  return std::string(digits, end.ptr);
}

/// Appends what the directive makes of the argument; false when they do not fit each other.
bool AppendConverted(const Directive& directive, const ZelFormatArgument& argument,
                     std::string* out) {
  const bool isNumber = IsNumber(argument);
  switch (directive.conversion) {
    case 'S':
    case 's': {
      if (isNumber) return false;
      const std::string text = TextOf(argument);
      AppendPadded(CutAtCharacter(text, directive.precision), directive, false, out);
      return true;
    }
    case 'd':
    case 'i': {
      if (!isNumber) return false;
      const bool isSigned = argument.GetKind() == ZelFormatArgument::Kind::kSigned;
      AppendPadded(
          isSigned ? std::to_string(argument.Signed()) : std::to_string(argument.Unsigned()),
          directive, true, out);
      return true;
    }
    case 'u':
      if (!isNumber) return false;
      AppendPadded(std::to_string(AsUnsigned(argument)), directive, true, out);
      return true;
    case 'x':
    case 'X': {
      if (!isNumber) return false;
      std::string digits = NumberIn(AsUnsigned(argument), 16);
      if (directive.conversion == 'X') {
        for (char& c : digits) c = AsciiUpper(c);
      }
      AppendPadded(digits, directive, true, out);
      return true;
    }
    case 'c': {
      if (!isNumber || AsUnsigned(argument) > 0x10FFFF) return false;
      std::string character;
      AppendWtf8(static_cast<uint32_t>(AsUnsigned(argument)), &character);
      AppendPadded(character, directive, false, out);
      return true;
    }
    default:
      return false;
  }
}

}  // namespace

ZelString::ZelString(const char* utf8) {
  if (utf8 != nullptr) text_ = FromBytes(utf8);
}

ZelString::ZelString(std::string_view utf8) : text_(FromBytes(utf8)) {}

ZelString::ZelString(std::string&& utf8)
    : text_(IsUtf8(utf8) ? std::move(utf8) : FromBytes(utf8)) {}

ZelString::ZelString(const TCHAR* wide) {
  SetToTCHAR(wide);
}

ZelString::ZelString(std::basic_string_view<TCHAR> wide) : text_(FromUtf16(wide)) {}

ZelString::ZelString(ZelString&& other) noexcept
    : text_(std::move(other.text_)), wide_(other.wide_.exchange(nullptr)) {
  other.text_.clear();
}

ZelString& ZelString::operator=(const ZelString& other) {
  if (this == &other) return *this;
  text_ = other.text_;
  DropWide();
  return *this;
}

ZelString& ZelString::operator=(ZelString&& other) noexcept {
  if (this == &other) return *this;
  text_ = std::move(other.text_);
  other.text_.clear();
  DropWide();
  wide_ = other.wide_.exchange(nullptr);
  return *this;
}

ZelString::~ZelString() {
  DropWide();
}

bool ZelString::Assign(const void* bytes, size_t byteCount, int encoding) {
  const auto* data = static_cast<const char*>(bytes);
  if (encoding == kEncodingUtf8) {
    text_ = FromBytes(std::string_view(data, byteCount));
    DropWide();
    return true;
  }
  if (encoding != kEncodingUtf16 || byteCount % 2 != 0) return false;
  std::u16string units(byteCount / 2, u'\0');
  for (size_t i = 0; i < units.size(); ++i) {
    units[i] = static_cast<char16_t>(static_cast<unsigned char>(data[2 * i]) |
                                     static_cast<unsigned char>(data[2 * i + 1]) << 8);
  }
  text_ = FromUtf16(std::u16string_view(units));
  DropWide();
  return true;
}

void ZelString::SetToTCHAR(const TCHAR* wide) {
  text_ = wide == nullptr ? std::string() : FromUtf16(std::basic_string_view<TCHAR>(wide));
  DropWide();
}

const char* ZelString::GetString(int encoding) const {
  if (encoding == kEncodingUtf8) return text_.c_str();
  if (encoding != kEncodingUtf16) return nullptr;
  // Both platforms are little-endian, so the wide view already has the required byte order.
  return reinterpret_cast<const char*>(Wide().c_str());
}

size_t ZelString::GetSize(int encoding) const {
  if (encoding == kEncodingUtf8) return text_.size();
  return encoding == kEncodingUtf16 ? Wide().size() * sizeof(TCHAR) : 0;
}

const TCHAR* ZelString::GetTCHAR() const {
  return Wide().c_str();
}

const ZelString::WideText& ZelString::Wide() const {
  if (const WideText* made = wide_.load(std::memory_order_acquire)) return *made;
  auto* fresh = new WideText(ToUtf16(text_));
  WideText* expected = nullptr;
  if (wide_.compare_exchange_strong(expected, fresh, std::memory_order_acq_rel)) return *fresh;
  delete fresh;  // another reader was first
  return *expected;
}

void ZelString::DropWide() {
  delete wide_.exchange(nullptr);
}

void ZelString::Clear() {
  text_.clear();
  DropWide();
}

ZelString& ZelString::operator+=(const ZelString& tail) {
  return Append(tail);
}

ZelString& ZelString::Append(const ZelString& text, size_t count) {
  if (&text == this) return Append(ZelString(text), count);
  for (size_t i = 0; i < count; ++i) AppendJoining(text.text_, &text_);
  DropWide();
  return *this;
}

ZelString& ZelString::Append(char character, size_t count) {
  return Append(ZelString(std::string_view(&character, 1)), count);
}

void ZelString::Remove(size_t position, size_t count) {
  if (position >= text_.size()) return;
  text_.erase(position, count);
  text_ = FromBytes(text_);
  DropWide();
}

ZelString ZelString::SubString(size_t position, size_t count) const {
  if (position >= text_.size()) return {};
  return ZelString(std::string_view(text_).substr(position, count));
}

size_t ZelString::Find(const ZelString& text, size_t from) const {
  return text_.find(text.text_, from);
}

size_t ZelString::ReplaceAll(const ZelString& from, const ZelString& to, bool ignoreCase) {
  if (from.IsEmpty()) return 0;
  const std::string haystack = ignoreCase ? AsciiLower(text_) : text_;
  const std::string needle = ignoreCase ? AsciiLower(from.text_) : from.text_;
  const std::string replacement = to.text_;

  std::string result;
  size_t count = 0;
  size_t copied = 0;
  for (size_t hit = haystack.find(needle); hit != std::string::npos;
       hit = haystack.find(needle, copied)) {
    result.append(text_, copied, hit - copied).append(replacement);
    copied = hit + needle.size();
    ++count;
  }
  if (count == 0) return 0;
  result.append(text_, copied);
  text_ = FromBytes(result);
  DropWide();
  return count;
}

bool ZelString::StartsWith(const char* prefix, bool ignoreCase) const {
  const std::string_view start(prefix);
  return text_.size() >= start.size() &&
         EqualAscii(std::string_view(text_).substr(0, start.size()), start, ignoreCase);
}

bool ZelString::EndsWith(const char* suffix, bool ignoreCase) const {
  const std::string_view end(suffix);
  return text_.size() >= end.size() &&
         EqualAscii(std::string_view(text_).substr(text_.size() - end.size()), end, ignoreCase);
}

uint32_t ZelString::ToUL(int base) const {
  const NumberText number = FindNumber(text_, base);
  const auto value = ParseClamped<uint32_t>(number, std::numeric_limits<uint32_t>::max());
  return number.isNegative ? 0 : value;
}

int64_t ZelString::ToInt64(int base) const {
  const NumberText number = FindNumber(text_, base);
  constexpr uint64_t kLargest = std::numeric_limits<int64_t>::max();
  const uint64_t size = ParseClamped<uint64_t>(number, std::numeric_limits<uint64_t>::max());
  if (!number.isNegative) return static_cast<int64_t>(std::min(size, kLargest));
  if (size > kLargest) return std::numeric_limits<int64_t>::min();
  return -static_cast<int64_t>(size);
}

ZelString ZelString::FromInt64(int64_t value) {
  return ZelString(std::to_string(value));
}

ZelString& ZelString::FormatList(const ZelString& format,
                                 std::initializer_list<ZelFormatArgument> arguments) {
  std::string result;
  const ZelFormatArgument* next = arguments.begin();
  std::string_view rest = format.text_;
  while (!rest.empty()) {
    const size_t literal = std::min(rest.find('%'), rest.size());
    AppendJoining(rest.substr(0, literal), &result);
    rest.remove_prefix(literal);
    if (rest.empty()) break;

    const Directive directive = ParseDirective(rest);
    if (directive.length == 0) {
      result.push_back('%');
      rest.remove_prefix(1);
      continue;
    }
    const std::string_view source = rest.substr(0, directive.length);
    rest.remove_prefix(directive.length);
    if (directive.conversion == '%') {
      result.push_back('%');
    } else if (next == arguments.end()) {
      AppendJoining(source, &result);
    } else if (!AppendConverted(directive, *next++, &result)) {
      AppendJoining(source, &result);
    }
  }
  text_ = std::move(result);
  DropWide();
  return *this;
}

std::string ZelString::TakeUtf8() && {
  DropWide();
  return std::exchange(text_, {});
}

bool ZelString::IsTextUTF8(const char* bytes, uint32_t byteCount) {
  return byteCount == 0 || IsUtf8(std::string_view(bytes, byteCount));
}

ZelString operator+(const ZelString& a, const ZelString& b) {
  ZelString sum = a;
  sum += b;
  return sum;
}
