// Reading text files of any content: what comes back is a part of the file as it stands, or its
// conversion. The first bytes of the input choose Length, Offset and how the host answers; the rest
// is the file.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "actions/files/file_content.h"
#include "module/direct_access.h"
#include "module/module.h"
#include "tests/fuzz/require.h"
#include "windows_api.h"

namespace {

// The one file of the host, and how the host treats it.
struct HostFile {
  std::string_view bytes;
  size_t position = 0;
  uint32_t toldSize = 0;
  uint32_t bytesPerRead = 1;
};

HostFile hostFile;

ZelString DecodedText(const ZelString& base64) {
  auto length = static_cast<uint32_t>(base64.GetLength());
  const auto* text = reinterpret_cast<const unsigned char*>(base64.GetString(kEncodingUtf8));
  const std::unique_ptr<char, void (*)(void*)> bytes(DecodeBase64(text, &length), std::free);
  Require(bytes != nullptr);
  return ZelString(std::string_view(bytes.get(), length));
}

bool IsUtf8(std::string_view bytes) {
  return ZelString::IsTextUTF8(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

std::string FromLatin1(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    const auto code = static_cast<unsigned char>(c);
    if (code >= 0x80) text += static_cast<char>(0xC0 | code >> 6);
    text += static_cast<char>(code >= 0x80 ? 0x80 | (code & 0x3F) : code);
  }
  return text;
}

bool IsUtf16Or32(std::string_view bytes) {
  using std::string_view_literals::operator""sv;
  return bytes.starts_with("\xFF\xFE"sv) || bytes.starts_with("\xFE\xFF"sv) ||
         bytes.starts_with("\0\0\xFE\xFF"sv);
}

void Check(std::string_view file, uint32_t length, ResultCode code, const ZelString& result) {
  constexpr std::string_view kMark = "\xEF\xBB\xBF";
  if (IsUtf16Or32(file)) return Require(code == kFailure);
  Require(code == kSuccess);

  const bool hasMark = file.starts_with(kMark);
  std::string_view part = file.substr(0, length);
  part.remove_prefix(std::min(part.size(), hasMark ? kMark.size() : 0));
  const bool isUtf8 = hasMark || IsUtf8(file);
  const std::string expected = isUtf8 ? std::string(part) : FromLatin1(part);
  const auto* bytes = reinterpret_cast<const unsigned char*>(expected.data());
  Require(result == EncodeBase64(bytes, static_cast<uint32_t>(expected.size())));
  if (IsUtf8(expected)) Require(DecodedText(result).Utf8() == expected);
}

}  // namespace

// What the action asks of its host.

ZelDebug& Logger() {
  static ZelDebug logger("fuzz", "fuzz");
  return logger;
}

bool IsAccessAllowed(const ZelString&, const ZelString&, bool) {
  return true;
}

int FileExists(const ZelString&) {
  return 1;
}

uint32_t FileGetSize(const ZelString&) {
  return hostFile.toldSize;
}

int FileOpen(const ZelString&, int) {
  hostFile.position = 0;
  return 1;
}

uint32_t FileRead(int, char* buffer, uint32_t sizeBytes) {
  const size_t count = std::min<size_t>(
      {sizeBytes, hostFile.bytesPerRead, hostFile.bytes.size() - hostFile.position});
  // All the room that is promised must be there.
  std::memset(buffer, '?', sizeBytes);
  std::memcpy(buffer, hostFile.bytes.data() + hostFile.position, count);
  hostFile.position += count;
  return static_cast<uint32_t>(count);
}

int FileClose(int) {
  return 0;
}

// Reading changes nothing.
int FileCreate(const ZelString&, int) {
  std::abort();
}

uint32_t FileWrite(int, const char*, uint32_t) {
  std::abort();
}

int FileCopy(const ZelString&, const ZelString&, int) {
  std::abort();
}

int FileDelete(const ZelString&, int) {
  std::abort();
}

// The system code page is ISO 8859-1 here.
int MultiByteToWideChar(UINT codePage, DWORD, const char* bytes, int byteCount, WCHAR* wide,
                        int wideSize) {
  Require(codePage == CP_ACP && byteCount >= 0);
  if (byteCount == 0) return 0;
  if (wideSize == 0) return byteCount;
  if (wideSize < byteCount) return 0;
  for (int i = 0; i < byteCount; ++i) wide[i] = static_cast<unsigned char>(bytes[i]);
  return byteCount;
}

int WideCharToMultiByte(UINT, DWORD, const WCHAR*, int, char*, int, const char*, BOOL*) {
  std::abort();
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  struct {
    uint32_t length;
    uint32_t offset;
    uint16_t toldSize;
    uint16_t bytesPerRead;
  } choice;
  if (size < sizeof choice) return 0;
  std::memcpy(&choice, data, sizeof choice);

  const std::string_view file(reinterpret_cast<const char*>(data) + sizeof choice,
                              size - sizeof choice);
  hostFile = {file, 0, choice.toldSize, choice.bytesPerRead + 1u};
  // Most lengths would lie far behind the file.
  const uint32_t length = choice.length % 4 == 0 ? choice.length : choice.length % 8192;
  ZelContainer params;
  params.SetString("Path", "C:\\file", kNoIndex);
  params.SetInt32("Length", static_cast<int32_t>(length), kNoIndex);
  params.SetInt32("Offset", static_cast<int32_t>(choice.offset), kNoIndex);
  const ResultCode code = CoreUtilsReadFile(&params);
  Check(file, length, code, ReadString(params, kResult));
  return 0;
}
