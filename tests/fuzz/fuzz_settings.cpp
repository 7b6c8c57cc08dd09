// Configuration files: what stands in an entry stands in the text too, values that are taken lie
// within their documented bounds, and line ends of Windows change nothing.

#include <algorithm>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "agent/libZelCore/ini_reader.h"
#include "agent/libZelCore/settings.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

bool LiesIn(std::string_view part, std::string_view whole) {
  return part.empty() ||
         (part.data() >= whole.data() && part.data() + part.size() <= whole.data() + whole.size());
}

bool IsTrimmed(std::string_view text) {
  constexpr std::string_view kBlanks = " \t\r\n";
  return text.empty() || (kBlanks.find(text.front()) == std::string_view::npos &&
                          kBlanks.find(text.back()) == std::string_view::npos);
}

void CheckDocument(std::string_view text) {
  const IniDocument document = ReadIni(text);
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
  std::set<std::pair<std::string_view, std::string_view>> seen;
  size_t before = 0;
  for (const IniEntry& entry : document.entries) {
    Require(entry.line > before && entry.line <= lines);
    before = entry.line;
    Require(!entry.section.empty() && !entry.key.empty());
    for (const std::string_view part : {entry.section, entry.key, entry.value})
      Require(LiesIn(part, text) && IsTrimmed(part));
    Require(seen.emplace(entry.section, entry.key).second);
  }
  for (const IniSection& section : document.sections)
    Require(!section.name.empty() && LiesIn(section.name, text) && section.line <= lines);
}

void CheckBounds(const Settings& settings) {
  Require(!settings.agentName.empty() && settings.agentName.size() <= 64);
  Require(settings.codePage >= 1 && settings.codePage <= 65535);
  Require(settings.maxBodyBytes >= 1024 && settings.maxBodyBytes <= uint64_t{1} << 30);
  Require(settings.maxConnections >= 1 && settings.maxConnections <= 1'000'000);
  Require(settings.maxThreads >= 1 && settings.maxThreads <= 4096);
  Require(settings.idleTimeoutMs >= 100 && settings.requestTimeoutMs >= 100);
  Require(settings.masterConnections >= 1 && settings.masterMaxListed >= 1);
  Require(settings.logRotateBytes >= 4096 && settings.logKeptFiles >= 1);
  Require(settings.relayHost.empty() == (settings.relayPort == 0));
  Require(!settings.drives.empty());
  for (const auto& [letter, directory] : settings.drives)
    Require(letter >= 'A' && letter <= 'Z' && directory.starts_with('/'));
  for (const PrivacyRule& rule : settings.privacyRules) Require(!rule.pattern.empty());
  Require(std::is_sorted(settings.administratorsOnly.begin(), settings.administratorsOnly.end()));
}

std::string WithWindowsLineEnds(std::string_view text) {
  std::string converted;
  for (const char c : text) converted += c == '\n' ? "\r\n" : std::string(1, c);
  return converted;
}

// A value may name a file to read, and a device is read without end.
bool NamesDevice(std::string_view text) {
  return text.find("/dev") != std::string_view::npos ||
         text.find("/proc") != std::string_view::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const Scratch scratch;
  static const bool hasSecret = (WriteBytes(scratch / "secret", "0123456789abcdef\n"), true);
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  CheckDocument(text);
  if (!hasSecret || NamesDevice(text)) return 0;

  const SettingsResult result = ParseSettings(text, scratch.Path());
  CheckBounds(result.settings);
  const SettingsResult again = ParseSettings(WithWindowsLineEnds(text), scratch.Path());
  Require(again.errors == result.errors && again.warnings == result.warnings);
  return 0;
}
