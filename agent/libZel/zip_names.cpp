#include "agent/libZel/zip_names.h"

#include <algorithm>
#include <cstdint>

#include "agent/libZel/ascii.h"
#include "agent/libZel/device_names.h"
#include "agent/libZel/path_parts.h"
#include "agent/libZel/wtf8.h"

namespace zip_names {
namespace {

// Each part may make a directory, and no limit on entries counts those.
constexpr size_t kMaxNameBytes = 4096;
constexpr size_t kMaxParts = 255;

constexpr char16_t kUpperHalf437[] =
    u"\u00C7\u00FC\u00E9\u00E2\u00E4\u00E0\u00E5\u00E7\u00EA\u00EB\u00E8\u00EF\u00EE\u00EC\u00C4"
    u"\u00C5\u00C9\u00E6\u00C6\u00F4\u00F6\u00F2\u00FB\u00F9\u00FF\u00D6\u00DC\u00A2\u00A3\u00A5"
    u"\u20A7\u0192\u00E1\u00ED\u00F3\u00FA\u00F1\u00D1\u00AA\u00BA\u00BF\u2310\u00AC\u00BD\u00BC"
    u"\u00A1\u00AB\u00BB\u2591\u2592\u2593\u2502\u2524\u2561\u2562\u2556\u2555\u2563\u2551\u2557"
    u"\u255D\u255C\u255B\u2510\u2514\u2534\u252C\u251C\u2500\u253C\u255E\u255F\u255A\u2554\u2569"
    u"\u2566\u2560\u2550\u256C\u2567\u2568\u2564\u2565\u2559\u2558\u2552\u2553\u256B\u256A\u2518"
    u"\u250C\u2588\u2584\u258C\u2590\u2580\u03B1\u00DF\u0393\u03C0\u03A3\u03C3\u00B5\u03C4\u03A6"
    u"\u0398\u03A9\u03B4\u221E\u03C6\u03B5\u2229\u2261\u00B1\u2265\u2264\u2320\u2321\u00F7\u2248"
    u"\u00B0\u2219\u00B7\u221A\u207F\u00B2\u25A0\u00A0";
static_assert(sizeof kUpperHalf437 == 129 * sizeof(char16_t));

bool IsForbiddenOnWindows(char c) {
  constexpr std::string_view kForbidden = "<>:\"|?*";
  return static_cast<unsigned char>(c) < ' ' || kForbidden.find(c) != kForbidden.npos;
}

const char* ReasonToRefusePart(std::string_view part, bool asOnWindows) {
  if (part.empty()) return "its name holds an empty part";
  if (part == "..") return "its name holds a part \"..\"";
  if (!asOnWindows) return nullptr;
  if (part.find(':') != part.npos) return "its name holds a drive or names an alternate stream";
  if (std::any_of(part.begin(), part.end(), IsForbiddenOnWindows)) {
    return "its name holds a character that Windows cannot store";
  }
  if (part.ends_with('.') || part.ends_with(' ')) return "its name ends in a dot or blank";
  return IsDeviceName(part) ? "its name is reserved for a device" : nullptr;
}

uint32_t UpperLetter(uint32_t c) {
  const auto isIn = [c](uint32_t first, uint32_t last) { return c >= first && c <= last; };
  if (isIn('a', 'z')) return c - 32;
  if (c < 0xE0) return c;
  if (isIn(0xE0, 0xFE) && c != 0xF7) return c - 32;
  if (c == 0xFF) return 0x178;
  // Capitals and small letters by turns, the capitals being even here ...
  const bool hasEvenCapitals = isIn(0x100, 0x12F) || isIn(0x132, 0x137) || isIn(0x14A, 0x177) ||
                               isIn(0x1DE, 0x1EF) || isIn(0x1F8, 0x21F) || isIn(0x222, 0x233) ||
                               isIn(0x3D8, 0x3EF) || isIn(0x460, 0x481) || isIn(0x48A, 0x4BF) ||
                               isIn(0x4D0, 0x52F) || isIn(0x1E00, 0x1E95) || isIn(0x1EA0, 0x1EFF);
  if (hasEvenCapitals) return c & ~1u;
  // ... and odd here.
  const bool hasOddCapitals =
      isIn(0x139, 0x148) || isIn(0x179, 0x17E) || isIn(0x1CD, 0x1DC) || isIn(0x4C1, 0x4CE);
  if (hasOddCapitals) return (c & 1) == 0 ? c - 1 : c;
  if (c == 0x3AC) return 0x386;
  if (isIn(0x3AD, 0x3AF)) return c - 37;
  if (isIn(0x3B1, 0x3CB) && c != 0x3C2) return c - 32;
  if (c == 0x3CC) return 0x38C;
  if (isIn(0x3CD, 0x3CE)) return c - 63;
  if (isIn(0x430, 0x44F)) return c - 32;
  if (isIn(0x450, 0x45F)) return c - 80;
  if (c == 0x4CF) return 0x4C0;
  if (isIn(0x561, 0x586)) return c - 48;
  if (isIn(0xFF41, 0xFF5A)) return c - 32;
  return c;
}

bool EndsInDotPart(std::string_view name) {
  return name.ends_with('.') && (name.size() == 1 || IsPathSeparator(name[name.size() - 2]));
}

void AppendKey(std::string_view part, bool keepCase, std::string* key) {
  while (!part.empty()) {
    uint32_t codePoint = 0;
    const size_t length = std::max<size_t>(DecodeWtf8(part, &codePoint), 1);
    if (keepCase || codePoint == 0) {
      key->append(part.substr(0, length));
    } else {
      AppendWtf8(UpperLetter(codePoint), key);
    }
    part.remove_prefix(length);
  }
}

}  // namespace

ZelString FromCodePage437(std::string_view bytes) {
  std::string text;
  text.reserve(bytes.size());
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    AppendWtf8(byte < 0x80 ? byte : kUpperHalf437[byte - 0x80], &text);
  }
  return ZelString(std::move(text));
}

ZelString FromBytes(std::string_view bytes) {
  return IsUtf8(bytes) ? ZelString(bytes) : ZelString(EscapeBytes(bytes));
}

std::vector<std::string> Split(std::string_view name) {
  if (EndsInSeparator(name)) name.remove_suffix(1);
  std::vector<std::string> parts;
  for (size_t from = 0; from <= name.size();) {
    const size_t end = std::min(name.find_first_of("/\\", from), name.size());
    const std::string_view part = name.substr(from, end - from);
    if (part != ".") parts.emplace_back(part);
    from = end + 1;
  }
  return parts;
}

bool EndsInSeparator(std::string_view name) {
  return !name.empty() && IsPathSeparator(name.back());
}

bool IsOfDirectory(std::string_view name) {
  return EndsInSeparator(name) || EndsInDotPart(name);
}

const char* ReasonToRefuse(std::string_view name, bool asOnWindows) {
  if (name.empty()) return "it has no name";
  if (name.find('\0') != name.npos) return "its name holds a NUL character";
  if (IsPathSeparator(name[0])) return "its name starts at a root";
  if (name.size() > kMaxNameBytes) return "its name is too long";
  const std::vector<std::string> parts = Split(name);
  if (parts.size() > kMaxParts) return "its name has too many parts";
  for (const std::string& part : parts) {
    if (const char* reason = ReasonToRefusePart(part, asOnWindows)) return reason;
  }
  return nullptr;
}

std::string Key(std::string_view name, bool keepCase) {
  std::string key;
  key.reserve(name.size());
  const char* separator = "";
  for (const std::string& part : Split(name)) {
    key += separator;
    separator = "/";
    AppendKey(part, keepCase, &key);
  }
  return key;
}

std::string RootOf(std::string_view target, const std::vector<std::string>& names) {
  const auto dropSeparators = [&target] {
    while (IsOfDirectory(target)) target.remove_suffix(1);
  };
  for (auto name = names.rbegin(); name != names.rend(); ++name) {
    dropSeparators();
    if (!target.ends_with(*name)) return {};
    target.remove_suffix(name->size());
    if (!target.empty() && !EndsInSeparator(target)) return {};
  }
  const bool isRelative = target.empty() || !IsPathSeparator(target[0]);
  dropSeparators();
  if (target.empty() && isRelative) return ".";
  return std::string(target) + '/';
}

}  // namespace zip_names
