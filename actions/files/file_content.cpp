#include "actions/files/file_content.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

#include "module/direct_access.h"
#include "module/module.h"
#include "windows_api.h"

namespace {

constexpr const char* kPath = "Path";
constexpr const char* kOffset = "Offset";
constexpr const char* kLength = "Length";
constexpr const char* kFileContent = "FileContent";
constexpr const char* kUnsupportedFormat = "Unsupported file format";

constexpr uint32_t kFailedRead = 0xFFFFFFFF;
constexpr uint32_t kFailedSum = 0xFFFFFFFF;
constexpr int kFailedHandle = -1;
constexpr size_t kBlockBytes = 4096;
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";

enum class TextForm {
  kUtf8 = 0,
  kUtf16BigEndian = 1,
  kUtf16LittleEndian = 2,
  kUtf32BigEndian = 3,
  kUtf32LittleEndian = 4,
  kCodePage = 5,
};

struct Free {
  void operator()(char* memory) const { std::free(memory); }
};
/// Memory that grows in place where the allocator can.
using Buffer = std::unique_ptr<char, Free>;

struct LoadedFile {
  Buffer bytes;
  uint32_t sizeBytes = 0;
  TextForm form = TextForm::kUtf8;
  uint32_t markBytes = 0;
};

bool Resize(Buffer* buffer, size_t sizeBytes) {
  char* memory = static_cast<char*>(std::realloc(buffer->get(), sizeBytes));
  if (memory == nullptr) return false;
  static_cast<void>(buffer->release());
  buffer->reset(memory);
  return true;
}

/// Closes a host's file when it goes.
class FileHandle {
 public:
  explicit FileHandle(int handle) : handle_(handle) {}
  ~FileHandle() {
    if (*this) FileClose(handle_);
  }
  FileHandle(const FileHandle&) = delete;
  FileHandle& operator=(const FileHandle&) = delete;

  explicit operator bool() const { return handle_ != kFailedHandle; }
  int Handle() const { return handle_; }

 private:
  int handle_;
};

bool ReadAll(const ZelString& path, LoadedFile* file) {
  const FileHandle input(FileOpen(path, 0));
  if (!input) return false;

  size_t capacity = ((size_t{FileGetSize(path)} >> 12) + 1) << 12;
  if (!Resize(&file->bytes, capacity)) return false;

  size_t end = 0;
  for (;;) {
    if (capacity - end < kBlockBytes) {
      capacity += kBlockBytes;
      if (!Resize(&file->bytes, capacity)) return false;
    }
    const auto room = static_cast<uint32_t>(std::min<size_t>(capacity - end, INT_MAX));
    const uint32_t count = FileRead(input.Handle(), file->bytes.get() + end, room);
    if (count == 0) break;
    if (count == kFailedRead) return false;
    end += count;
    // Sizes are 32 bits from here on.
    if (end > UINT32_MAX) return false;
  }
  file->sizeBytes = static_cast<uint32_t>(end);
  return true;
}

/// Tells the text form from the mark at the start, or else from the whole text.
void DetectForm(LoadedFile* file) {
  // Prefilled with what no mark holds, so that a short file is not taken for a mark.
  std::array<char, 4> header;
  header.fill('\xAA');
  std::memcpy(header.data(), file->bytes.get(), std::min<size_t>(header.size(), file->sizeBytes));
  const std::string_view start(header.data(), header.size());

  const auto set = [&](TextForm form, uint32_t markBytes) {
    file->form = form;
    file->markBytes = markBytes;
  };
  using namespace std::string_view_literals;
  if (start.starts_with(kUtf8Mark)) return set(TextForm::kUtf8, 3);
  if (start == "\xFF\xFE\0\0"sv) return set(TextForm::kUtf32LittleEndian, 4);
  if (start.starts_with("\xFF\xFE")) return set(TextForm::kUtf16LittleEndian, 2);
  if (start.starts_with("\xFE\xFF")) return set(TextForm::kUtf16BigEndian, 2);
  if (start == "\0\0\xFE\xFF"sv) return set(TextForm::kUtf32BigEndian, 4);
  const bool isUtf8 = ZelString::IsTextUTF8(file->bytes.get(), file->sizeBytes);
  set(isUtf8 ? TextForm::kUtf8 : TextForm::kCodePage, 0);
}

bool LoadFile(const ZelString& path, LoadedFile* file) {
  LoadedFile loaded;
  if (!ReadAll(path, &loaded)) return false;
  DetectForm(&loaded);
  *file = std::move(loaded);
  return true;
}

bool FindForm(const ZelString& path, TextForm* form) {
  LoadedFile file;
  if (!LoadFile(path, &file)) return false;
  *form = file.form;
  return true;
}

ResultCode Answer(ZelContainer* params, ZelString&& result, ResultCode code) {
  params->SetString(kResult, std::move(result), kNoIndex);
  return code;
}

ResultCode AnswerBytes(ZelContainer* params, const char* bytes, size_t count) {
  const auto* unsignedBytes = reinterpret_cast<const unsigned char*>(bytes);
  return Answer(params, EncodeBase64(unsignedBytes, static_cast<uint32_t>(count)), kSuccess);
}

/// Answers with text of the system code page, as UTF-8.
ResultCode AnswerConverted(ZelContainer* params, const char* bytes, uint32_t byteCount) {
  if (byteCount > INT_MAX) return Answer(params, "", kSuccess);
  const int count = static_cast<int>(byteCount);
  const int wideCount = MultiByteToWideChar(CP_ACP, 0, bytes, count, nullptr, 0);
  if (wideCount == 0) return Answer(params, "", kSuccess);

  const size_t wideBytes = static_cast<size_t>(wideCount) * 2;
  const Buffer wide(static_cast<char*>(std::malloc(wideBytes)));
  if (!wide) return kFailure;
  auto* characters = reinterpret_cast<WCHAR*>(wide.get());
  if (MultiByteToWideChar(CP_ACP, 0, bytes, count, characters, wideCount) == 0) return kFailure;

  ZelString text;
  text.Assign(wide.get(), wideBytes, kEncodingUtf16);
  return AnswerBytes(params, text.GetString(kEncodingUtf8), text.GetSize(kEncodingUtf8));
}

/// The first of "path.tmp0", "path.tmp1", ... that does not exist.
ZelString FreeTemporaryName(const ZelString& path) {
  ZelString candidate;
  unsigned number = 0;
  do {
    candidate.Printf("%S.tmp%u", path, number++);
  } while (FileExists(candidate));
  return candidate;
}

/// Brings the old content back.
void Restore(const ZelString& temporary, const ZelString& path) {
  FileCopy(temporary, path, 0);
  FileDelete(temporary, 0);
}

/// The sum of what `FileWrite` answered.
uint32_t WriteUtf8(int handle, const char* text, uint32_t byteCount) {
  uint32_t sum = FileWrite(handle, kUtf8Mark.data(), kUtf8Mark.size());
  if (byteCount > 0) sum += FileWrite(handle, text, byteCount);
  return sum;
}

/// The same in the system code page; 0 with nothing written when the text has no such form.
uint32_t WriteConverted(int handle, const char* utf8, uint32_t byteCount) {
  ZelString text;
  text.Assign(utf8, byteCount, kEncodingUtf8);
  const size_t wideCount = text.GetSize(kEncodingUtf16) / 2;
  if (wideCount > INT_MAX) return 0;
  const auto* wide = reinterpret_cast<const WCHAR*>(text.GetString(kEncodingUtf16));
  const int count = static_cast<int>(wideCount);

  const int size = WideCharToMultiByte(CP_ACP, 0, wide, count, nullptr, 0, nullptr, nullptr);
  if (size <= 0) return 0;
  const Buffer bytes(static_cast<char*>(std::malloc(static_cast<size_t>(size))));
  if (!bytes) return 0;
  const int converted =
      WideCharToMultiByte(CP_ACP, 0, wide, count, bytes.get(), size, nullptr, nullptr);
  return converted == size ? FileWrite(handle, bytes.get(), static_cast<uint32_t>(size)) : 0;
}

}  // namespace

ResultCode CoreUtilsReadFile(ZelContainer* params) {
  const ZelString path = ReadString(*params, kPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  uint32_t offset = 0;
  params->GetInt32(kOffset, &offset, kNoIndex);
  uint32_t length = 0;
  params->GetInt32(kLength, &length, kNoIndex);
  params->Clear();
  Logger().DetailWithNL("Reading file %S (offset %u, length %u)", path, offset, length);

  if (!MayRead(path, consoleUser)) return Answer(params, "", kAccessRefused);

  if (!FileExists(path)) {
    params->SetInt32(kResult, 0, kNoIndex);
    return kFileNotFound;
  }

  LoadedFile file;
  if (!LoadFile(path, &file)) {
    file.form = TextForm::kCodePage;
  } else if (file.form != TextForm::kUtf8 && file.form != TextForm::kCodePage) {
    return Answer(params, kUnsupportedFormat, kFailure);
  }

  // Consoles count `Length` from the beginning of the file, mark included, whatever the offset.
  const uint32_t end = std::min(length, file.sizeBytes);
  const uint32_t start = std::min(file.markBytes, end);
  const char* bytes = file.bytes ? file.bytes.get() + start : nullptr;
  if (file.form == TextForm::kUtf8) return AnswerBytes(params, bytes, end - start);
  return AnswerConverted(params, bytes, end - start);
}

ResultCode CoreUtilsWriteFile(ZelContainer* params) {
  const ZelString content = ReadString(*params, kFileContent);
  const ZelString path = ReadString(*params, kPath);
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  Logger().DetailWithNL("Writing file %S", path);

  if (!MayWrite(path, consoleUser)) return Answer(params, "", kAccessRefused);

  TextForm form = TextForm::kUtf8;
  if (FileExists(path)) {
    if (FindForm(path, &form) && form != TextForm::kUtf8 && form != TextForm::kCodePage) {
      return Answer(params, kUnsupportedFormat, kFailure);
    }
  } else if (!FileHandle(FileCreate(path, 0))) {
    return Answer(params, "", kFailure);
  }

  const ZelString temporary = FreeTemporaryName(path);
  if (FileCopy(path, temporary, 0) != 0) return Answer(params, "", kFailure);
  if (FileDelete(path, 0) != 0) {
    FileDelete(temporary, 0);
    return Answer(params, "", kFailure);
  }
  const FileHandle output(FileCreate(path, 0));
  if (!output) {
    Restore(temporary, path);
    return Answer(params, "", kFailure);
  }

  auto length = static_cast<uint32_t>(content.GetLength());
  const auto* base64 = reinterpret_cast<const unsigned char*>(content.GetString(kEncodingUtf8));
  const Buffer decoded(DecodeBase64(base64, &length));
  if (!decoded) {
    Restore(temporary, path);
    return kFailure;
  }

  uint32_t sum = kFailedSum;
  try {
    sum = form == TextForm::kUtf8 ? WriteUtf8(output.Handle(), decoded.get(), length)
                                  : WriteConverted(output.Handle(), decoded.get(), length);
  } catch (...) {
    // Without memory for the conversion the old content must come back all the same.
    Restore(temporary, path);
    throw;
  }
  if (sum == kFailedSum) {
    Restore(temporary, path);
    return Answer(params, "", kFailure);
  }
  FileDelete(temporary, 0);
  return kSuccess;
}
