#include "agent/translations/translations.h"

#include <algorithm>
#include <fstream>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/translations/program_directory.h"
#include "agent/translations/translation_file.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kFallback = "en";
constexpr size_t kMaxFiles = 500;

std::string NameOf(const fs::path& path) {
  return std::string(FromNativePath(path).Utf8());
}

/// The *.ini files of a directory by name.
std::vector<fs::path> FilesOf(const fs::path& directory, const Translations::Complaint& complain) {
  std::vector<fs::path> files;
  std::error_code error;
  fs::directory_iterator entries(directory, error);
  if (error == std::errc::no_such_file_or_directory) return files;
  for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
    if (entries->path().extension() != ".ini") continue;
    if (files.size() == kMaxFiles) {
      complain(NameOf(directory) + ": only " + std::to_string(kMaxFiles) + " files are read");
      break;
    }
    files.push_back(entries->path());
  }
  if (error) complain(NameOf(directory) + " cannot be read: " + error.message());
  std::sort(files.begin(), files.end());
  return files;
}

/// What is wrong with the file, or null.
const char* ReadWhole(const fs::path& file, std::string* content) {
  // Opening something else than a regular file might wait for somebody.
  std::error_code error;
  if (!fs::is_regular_file(file, error)) return "is no file";
  std::ifstream stream(file, std::ios::binary);
  content->resize(kMaxTranslationFileBytes + 1);
  stream.read(content->data(), static_cast<std::streamsize>(content->size()));
  if (!stream.is_open() || stream.bad()) return "cannot be read";
  content->resize(static_cast<size_t>(stream.gcount()));
  return content->size() > kMaxTranslationFileBytes ? "is larger than 1 MiB" : nullptr;
}

/// "pt-br" to "pt", "pt" to nothing.
std::string_view WithoutLastPart(std::string_view tag) {
  const size_t hyphen = tag.rfind('-');
  return hyphen == std::string_view::npos ? std::string_view() : tag.substr(0, hyphen);
}

}  // namespace

Translations::Translations(const std::vector<fs::path>& directories, const Complaint& complain) {
  for (const fs::path& directory : directories) {
    for (const fs::path& file : FilesOf(directory, complain)) {
      const std::string name = NameOf(file);
      const std::string tag = NormalLanguageTag(NameOf(file.stem()));
      if (tag.empty()) {
        complain(name + ": the name is no language's tag");
        continue;
      }
      std::string content;
      if (const char* const error = ReadWhole(file, &content)) {
        complain(name + " " + error);
        continue;
      }
      ReadTranslationFile(content, &languages_[tag],
                          [&](const std::string& line) { complain(name + ", " + line); });
    }
  }
}

std::optional<std::string> Translations::Find(std::string_view key,
                                              std::string_view language) const {
  const auto textIn = [&](std::string_view tag) -> const std::string* {
    const auto texts = languages_.find(tag);
    if (texts == languages_.end()) return nullptr;
    const auto text = texts->second.find(key);
    return text == texts->second.end() ? nullptr : &text->second;
  };
  const std::string tag = NormalLanguageTag(language);
  for (std::string_view part = tag; !part.empty(); part = WithoutLastPart(part)) {
    if (const std::string* const text = textIn(part)) return *text;
  }
  if (const std::string* const text = textIn(kFallback)) return *text;
  return {};
}

bool Translations::IsRightToLeft(std::string_view language) {
  constexpr std::string_view kLanguages[] = {"ar", "arc", "ckb", "dv", "fa", "he", "iw",
                                             "ps", "sd",  "syr", "ug", "ur", "yi"};
  constexpr std::string_view kScripts[] = {"adlm", "arab", "hebr", "nkoo", "rohg", "syrc", "thaa"};
  const std::string tag = NormalLanguageTag(language);
  const size_t end = std::min(tag.find('-'), tag.size());
  const std::string_view rest = std::string_view(tag).substr(std::min(end + 1, tag.size()));
  const std::string_view second = rest.substr(0, rest.find('-'));
  // Where a script is named, it decides.
  const bool isScript =
      second.size() == 4 &&
      std::none_of(second.begin(), second.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (isScript)
    return std::find(std::begin(kScripts), std::end(kScripts), second) != std::end(kScripts);
  return std::find(std::begin(kLanguages), std::end(kLanguages),
                   std::string_view(tag).substr(0, end)) != std::end(kLanguages);
}

fs::path ShippedTranslations() {
  return TranslationsProgramDirectory() / "translations";
}
