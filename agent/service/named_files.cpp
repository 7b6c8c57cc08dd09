#include "agent/service/named_files.h"

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <string_view>
#include <system_error>

#include "agent/libZel/native_path.h"
#include "agent/libZel/percent_decoding.h"
#include "libZel/ini_file.h"
#include "libZel/path.h"

namespace {

namespace fs = std::filesystem;

using Options = std::map<std::string, std::string>;

constexpr std::string_view kBlanks = " \t\r\n\f\v";
constexpr std::array<std::string_view, 2> kSecretFiles = {"passfile", "sslkey"};
constexpr std::array<std::string_view, 3> kTrustedFiles = {"sslcert", "sslcrl", "sslrootcert"};

void SkipBlanks(std::string_view* text) {
  text->remove_prefix(std::min(text->find_first_not_of(kBlanks), text->size()));
}

/// A value of a connection string, quoted or not; a backslash takes the next character as it is.
std::string TakeValue(std::string_view* text) {
  const bool isQuoted = text->starts_with('\'');
  const std::string_view ends = isQuoted ? "'" : kBlanks;
  if (isQuoted) text->remove_prefix(1);
  std::string value;
  while (!text->empty() && ends.find(text->front()) == std::string_view::npos) {
    if (text->starts_with('\\') && text->size() > 1) text->remove_prefix(1);
    value += text->front();
    text->remove_prefix(1);
  }
  if (isQuoted && !text->empty()) text->remove_prefix(1);
  return value;
}

/// "key = value key = 'value' ..."
Options ReadPairs(std::string_view text) {
  Options options;
  for (SkipBlanks(&text); !text.empty(); SkipBlanks(&text)) {
    const size_t equals = text.find('=');
    if (equals == std::string_view::npos) break;
    const std::string_view key = text.substr(0, equals);
    text.remove_prefix(equals + 1);
    SkipBlanks(&text);
    options[std::string(key.substr(0, key.find_first_of(kBlanks)))] = TakeValue(&text);
  }
  return options;
}

/// "postgresql://...?key=value&..."
Options ReadQuery(std::string_view url) {
  Options options;
  std::string_view rest = url.substr(std::min(url.find('?'), url.size()));
  while (!rest.empty()) {
    rest.remove_prefix(1);
    const std::string_view pair = rest.substr(0, rest.find('&'));
    const size_t equals = std::min(pair.find('='), pair.size());
    if (equals < pair.size()) {
      const auto key = DecodePercent(pair.substr(0, equals));
      const auto value = DecodePercent(pair.substr(equals + 1));
      // The database's library takes nothing that is malformed.
      if (key && value) options[*key] = *value;
    }
    rest.remove_prefix(pair.size());
  }
  return options;
}

template <size_t kCount>
std::vector<fs::path> FilesOf(const Options& options,
                              const std::array<std::string_view, kCount>& keys) {
  std::vector<fs::path> files;
  for (const std::string_view key : keys) {
    const auto found = options.find(std::string(key));
    if (found != options.end() && found->second.starts_with('/')) files.emplace_back(found->second);
  }
  return files;
}

/// Without what tells Windows of long paths. Nothing of a share, whose files are its server's to
/// guard.
fs::path PlainPath(const fs::path& file) {
  const fs::path::string_type longPath = fs::path(R"(\\?\)").native();
  const fs::path::string_type share = fs::path(R"(\\?\UNC\)").native();
  const fs::path::string_type& text = file.native();
  if (text.starts_with(share)) return {};
  return text.starts_with(longPath) ? fs::path(text.substr(longPath.size())) : file;
}

/// The database and what SQLite puts beside it, or beside where a link of its name leads.
std::vector<fs::path> SqliteFiles(const fs::path& database) {
  std::error_code error;
  const fs::path target = fs::weakly_canonical(database, error);
  std::vector<fs::path> files = {database};
  for (const char* const suffix : {"-journal", "-shm", "-wal"})
    files.push_back(fs::path(error ? database : target) += suffix);
  return files;
}

}  // namespace

NamedFiles FilesOfDatabase(const std::string& database) {
  if (database.starts_with('/')) return {SqliteFiles(database), {}};
  const Options options =
      database.find("://") == std::string::npos ? ReadPairs(database) : ReadQuery(database);
  return {FilesOf(options, kTrustedFiles), FilesOf(options, kSecretFiles)};
}

std::vector<fs::path> StartupScripts(const fs::path& iniFile, const fs::path& scripts) {
  std::vector<fs::path> files;
  const IniFile ini(FromNativePath(iniFile));
  for (const char* const section : {"RunOnce", "Run"}) {
    ZelString name;
    for (unsigned index = 1; ini.GetEntryName(section, index, name) != 0; ++index) {
      ZelString script;
      ini.GetEntryValue(section, name, script);
      ZelString directory;
      SplitPath(script, nullptr, &directory, nullptr, nullptr);
      const bool isRooted = directory.StartsWith("/") || directory.StartsWith("\\");
      const NativePath file =
          ToNativePath(isRooted ? script : FromNativePath(scripts) + "/" + script);
      if (file) files.push_back(PlainPath(file.path));
    }
  }
  return files;
}
