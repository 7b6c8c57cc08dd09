#include "actions/programs/file_information.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "module/direct_access.h"
#include "module/invocation.h"
#include "module/module.h"
#include "windows_api.h"

namespace {

constexpr const char* kOriginalFileName = "OriginalFileName";
constexpr const char* kFileVersion = "FileVersion";
constexpr const char* kFileChecksum = "FileChecksum";
constexpr const char* kFileSize = "FileSize";

/// A text of less is taken for none.
constexpr size_t kShortestText = 2;

struct VersionTexts {
  ZelString originalFileName;
  ZelString fileVersion;
};

/// The first language and code page that the resource has texts in, as its key "040904b0"; empty
/// without one.
ZelString FirstTranslation(const std::vector<char>& resource) {
  struct Translation {
    WORD language;
    WORD codePage;
  };
  void* value = nullptr;
  UINT sizeBytes = 0;
  const ZelString path("\\VarFileInfo\\Translation");
  if (!VerQueryValueW(resource.data(), path.GetTCHAR(), &value, &sizeBytes)) return {};
  if (sizeBytes < sizeof(Translation)) return {};

  const auto* first = static_cast<const Translation*>(value);
  ZelString key;
  return key.Printf("%04x%04x", first->language, first->codePage);
}

/// The text `name` of the resource; `fallback` when it is too short to be one, empty when there is
/// none.
ZelString ReadText(const std::vector<char>& resource, const ZelString& translation,
                   const char* name, const ZelString& fallback) {
  ZelString path;
  path.Printf("\\StringFileInfo\\%S\\%s", translation, name);
  void* value = nullptr;
  UINT length = 0;
  if (!VerQueryValueW(resource.data(), path.GetTCHAR(), &value, &length) || length == 0) return {};

  // The length may count the terminator, and nothing forces the text to have one.
  std::basic_string_view<WCHAR> text(static_cast<const WCHAR*>(value), length);
  text = text.substr(0, text.find(WCHAR{0}));
  if (text.size() < kShortestText) return fallback;
  ZelString result;
  result.SetToTCHAR(std::basic_string<WCHAR>(text).c_str());
  return result;
}

VersionTexts ReadVersionResource(const ZelString& path, const ZelString& callersName) {
  const DWORD sizeBytes = GetFileVersionInfoSizeW(path.GetTCHAR(), nullptr);
  std::vector<char> resource(sizeBytes);
  GetFileVersionInfoW(path.GetTCHAR(), 0, sizeBytes, resource.data());
  if (sizeBytes == 0) return {};

  const ZelString translation = FirstTranslation(resource);
  if (translation.IsEmpty()) return {};
  return {ReadText(resource, translation, "OriginalFilename", callersName),
          ReadText(resource, translation, "FileVersion", "")};
}

/// Asks the agent which application the file belongs to.
ZelString ApplicationOf(const ZelString& originalFileName, int32_t sizeBytes) {
  ZelContainer query;
  query.SetString("FileName", originalFileName, kNoIndex);
  query.SetInt32(kFileSize, sizeBytes, kNoIndex);
  // Agents match by name and size; they expect the key without a digest in it.
  query.SetString(kFileChecksum, "", kNoIndex);
  const uint32_t code = InvokeHere("GetApplicationInfo", &query);
  return code == kSuccess ? ReadString(query, "Name") : originalFileName;
}

}  // namespace

ResultCode CoreUtilsGetFileInformation(ZelContainer* params) {
  const ZelString path = ReadString(*params, "Path");
  const ZelString name = ReadString(*params, "Name");
  const ZelString consoleUser = ReadString(*params, kDACurrentConsoleUser);
  params->Clear();
  Logger().DetailWithNL("Get information for file %S", path);

  if (!FileExists(path)) {
    params->SetInt32(kResult, 0, kNoIndex);
    return kFileNotFound;
  }

  if (!MayRead(path, consoleUser)) return kAccessRefused;

  const VersionTexts texts = ReadVersionResource(path, name);
  params->SetString(kOriginalFileName, texts.originalFileName, kNoIndex);
  params->SetString(kFileVersion, texts.fileVersion, kNoIndex);

  params->SetString(kFileChecksum, FileMd5(path), kNoIndex);
  const auto sizeBytes = static_cast<int32_t>(FileGetSize(path));
  params->SetInt32(kFileSize, sizeBytes, kNoIndex);

  params->SetString("ApplicationName", ApplicationOf(texts.originalFileName, sizeBytes), kNoIndex);
  params->SetBool("IsText", File(path).FileIsValid(), kNoIndex);
  return kSuccess;
}
