#include "agent/libZelMarlin/engine_settings.h"

#include <charconv>
#include <limits>
#include <string_view>

#include "agent/libZel/debug_context.h"
#include "libZel/ini_file.h"

namespace {

constexpr const char* kSection = "limits";

/// A setting that is a whole number.
struct Setting {
  const char* key;
  uint64_t least;
  uint64_t most;
};

constexpr Setting kMemoryMib{"memory_mib", 1, 1024 * 1024};
constexpr Setting kInstructions{"instructions", 0, std::numeric_limits<int64_t>::max()};
// Each level takes part of the thread's stack, which is 2 MiB on Windows.
constexpr Setting kDepth{"depth", 1, 64};

uint64_t Read(const IniFile& file, const ZelString& path, const Setting& setting,
              uint64_t byDefault) {
  ZelString value;
  if (file.GetEntryValue(kSection, setting.key, value) == 0) return byDefault;

  const std::string_view text = value.Utf8();
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  const bool isNumber = error == std::errc() && end == text.data() + text.size();
  if (isNumber && number >= setting.least && number <= setting.most) return number;

  LibraryLog().WarningWithNL("%S: [limits] %s = \"%S\" is not a number from %u to %u, so it is %u",
                             path, setting.key, value, setting.least, setting.most, byDefault);
  return byDefault;
}

}  // namespace

EngineSettings ReadEngineSettings(const ZelString& iniPath) {
  const IniFile file(iniPath);
  EngineSettings settings;
  settings.memoryBytes = kMib * Read(file, iniPath, kMemoryMib, settings.memoryBytes / kMib);
  settings.instructions = Read(file, iniPath, kInstructions, settings.instructions);
  const auto byDefault = static_cast<uint64_t>(settings.depth);
  settings.depth = static_cast<int>(Read(file, iniPath, kDepth, byDefault));
  return settings;
}
