#include "agent/libZelCore/json_codec.h"

#include <array>
#include <boost/json/basic_parser_impl.hpp>
// The one place that holds the library's own code.
#include <boost/json/src.hpp>
#include <charconv>
#include <limits>
#include <new>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

namespace json = boost::json;

// A lone surrogate cannot stand in JSON text. It travels as U+FDD0, a code point that no text needs
// (Unicode, "Noncharacters"), followed by its four hexadecimal digits.
constexpr std::string_view kEscape = "\xEF\xB7\x90";
constexpr uint32_t kEscapeCodePoint = 0xFDD0;
constexpr size_t kEscapeDigits = 4;
constexpr size_t kSurrogateBytes = 3;

constexpr size_t kLongestPlace = 200;  // a hostile key must not fill the reply

constexpr bool IsSurrogate(uint32_t codePoint) {
  return codePoint >= 0xD800 && codePoint <= 0xDFFF;
}

/// The number of four lower-case hexadecimal digits, or a value that is no escape.
uint32_t ParseEscapeDigits(std::string_view digits) {
  if (digits.size() < kEscapeDigits) return 0;
  uint32_t number = 0;
  for (const char c : digits.substr(0, kEscapeDigits)) {
    const bool isDigit = c >= '0' && c <= '9';
    const bool isLetter = c >= 'a' && c <= 'f';
    if (!isDigit && !isLetter) return 0;
    number = number * 16 + static_cast<uint32_t>(isDigit ? c - '0' : c - 'a' + 10);
  }
  return number;
}

/// Undoes the escape for lone surrogates in place; false when an escape is malformed.
bool Unescape(std::string* text) {
  size_t read = text->find(kEscape);
  if (read == std::string::npos) return true;

  size_t write = read;
  const std::string_view source = *text;
  char* target = text->data();
  while (read < source.size()) {
    if (source.compare(read, kEscape.size(), kEscape) != 0) {
      target[write++] = source[read++];
      continue;
    }
    const uint32_t number = ParseEscapeDigits(source.substr(read + kEscape.size()));
    if (!IsSurrogate(number) && number != kEscapeCodePoint) return false;
    target[write++] = static_cast<char>(0xE0 | (number >> 12));
    target[write++] = static_cast<char>(0x80 | ((number >> 6) & 0x3F));
    target[write++] = static_cast<char>(0x80 | (number & 0x3F));
    read += kEscape.size() + kEscapeDigits;
  }
  text->resize(write);
  return true;
}

/// Builds the container while the text is being read.
class ContainerBuilder {
 public:
  static constexpr size_t max_object_size = std::numeric_limits<size_t>::max();
  static constexpr size_t max_array_size = std::numeric_limits<size_t>::max();
  static constexpr size_t max_key_size = std::numeric_limits<size_t>::max();
  static constexpr size_t max_string_size = std::numeric_limits<size_t>::max();

  ZelContainer TakeContainer() { return std::move(result_); }
  const std::string& Error() const { return error_; }
  /// Where the parser stands, for messages: `key "A.B[3]"`, or empty outside any key.
  std::string Place() const;

  bool on_document_begin(json::error_code&) { return true; }
  bool on_document_end(json::error_code&) { return true; }
  bool on_object_begin(json::error_code& ec);
  bool on_object_end(size_t, json::error_code& ec);
  bool on_array_begin(json::error_code& ec);
  bool on_array_end(size_t, json::error_code& ec);
  bool on_key_part(json::string_view part, size_t, json::error_code&) { return Collect(part); }
  bool on_key(json::string_view part, size_t, json::error_code& ec);
  bool on_string_part(json::string_view part, size_t, json::error_code&) { return Collect(part); }
  bool on_string(json::string_view part, size_t, json::error_code& ec);
  bool on_number_part(json::string_view, json::error_code&) { return true; }
  bool on_int64(int64_t value, json::string_view, json::error_code& ec);
  bool on_uint64(uint64_t, json::string_view, json::error_code& ec);
  bool on_double(double, json::string_view, json::error_code& ec);
  bool on_bool(bool value, json::error_code& ec);
  bool on_null(json::error_code& ec);
  bool on_comment_part(json::string_view, json::error_code&) { return true; }
  bool on_comment(json::string_view, json::error_code&) { return true; }

 private:
  /// One object being read.
  struct Frame {
    ZelContainer container;
    ZelString key;  ///< the current one; empty before the first
    bool hasKey = false;
    bool inList = false;
    uint32_t listCount = 0;
    ZelValueType listType = ZelValueType::kString;
    std::vector<int64_t> integers;  ///< of the current list: its width shows at its end
    std::unordered_set<std::string> emptyLists;  ///< keys that were given but are absent
  };

  static bool IsInt32(int64_t value) {
    return value >= std::numeric_limits<int32_t>::min() &&
           value <= std::numeric_limits<int32_t>::max();
  }

  bool Collect(json::string_view part) {
    text_.append(part.data(), part.size());
    return true;
  }
  bool BeginValue(ZelValueType type, json::error_code& ec);
  uint32_t NextIndex() {
    Frame& frame = frames_.back();
    return frame.inList ? frame.listCount++ : kNoIndex;
  }
  bool Fail(std::string message, json::error_code& ec);
  static void StoreIntegers(Frame* frame);

  std::vector<Frame> frames_;
  std::string text_;
  ZelContainer result_;
  std::string error_;
};

std::string ContainerBuilder::Place() const {
  std::string path;
  for (const Frame& frame : frames_) {
    if (!frame.hasKey) continue;
    if (!path.empty()) path += '.';
    path += frame.key.Utf8();
    if (frame.inList) path += "[" + std::to_string(frame.listCount) + "]";
  }
  if (path.size() > kLongestPlace) path = path.substr(0, kLongestPlace) + "...";
  return path.empty() ? path : "key \"" + path + "\"";
}

bool ContainerBuilder::Fail(std::string message, json::error_code& ec) {
  const std::string place = Place();
  error_ = place.empty() ? std::move(message) : place + ": " + message;
  ec = json::error::syntax;
  return false;
}

/// Checks that a value of this type may stand here.
bool ContainerBuilder::BeginValue(ZelValueType type, json::error_code& ec) {
  if (frames_.empty()) return Fail("the text is not a JSON object", ec);
  Frame& frame = frames_.back();
  if (!frame.inList) return true;
  if (frame.listCount > 0 && frame.listType != type) {
    return Fail("the values of a list must be of one type", ec);
  }
  frame.listType = type;
  return true;
}

bool ContainerBuilder::on_object_begin(json::error_code& ec) {
  if (!frames_.empty() && !BeginValue(ZelValueType::kContainer, ec)) return false;
  frames_.emplace_back();
  return true;
}

bool ContainerBuilder::on_object_end(size_t, json::error_code&) {
  ZelContainer finished = std::move(frames_.back().container);
  frames_.pop_back();
  if (frames_.empty()) {
    result_ = std::move(finished);
    return true;
  }
  const uint32_t index = NextIndex();
  frames_.back().container.SetContainer(frames_.back().key, finished, index);
  return true;
}

bool ContainerBuilder::on_array_begin(json::error_code& ec) {
  if (frames_.empty()) return Fail("the text is not a JSON object", ec);
  Frame& frame = frames_.back();
  if (frame.inList) return Fail("a list cannot hold lists", ec);
  frame.inList = true;
  frame.listCount = 0;
  return true;
}

bool ContainerBuilder::on_array_end(size_t, json::error_code&) {
  Frame& frame = frames_.back();
  if (frame.listCount == 0) frame.emptyLists.emplace(frame.key.Utf8());
  if (!frame.integers.empty()) StoreIntegers(&frame);
  frame.inList = false;
  return true;
}

void ContainerBuilder::StoreIntegers(Frame* frame) {
  bool isWide = false;
  for (const int64_t value : frame->integers) isWide = isWide || !IsInt32(value);
  uint32_t index = 0;
  for (const int64_t value : frame->integers) {
    if (isWide) {
      frame->container.SetInt64(frame->key, value, index++);
    } else {
      frame->container.SetInt32(frame->key, static_cast<int32_t>(value), index++);
    }
  }
  frame->integers = {};
}

bool ContainerBuilder::on_key(json::string_view part, size_t, json::error_code& ec) {
  Collect(part);
  Frame& frame = frames_.back();
  const bool isValid = Unescape(&text_);
  frame.key = ZelString(text_);
  frame.hasKey = true;
  text_.clear();
  if (!isValid) return Fail("U+FDD0 in the key is not followed by a surrogate's digits", ec);

  const bool isTwice =
      frame.container.CountValues(frame.key) > 0 ||
      (!frame.emptyLists.empty() && frame.emptyLists.contains(std::string(frame.key.Utf8())));
  return isTwice ? Fail("the key is given twice", ec) : true;
}

bool ContainerBuilder::on_string(json::string_view part, size_t, json::error_code& ec) {
  if (!BeginValue(ZelValueType::kString, ec)) return false;
  Collect(part);
  if (!Unescape(&text_)) return Fail("U+FDD0 is not followed by a surrogate's digits", ec);
  const uint32_t index = NextIndex();
  frames_.back().container.SetString(frames_.back().key, ZelString(text_), index);
  text_.clear();
  return true;
}

bool ContainerBuilder::on_int64(int64_t value, json::string_view, json::error_code& ec) {
  if (!BeginValue(ZelValueType::kInt64, ec)) return false;
  Frame& frame = frames_.back();
  if (frame.inList) {
    frame.integers.push_back(value);
    ++frame.listCount;
  } else if (IsInt32(value)) {
    frame.container.SetInt32(frame.key, static_cast<int32_t>(value), kNoIndex);
  } else {
    frame.container.SetInt64(frame.key, value, kNoIndex);
  }
  return true;
}

bool ContainerBuilder::on_uint64(uint64_t, json::string_view, json::error_code& ec) {
  return Fail("the number does not fit into 64 bits", ec);
}

bool ContainerBuilder::on_double(double, json::string_view, json::error_code& ec) {
  return Fail("the number is not an integer of 64 bits", ec);
}

bool ContainerBuilder::on_bool(bool value, json::error_code& ec) {
  if (!BeginValue(ZelValueType::kBool, ec)) return false;
  const uint32_t index = NextIndex();
  frames_.back().container.SetBool(frames_.back().key, value, index);
  return true;
}

bool ContainerBuilder::on_null(json::error_code& ec) {
  return Fail("null is not a value", ec);
}

JsonDecodeResult Failure(std::string error) {
  JsonDecodeResult result;
  result.error = std::move(error);
  return result;
}

std::string DescribeSyntaxError(const json::error_code& ec, const std::string& place,
                                size_t position) {
  if (ec == json::error::too_deep) {
    return place + ": nested deeper than " + std::to_string(kMaxJsonDepth) + " levels";
  }
  const std::string where = "malformed JSON at byte " + std::to_string(position);
  return where + (place.empty() ? "" : ", near " + place) + ": " + ec.message();
}

constexpr std::string_view kHexDigits = "0123456789abcdef";

/// Bytes that may need more than themselves: RFC 8259 section 7, and the first bytes of surrogates
/// and of U+FDD0.
constexpr std::array<bool, 256> kNeedsLook = [] {
  std::array<bool, 256> table{};
  for (size_t i = 0; i < 0x20; ++i) table[i] = true;
  table['"'] = table['\\'] = table[0xED] = table[0xEF] = true;
  return table;
}();

constexpr size_t kLargeTextBytes = 4096;
constexpr size_t kBlockBytes = 32;

/// Whether `kNeedsLook` names none of the next `kBlockBytes` bytes. Written so that the compiler
/// compares many of them at once.
bool IsPlainBlock(const char* bytes) {
  unsigned char special = 0;
  for (size_t i = 0; i < kBlockBytes; ++i) {
    const auto byte = static_cast<unsigned char>(bytes[i]);
    special |= static_cast<unsigned char>((byte < 0x20) | (byte == '"') | (byte == '\\') |
                                          (byte == 0xED) | (byte == 0xEF));
  }
  return special == 0;
}

/// The position of the first byte at or after `from` that `kNeedsLook` names, or the text's size.
size_t NextSpecial(std::string_view text, size_t from) {
  while (text.size() - from >= kBlockBytes && IsPlainBlock(text.data() + from)) from += kBlockBytes;
  while (from < text.size() && !kNeedsLook[static_cast<unsigned char>(text[from])]) ++from;
  return from;
}

/// Appends the JSON form of the character at the start of `text`, which `kNeedsLook` named; returns
/// how many bytes of `text` that was.
size_t AppendSpecial(std::string_view text, std::string* out) {
  const auto byte = static_cast<unsigned char>(text[0]);
  if (byte >= 0x80) {
    const bool isSurrogate = byte == 0xED && text.size() >= kSurrogateBytes &&
                             static_cast<unsigned char>(text[1]) >= 0xA0;
    if (!isSurrogate && !text.starts_with(kEscape)) {
      out->push_back(text[0]);
      return 1;
    }
    const auto second = static_cast<unsigned char>(text[1]);
    const auto third = static_cast<unsigned char>(text[2]);
    out->append(kEscape);
    for (const unsigned digit : {byte & 0xFU, (second >> 2) & 0xFU,
                                 ((second & 3U) << 2) | ((third >> 4) & 3U), third & 0xFU}) {
      out->push_back(kHexDigits[digit]);
    }
    return kSurrogateBytes;
  }
  switch (byte) {
    case '"':
      out->append("\\\"");
      break;
    case '\\':
      out->append("\\\\");
      break;
    case '\b':
      out->append("\\b");
      break;
    case '\f':
      out->append("\\f");
      break;
    case '\n':
      out->append("\\n");
      break;
    case '\r':
      out->append("\\r");
      break;
    case '\t':
      out->append("\\t");
      break;
    default:
      out->append("\\u00");
      out->push_back(kHexDigits[byte >> 4]);
      out->push_back(kHexDigits[byte & 0xF]);
  }
  return 1;
}

void AppendInteger(int64_t value, std::string* out) {
  char digits[24];
  const auto end = std::to_chars(digits, digits + sizeof digits, value).ptr;
  out->append(digits, end);
}

void EncodeValue(const ZelContainer::Entry& entry, size_t index, std::string* out) {
  switch (entry.Type()) {
    case ZelValueType::kString:
      EncodeString(entry.StringAt(index), out);
      break;
    case ZelValueType::kInt32:
    case ZelValueType::kInt64:
      AppendInteger(entry.IntegerAt(index), out);
      break;
    case ZelValueType::kBool:
      out->append(entry.BoolAt(index) ? "true" : "false");
      break;
    case ZelValueType::kContainer:
      EncodeContainer(entry.ContainerAt(index), out);
      break;
  }
}

void EncodeEntry(const ZelContainer::Entry& entry, std::string* out) {
  EncodeString(entry.Key(), out);
  out->push_back(':');
  if (!entry.IsList()) return EncodeValue(entry, 0, out);

  out->push_back('[');
  for (size_t i = 0; i < entry.Count(); ++i) {
    if (i > 0) out->push_back(',');
    EncodeValue(entry, i, out);
  }
  out->push_back(']');
}

}  // namespace

JsonDecodeResult DecodeContainer(std::string_view text) {
  json::parse_options options;
  options.max_depth = kMaxJsonDepth;
  json::basic_parser<ContainerBuilder> parser(options);
  json::error_code ec;
  const size_t used = parser.write_some(false, text.data(), text.size(), ec);

  ContainerBuilder& builder = parser.handler();
  if (!builder.Error().empty()) return Failure(builder.Error());
  if (ec) return Failure(DescribeSyntaxError(ec, builder.Place(), used));
  if (used < text.size()) {
    return Failure("malformed JSON at byte " + std::to_string(used) + ": text after the object");
  }
  JsonDecodeResult result;
  result.container = builder.TakeContainer();
  return result;
}

void EncodeString(std::string_view wtf8, std::string* json) {
  // File contents: without room the quotation mark at the end would double the memory.
  if (wtf8.size() > kLargeTextBytes) json->reserve(json->size() + wtf8.size() + kLargeTextBytes);
  json->push_back('"');
  size_t plain = 0;  // start of the bytes that stand for themselves
  for (size_t i = NextSpecial(wtf8, 0); i < wtf8.size(); i = NextSpecial(wtf8, plain)) {
    json->append(wtf8, plain, i - plain);
    plain = i + AppendSpecial(wtf8.substr(i), json);
  }
  json->append(wtf8, plain);
  json->push_back('"');
}

void EncodeContainer(const ZelContainer& container, std::string* json) {
  json->push_back('{');
  for (size_t i = 0; i < container.CountKeys(); ++i) {
    if (i > 0) json->push_back(',');
    EncodeEntry(container.EntryAt(i), json);
  }
  json->push_back('}');
}
