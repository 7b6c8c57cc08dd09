#include "agent/windows_api/code_page.h"

#include <iconv.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <climits>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "windows_api.h"

namespace {

constexpr unsigned kDefaultCodePage = 1252;
constexpr char16_t kReplacement = 0xFFFD;
constexpr char kDefaultChar = '?';

std::atomic<unsigned> systemCodePage{kDefaultCodePage};

using WideView = std::u16string_view;

/// Takes what a conversion makes, or only counts it when there is no room at all.
template <typename Unit>
class Output {
 public:
  Output(Unit* target, size_t capacity) : target_(target), capacity_(capacity) {}

  void Put(Unit unit) {
    if (count_ < capacity_) target_[count_] = unit;
    ++count_;
  }

  /// What the call returns: 0 when not everything had room, or could be counted.
  int Result() const {
    if (count_ > INT_MAX || (capacity_ > 0 && count_ > capacity_)) return 0;
    return static_cast<int>(count_);
  }

 private:
  Unit* target_;
  size_t capacity_;
  size_t count_ = 0;
};

using WideOutput = Output<WCHAR>;
using ByteOutput = Output<char>;

/// The byte for what a code page lacks, and whether it was needed.
struct Substitute {
  char byte = kDefaultChar;
  bool wasUsed = false;

  void Put(ByteOutput* output) {
    output->Put(byte);
    wasUsed = true;
  }
};

bool IsHighSurrogate(char16_t unit) {
  return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLowSurrogate(char16_t unit) {
  return unit >= 0xDC00 && unit <= 0xDFFF;
}

bool IsControl(unsigned value) {
  return value >= 0x80 && value <= 0x9F;
}

// What a byte becomes that the code page gives no meaning.
char16_t UndefinedByte(unsigned char byte) {
  return IsControl(byte) ? char16_t{byte} : kReplacement;
}

// What a character becomes that the code page lacks.
void PutUndefined(char16_t unit, Substitute* substitute, ByteOutput* output) {
  if (IsControl(unit)) return output->Put(static_cast<char>(unit));
  substitute->Put(output);
}

/// An open conversion of the system.
class Iconv {
 public:
  Iconv(const std::string& to, const std::string& from)
      : handle_(iconv_open(to.c_str(), from.c_str())) {}
  ~Iconv() {
    if (*this) iconv_close(handle_);
  }
  Iconv(const Iconv&) = delete;
  Iconv& operator=(const Iconv&) = delete;

  explicit operator bool() const { return handle_ != reinterpret_cast<iconv_t>(-1); }

  void Reset() { iconv(handle_, nullptr, nullptr, nullptr, nullptr); }

  /// 0, or the reason why it stopped before the end of the input.
  int Convert(std::string_view* input, char** output, size_t* room) {
    // iconv does not write to its input.
    char* bytes = const_cast<char*>(input->data());
    size_t left = input->size();
    const size_t converted = iconv(handle_, &bytes, &left, output, room);
    const int error = converted == static_cast<size_t>(-1) ? errno : 0;
    input->remove_prefix(input->size() - left);
    return error;
  }

  /// Writes what the conversion holds back (it may wait for a mark to join).
  void Flush(char** output, size_t* room) { iconv(handle_, nullptr, nullptr, output, room); }

 private:
  iconv_t handle_;
};

constexpr const char* kWideName = "UTF-16LE";
static_assert(std::endian::native == std::endian::little);

// The system's name of the code page; empty when it has none.
std::string SystemNameOf(unsigned codePage) {
  const std::string number = std::to_string(codePage);
  std::vector<std::string> names = {"CP" + number, "WINDOWS-" + number};
  if (codePage >= 28591 && codePage <= 28606) {
    names = {"ISO-8859-" + std::to_string(codePage - 28590)};
  } else if (codePage == 20127) {
    names = {"ASCII"};
  } else if (codePage == 20866 || codePage == 21866) {
    names = {codePage == 20866 ? "KOI8-R" : "KOI8-U"};
  } else if (codePage == 20932 || codePage == 51932) {
    names = {"EUC-JP"};
  } else if (codePage == 51949) {
    names = {"EUC-KR"};
  } else if (codePage == 54936) {
    names = {"GB18030"};
  }
  for (const std::string& name : names) {
    if (Iconv(kWideName, name) && Iconv(name, kWideName)) return name;
  }
  return {};
}

/// A code page other than UTF-8.
class CodePage {
 public:
  explicit CodePage(std::string name) : name_(std::move(name)) { ReadTable(); }

  void ToWide(std::string_view bytes, WideOutput* output) const {
    if (!isSingleByte_) return ToWideByIconv(bytes, output);
    for (const char byte : bytes) output->Put(wideOf_[static_cast<unsigned char>(byte)]);
  }

  void ToBytes(WideView wide, Substitute* substitute, ByteOutput* output) const {
    if (!isSingleByte_) return ToBytesByIconv(wide, substitute, output);
    for (const char16_t unit : wide) {
      const int16_t byte = byteOf_[unit];
      if (byte >= 0) {
        output->Put(static_cast<char>(byte));
      } else {
        PutUndefined(unit, substitute, output);
      }
    }
  }

 private:
  static constexpr size_t kBufferBytes = 4096;
  static constexpr size_t kLongestRun = 1024;
  static constexpr char16_t kTagSurrogate = 0xDB40;

  // Asks for each byte on its own. A byte that waits for another one makes it a multi-byte page.
  void ReadTable() {
    Iconv conversion(kWideName, name_);
    for (unsigned byte = 0; byte < wideOf_.size(); ++byte) {
      wideOf_[byte] = UndefinedByte(static_cast<unsigned char>(byte));
      const char value = static_cast<char>(byte);
      std::string_view input(&value, 1);
      std::array<char16_t, 4> wide{};
      char* output = reinterpret_cast<char*>(wide.data());
      size_t room = sizeof(wide);
      const int error = conversion.Convert(&input, &output, &room);
      if (error == 0) conversion.Flush(&output, &room);
      conversion.Reset();
      if (error == EINVAL) return;
      if (error == 0 && room == sizeof(wide) - sizeof(char16_t)) wideOf_[byte] = wide[0];
    }
    byteOf_.assign(size_t{UINT16_MAX} + 1, -1);
    // Downwards: where two bytes have the same meaning, the first one counts.
    for (size_t byte = wideOf_.size(); byte-- > 0;) {
      if (wideOf_[byte] != kReplacement) byteOf_[wideOf_[byte]] = static_cast<int16_t>(byte);
    }
    isSingleByte_ = true;
  }

  void ToWideByIconv(std::string_view bytes, WideOutput* output) const {
    Iconv conversion(kWideName, name_);
    std::array<char16_t, kBufferBytes / sizeof(char16_t)> buffer;
    while (!bytes.empty()) {
      char* end = reinterpret_cast<char*>(buffer.data());
      size_t room = kBufferBytes;
      const int error = conversion.Convert(&bytes, &end, &room);
      if (error == 0) conversion.Flush(&end, &room);
      const size_t count = (kBufferBytes - room) / sizeof(char16_t);
      for (size_t i = 0; i < count; ++i) output->Put(buffer[i]);
      if (error == 0 || error == E2BIG || bytes.empty()) continue;
      // A byte without meaning, or the first one of a character that is not all there.
      output->Put(UndefinedByte(static_cast<unsigned char>(bytes[0])));
      bytes.remove_prefix(1);
      conversion.Reset();
    }
  }

  void ToBytesByIconv(WideView wide, Substitute* substitute, ByteOutput* output) const {
    Iconv conversion(name_, kWideName);
    // A failure costs as much as the text that was handed over: texts with many of them go in
    // short runs.
    size_t limit = kLongestRun;
    while (!wide.empty()) {
      const WideView run = wide.substr(0, RunLength(wide, limit));
      const size_t count = PutRun(&conversion, run, output);
      wide.remove_prefix(count);
      limit = count == run.size() ? std::min(limit * 2, kLongestRun) : 1;
      if (wide.empty() || (count == run.size() && count > 0)) continue;
      PutUndefined(wide[0], substitute, output);
      wide.remove_prefix(1);
    }
  }

  // Up to the limit, without a part of a pair at its end. The system's conversions drop the tag
  // characters of plane 14 in silence: they are kept away from it, and so count as lacking.
  static size_t RunLength(WideView wide, size_t limit) {
    size_t length = std::min(wide.substr(0, limit).find(kTagSurrogate), limit);
    length = std::min(length, wide.size());
    const bool splitsPair = length > 0 && length < wide.size() &&
                            IsHighSurrogate(wide[length - 1]) && IsLowSurrogate(wide[length]);
    return splitsPair ? length + 1 : length;
  }

  // Returns the number of units that were converted: all of them, or those before the first one
  // that cannot be.
  static size_t PutRun(Iconv* conversion, WideView run, ByteOutput* output) {
    std::string_view left(reinterpret_cast<const char*>(run.data()), run.size() * sizeof(char16_t));
    std::array<char, kBufferBytes> buffer;
    int error = E2BIG;
    while (error == E2BIG) {
      char* end = buffer.data();
      size_t room = buffer.size();
      error = conversion->Convert(&left, &end, &room);
      if (error == 0) conversion->Flush(&end, &room);
      for (const char* byte = buffer.data(); byte != end; ++byte) output->Put(*byte);
    }
    if (error != 0) conversion->Reset();
    return run.size() - left.size() / sizeof(char16_t);
  }

  std::string name_;
  bool isSingleByte_ = false;
  std::array<char16_t, 256> wideOf_{};
  std::vector<int16_t> byteOf_;
};

/// Null when the system has no such code page. Those that it has are kept: their number is small.
std::shared_ptr<const CodePage> FindCodePage(unsigned codePage) {
  static std::mutex mutex;
  static std::map<unsigned, std::shared_ptr<const CodePage>> known;
  const std::lock_guard lock(mutex);
  if (const auto found = known.find(codePage); found != known.end()) return found->second;
  const std::string name = SystemNameOf(codePage);
  if (name.empty()) return nullptr;
  return known[codePage] = std::make_shared<CodePage>(name);
}

unsigned Resolve(UINT codePage) {
  return codePage == CP_ACP ? systemCodePage.load() : codePage;
}

/// The character at the start of `bytes`, or nothing where there is no whole and valid one.
/// `*length` is what was read: of an invalid one, the bytes that could have begun a valid one.
std::optional<char32_t> DecodeUtf8(std::string_view bytes, size_t* length) {
  const auto byteAt = [&](size_t i) { return static_cast<unsigned char>(bytes[i]); };
  const unsigned first = byteAt(0);
  *length = 1;
  if (first < 0x80) return first;
  if (first < 0xC2 || first > 0xF4) return std::nullopt;

  const size_t size = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
  char32_t value = first & (0xFFu >> (size + 1));
  // The second byte also rules out overlong forms, surrogates and what lies past U+10FFFF.
  unsigned lowest = first == 0xE0 ? 0xA0 : first == 0xF0 ? 0x90 : 0x80;
  unsigned highest = first == 0xED ? 0x9F : first == 0xF4 ? 0x8F : 0xBF;
  for (; *length < size; ++*length) {
    if (*length == bytes.size()) return std::nullopt;
    const unsigned next = byteAt(*length);
    if (next < lowest || next > highest) return std::nullopt;
    value = value << 6 | (next & 0x3F);
    lowest = 0x80;
    highest = 0xBF;
  }
  return value;
}

void Utf8ToWide(std::string_view bytes, WideOutput* output) {
  while (!bytes.empty()) {
    size_t length = 0;
    const char32_t value = DecodeUtf8(bytes, &length).value_or(kReplacement);
    bytes.remove_prefix(length);
    if (value < 0x10000) {
      output->Put(static_cast<char16_t>(value));
    } else {
      output->Put(static_cast<char16_t>(0xD800 + ((value - 0x10000) >> 10)));
      output->Put(static_cast<char16_t>(0xDC00 + (value & 0x3FF)));
    }
  }
}

char32_t TakeCharacter(WideView* wide) {
  const char16_t unit = wide->front();
  wide->remove_prefix(1);
  if (IsHighSurrogate(unit) && !wide->empty() && IsLowSurrogate(wide->front())) {
    const char32_t low = wide->front() & 0x3FFu;
    wide->remove_prefix(1);
    return 0x10000 + ((unit & 0x3FFu) << 10) + low;
  }
  return IsHighSurrogate(unit) || IsLowSurrogate(unit) ? kReplacement : unit;
}

void WideToUtf8(WideView wide, ByteOutput* output) {
  const auto put = [&](char32_t byte) { output->Put(static_cast<char>(byte)); };
  const auto putTail = [&](char32_t value, int shift) { put(0x80 | ((value >> shift) & 0x3F)); };
  while (!wide.empty()) {
    const char32_t value = TakeCharacter(&wide);
    if (value < 0x80) {
      put(value);
    } else if (value < 0x800) {
      put(0xC0 | value >> 6);
      putTail(value, 0);
    } else if (value < 0x10000) {
      put(0xE0 | value >> 12);
      putTail(value, 6);
      putTail(value, 0);
    } else {
      put(0xF0 | value >> 18);
      putTail(value, 12);
      putTail(value, 6);
      putTail(value, 0);
    }
  }
}

/// The text that a caller means by a pointer and a count, which is -1 for "up to and with the
/// terminator". Nothing when that is no text.
template <typename Unit>
std::optional<std::basic_string_view<Unit>> TextOf(const Unit* text, int count) {
  if (!text || count == 0 || count < -1) return std::nullopt;
  if (count > 0) return std::basic_string_view<Unit>(text, static_cast<size_t>(count));
  return std::basic_string_view<Unit>(text, std::char_traits<Unit>::length(text) + 1);
}

int ToWide(UINT codePage, std::string_view bytes, WideOutput output) {
  const unsigned resolved = Resolve(codePage);
  if (resolved == CP_UTF8) {
    Utf8ToWide(bytes, &output);
    return output.Result();
  }
  const std::shared_ptr<const CodePage> page = FindCodePage(resolved);
  if (!page) return 0;
  page->ToWide(bytes, &output);
  return output.Result();
}

int ToBytes(UINT codePage, WideView wide, Substitute* substitute, ByteOutput output) {
  const unsigned resolved = Resolve(codePage);
  if (resolved == CP_UTF8) {
    WideToUtf8(wide, &output);
    return output.Result();
  }
  const std::shared_ptr<const CodePage> page = FindCodePage(resolved);
  if (!page) return 0;
  page->ToBytes(wide, substitute, &output);
  return output.Result();
}

template <typename Unit>
bool IsRoom(const Unit* target, int size) {
  return size == 0 || (size > 0 && target);
}

}  // namespace

bool IsKnownCodePage(unsigned codePage) {
  return codePage == CP_UTF8 || FindCodePage(codePage) != nullptr;
}

bool SetSystemCodePage(unsigned codePage) {
  if (codePage == CP_ACP || !IsKnownCodePage(codePage)) return false;
  systemCodePage = codePage;
  return true;
}

int MultiByteToWideChar(UINT codePage, DWORD flags, const char* bytes, int byteCount, WCHAR* wide,
                        int wideSize) try {
  const auto text = TextOf(bytes, byteCount);
  if (flags != 0 || !text || !IsRoom(wide, wideSize)) return 0;
  return ToWide(codePage, *text, WideOutput(wide, static_cast<size_t>(wideSize)));
} catch (...) {
  return 0;
}

int WideCharToMultiByte(UINT codePage, DWORD flags, const WCHAR* wide, int wideCount, char* bytes,
                        int byteSize, const char* defaultChar, BOOL* usedDefault) try {
  const auto text = TextOf(wide, wideCount);
  if (flags != 0 || !text || !IsRoom(bytes, byteSize)) return 0;
  Substitute substitute;
  if (defaultChar) substitute.byte = *defaultChar;
  const int result =
      ToBytes(codePage, *text, &substitute, ByteOutput(bytes, static_cast<size_t>(byteSize)));
  if (usedDefault) *usedDefault = substitute.wasUsed ? 1 : 0;
  return result;
} catch (...) {
  return 0;
}
