#pragma once

#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The texts that people see, by key and language. A language is a file "TAG.ini" (de.ini,
/// pt-BR.ini) of lines "KEY = text" in UTF-8, read when this object is made.
///
/// Threads: any number may ask at once.
class Translations {
 public:
  /// Reads the files of each directory; a text of a later directory replaces that of an earlier
  /// one. A directory or file that cannot be read, and lines that are none, are left out and told
  /// to `complain`, but for a directory that is not there.
  using Complaint = std::function<void(const std::string& line)>;
  Translations(const std::vector<std::filesystem::path>& directories, const Complaint& complain);

  /// The text for `key` in `language`, a tag as people's systems give it ("de", "de-AT",
  /// "de_AT.UTF-8", any case): in that region's words, else the language's, else in English. None
  /// for an unknown key.
  std::optional<std::string> Find(std::string_view key, std::string_view language) const;

  /// Whether the language is written from right to left.
  static bool IsRightToLeft(std::string_view language);

 private:
  using Texts = std::map<std::string, std::string, std::less<>>;
  std::map<std::string, Texts, std::less<>> languages_;
};

/// The directory of the texts that come with the agent: "translations" beside this program.
std::filesystem::path ShippedTranslations();
