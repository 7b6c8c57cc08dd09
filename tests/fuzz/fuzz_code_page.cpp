// Texts of a code page: any bytes become a text of the length that was told before, and the
// characters of a page of single bytes come back as the bytes they were. The first byte of the
// input chooses the page.

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tests/fuzz/require.h"
#include "windows_api.h"

namespace {

constexpr std::array<UINT, 8> kPages = {1252, 1251, 437, 932, 936, 950, 54936, CP_UTF8};
// U+FFFD: a byte without a meaning.
constexpr WCHAR kUndefined = 0xFFFD;

std::vector<WCHAR> ToWide(UINT page, const std::vector<char>& bytes) {
  const int count = static_cast<int>(bytes.size());
  const int length = MultiByteToWideChar(page, 0, bytes.data(), count, nullptr, 0);
  Require(length >= 0 && length <= 2 * count);
  std::vector<WCHAR> wide(static_cast<size_t>(length));
  if (length == 0) return wide;
  Require(MultiByteToWideChar(page, 0, bytes.data(), count, wide.data(), length) == length);
  if (length == 1) return wide;
  // Without room for the last character there is no answer.
  std::vector<WCHAR> tooSmall(wide.size() - 1);
  Require(MultiByteToWideChar(page, 0, bytes.data(), count, tooSmall.data(), length - 1) == 0);
  return wide;
}

// UTF-8 is asked whether anything was lost by nobody: the page refuses the question.
std::vector<char> ToBytes(UINT page, const std::vector<WCHAR>& wide, BOOL* isLossy) {
  const int count = static_cast<int>(wide.size());
  BOOL* const question = page == CP_UTF8 ? nullptr : isLossy;
  const int length = WideCharToMultiByte(page, 0, wide.data(), count, nullptr, 0, nullptr, nullptr);
  Require(length >= 0 && length <= 4 * count);
  std::vector<char> bytes(static_cast<size_t>(length));
  if (length == 0) return bytes;
  Require(WideCharToMultiByte(page, 0, wide.data(), count, bytes.data(), length, nullptr,
                              question) == length);
  return bytes;
}

bool IsWhole(const std::vector<WCHAR>& wide) {
  for (const WCHAR unit : wide) {
    if (unit == kUndefined) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const UINT page = kPages[data[0] % kPages.size()];
  const std::vector<char> bytes(data + 1, data + size);
  const std::vector<WCHAR> wide = ToWide(page, bytes);
  // No byte is passed over: a text that stands for something must not become empty.
  Require(!wide.empty());

  BOOL isLossy = 0;
  const std::vector<char> back = ToBytes(page, wide, &isLossy);
  const bool isSingleByte = page == 1252 || page == 1251 || page == 437;
  if (isSingleByte) Require(wide.size() == bytes.size());
  if (isSingleByte && IsWhole(wide)) Require(back == bytes && !isLossy);
  return 0;
}
