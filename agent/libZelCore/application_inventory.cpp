#include "agent/libZelCore/application_inventory.h"

#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include "agent/libZel/ascii.h"
#include "agent/libZel/blanks.h"
#include "agent/libZel/file_text.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/whole_number.h"
#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/ini_reader.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32_t kFound = 0;
constexpr uint32_t kUnknown = 1;

// Numbers with commas between them.
bool ReadSizes(std::string_view text, std::vector<uint64_t>* sizes) {
  for (;;) {
    const size_t comma = text.find(',');
    const auto size = ReadWholeNumber<uint64_t>(TrimBlanks(text.substr(0, comma)));
    if (!size) return false;
    sizes->push_back(*size);
    if (comma == std::string_view::npos) return true;
    text.remove_prefix(comma + 1);
  }
}

class InventoryReader {
 public:
  InventoryText Read(std::string_view text) {
    const IniDocument document = ReadIni(text);
    result_.warnings = document.errors;
    for (const IniSection& section : document.sections) ApplicationOf(section.name);
    for (const IniEntry& entry : document.entries) ReadEntry(entry);
    for (KnownApplication& application : applications_) Keep(std::move(application));
    return std::move(result_);
  }

 private:
  KnownApplication& ApplicationOf(std::string_view name) {
    const auto [found, isNew] = positions_.try_emplace(std::string(name), applications_.size());
    if (isNew) applications_.emplace_back().name = name;
    return applications_[found->second];
  }

  void ReadEntry(const IniEntry& entry) {
    KnownApplication& application = ApplicationOf(entry.section);
    if (entry.key == "file") {
      application.file = entry.value;
    } else if (entry.key == "publisher") {
      application.publisher = entry.value;
    } else if (entry.key == "version") {
      application.version = entry.value;
    } else if (entry.key != "size") {
      Warn(entry, "unknown key");
    } else if (!ReadSizes(entry.value, &application.sizes)) {
      // Without the size, the application would be taken for the owner of any file of that name.
      Warn(entry, "is no number of bytes, or several with commas; the section is passed over");
      unusable_.insert(application.name);
    }
  }

  void Keep(KnownApplication application) {
    if (unusable_.contains(application.name)) return;
    if (application.file.empty()) {
      result_.warnings.push_back("[" + application.name + "] names no file and is passed over");
      return;
    }
    result_.applications.push_back(std::move(application));
  }

  void Warn(const IniEntry& entry, const char* what) {
    result_.warnings.push_back("line " + std::to_string(entry.line) + ": [" +
                               std::string(entry.section) + "] " + std::string(entry.key) + " = " +
                               std::string(entry.value) + ": " + what);
  }

  InventoryText result_;
  std::vector<KnownApplication> applications_;
  std::map<std::string, size_t> positions_;
  std::set<std::string> unusable_;
};

}  // namespace

InventoryText ParseInventory(std::string_view text) {
  return InventoryReader().Read(text);
}

ApplicationInventory::ApplicationInventory(fs::path file) : file_(std::move(file)) {}

ApplicationInventory::FileState ApplicationInventory::State() const {
  std::error_code error;
  FileState state;
  state.isThere = fs::is_regular_file(file_, error);
  if (!state.isThere) return {};
  state.sizeBytes = fs::file_size(file_, error);
  if (!error) state.time = fs::last_write_time(file_, error);
  return error ? FileState{} : state;
}

void ApplicationInventory::Refresh() {
  const FileState state = State();
  if (state == state_) return;
  state_ = state;
  applications_.clear();
  if (!state.isThere) return;

  const ZelString name = FromNativePath(file_);
  const std::optional<std::string> text = ReadFileText(file_);
  if (!text) {
    CoreLog().WarningWithNL("Cannot read the inventory %S", name);
    return;
  }
  InventoryText read = ParseInventory(*text);
  for (const std::string& warning : read.warnings)
    CoreLog().WarningWithNL("%S: %s", name, warning.c_str());
  applications_ = std::move(read.applications);
}

std::optional<KnownApplication> ApplicationInventory::Find(std::string_view fileName,
                                                           uint32_t sizeBytes) {
  const std::lock_guard lock(mutex_);
  Refresh();
  const KnownApplication* ofAnySize = nullptr;
  for (const KnownApplication& application : applications_) {
    if (!EqualsIgnoringCase(application.file, fileName)) continue;
    const bool hasSize =
        std::any_of(application.sizes.begin(), application.sizes.end(),
                    [&](uint64_t size) { return static_cast<uint32_t>(size) == sizeBytes; });
    if (hasSize) return application;
    if (application.sizes.empty() && !ofAnySize) ofAnySize = &application;
  }
  return ofAnySize ? std::optional(*ofAnySize) : std::nullopt;
}

uint32_t ApplicationInventory::Answer(ZelContainer* parameters) {
  ZelString fileName;
  uint32_t sizeBytes = 0;
  parameters->GetString("FileName", &fileName, kNoIndex);
  parameters->GetInt32("FileSize", &sizeBytes, kNoIndex);
  parameters->Clear();

  const std::optional<KnownApplication> application = Find(fileName.Utf8(), sizeBytes);
  if (!application) return kUnknown;
  parameters->SetString("Name", application->name, kNoIndex);
  if (!application->publisher.empty())
    parameters->SetString("Publisher", application->publisher, kNoIndex);
  if (!application->version.empty())
    parameters->SetString("Version", application->version, kNoIndex);
  return kFound;
}
