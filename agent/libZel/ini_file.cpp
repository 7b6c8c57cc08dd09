#include "libZel/ini_file.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agent/libZel/ascii.h"
#include "agent/libZel/blanks.h"
#include "agent/libZel/boundary.h"
#include "agent/libZel/edit_failures.h"
#include "agent/libZel/file_checks.h"
#include "agent/libZel/text_file.h"
#include "agent/libZel/text_lines.h"

namespace {

// A name in a section; sections themselves are names in section `kNoSection`.
struct Key {
  uint32_t section;
  std::string_view name;

  friend bool operator==(const Key& a, const Key& b) {
    return a.section == b.section && EqualsIgnoringCase(a.name, b.name);
  }
};

constexpr uint32_t kNoSection = 0xFFFFFFFF;

// FNV-1a.
struct KeyHash {
  size_t operator()(const Key& key) const {
    uint64_t hash = 0xCBF29CE484222325 ^ key.section;
    for (const char c : key.name) {
      hash = (hash ^ static_cast<unsigned char>(AsciiLower(c))) * 0x100000001B3;
    }
    return static_cast<size_t>(hash ^ (hash >> 32));
  }
};

struct IniEntry {
  std::string_view name;
  std::string_view value;
  uint32_t line = 0;
  uint32_t section = 0;
};

struct Section {
  size_t firstInOrder = 0;
  size_t count = 0;
  // It holds a line that could not be changed.
  bool isBlocked = false;
};

// The name in a line "[name]", whatever stands behind it.
std::optional<std::string_view> SectionName(std::string_view line) {
  if (!line.starts_with('[')) return std::nullopt;
  const size_t end = line.find(']');
  if (end == std::string_view::npos) return std::nullopt;
  return TrimBlanks(line.substr(1, end - 1));
}

bool IsEntry(std::string_view line) {
  return !line.empty() && line[0] != ';' && line[0] != '#' && line[0] != '[' &&
         line.find('=') != std::string_view::npos;
}

}  // namespace

struct IniFile::Content {
 public:
  Content(std::shared_ptr<const TextLines> lines, const edit_failures::Lines& unchangeable)
      : lines_(std::move(lines)) {
    Parse(lines_->Text(&buffer_), unchangeable);
    PutInOrder();
  }

  const Section* FindSection(const ZelString& name) const {
    const auto found = numbers_.find({kNoSection, name.Utf8()});
    if (found == numbers_.end()) return nullptr;
    const Section& section = sections_[found->second];
    return section.isBlocked ? nullptr : &section;
  }

  const IniEntry* EntryAt(const Section& section, unsigned index) const {
    const bool exists = index >= 1 && index <= section.count;
    return exists ? &entries_[order_[section.firstInOrder + index - 1]] : nullptr;
  }

  const IniEntry* FindEntry(const ZelString& sectionName, const ZelString& name) const {
    const Section* const section = FindSection(sectionName);
    if (section == nullptr) return nullptr;
    const auto number = static_cast<uint32_t>(section - sections_.data());
    const auto found = numbers_.find({number, name.Utf8()});
    return found == numbers_.end() ? nullptr : &entries_[found->second];
  }

 private:
  void Parse(std::string_view text, const edit_failures::Lines& unchangeable) {
    uint32_t section = kNoSection;
    for (uint32_t line = 1; !text.empty(); ++line) {
      const size_t end = std::min(text.find('\n'), text.size());
      std::string_view content = text.substr(0, end);
      text.remove_prefix(std::min(end + 1, text.size()));
      if (content.ends_with('\r')) content.remove_suffix(1);
      content = TrimBlanks(content);

      if (const auto name = SectionName(content)) section = NumberOf(*name);
      if (section == kNoSection) continue;
      if (unchangeable.Contain(line)) sections_[section].isBlocked = true;
      if (IsEntry(content)) AddEntry(section, content, line);
    }
  }

  uint32_t NumberOf(std::string_view sectionName) {
    const auto number = static_cast<uint32_t>(sections_.size());
    const auto [found, isNew] = numbers_.try_emplace({kNoSection, sectionName}, number);
    if (isNew) sections_.emplace_back();
    return found->second;
  }

  void AddEntry(uint32_t section, std::string_view content, uint32_t line) {
    const size_t equals = content.find('=');
    const std::string_view name = TrimBlanks(content.substr(0, equals));
    if (name.empty()) return;
    const auto number = static_cast<uint32_t>(entries_.size());
    if (!numbers_.try_emplace({section, name}, number).second) return;
    entries_.push_back({name, TrimBlanks(content.substr(equals + 1)), line, section});
    ++sections_[section].count;
  }

  // Sections may be scattered over the file: lists the entries of each one after the other.
  void PutInOrder() {
    size_t next = 0;
    std::vector<size_t> places;
    places.reserve(sections_.size());
    for (Section& section : sections_) {
      section.firstInOrder = next;
      places.push_back(next);
      next += section.count;
    }
    order_.resize(entries_.size());
    for (size_t i = 0; i < entries_.size(); ++i) {
      order_[places[entries_[i].section]++] = static_cast<uint32_t>(i);
    }
  }

  // What the names and values stand in: the lines' own bytes, or the text converted.
  std::shared_ptr<const TextLines> lines_;
  std::string buffer_;

  std::unordered_map<Key, uint32_t, KeyHash> numbers_;
  std::vector<Section> sections_;
  std::vector<IniEntry> entries_;
  // Indices of `entries_`, section by section.
  std::vector<uint32_t> order_;
};

namespace {
// No file has no lines: then an edit of one that has appeared since is refused.
std::shared_ptr<const TextLines> ReadIniFile(const ZelString& path, const NativePath& native) {
  std::string bytes;
  const Outcome outcome = native ? ReadTextFile(native.path, &bytes) : InvalidName(native);
  if (outcome) return std::make_shared<const TextLines>(std::move(bytes));
  if (outcome.code != file_system::kErrorNotFound) {
    LibraryLog().WarningWithNL("reading of %S failed: %S", path, outcome.reason);
  }
  return std::make_shared<const TextLines>();
}
}  // namespace
IniFile::IniFile(const ZelString& path) : File(path) {
  Guarded("IniFile", 0, [&] {
    const NativePath native = ToNativeFile(path);
    lines_ = ReadIniFile(path, native);
    const auto unchangeable = edit_failures::Find(native.path, lines_->Stamp());
    content_ = std::make_unique<const Content>(lines_, unchangeable);
    return 0;
  });
}
IniFile::~IniFile() = default;
int IniFile::GetEntryName(const ZelString& section, unsigned index, ZelString& name) const {
  return Guarded("GetEntryName", 0, [&] {
    const Section* const found = content_ ? content_->FindSection(section) : nullptr;
    const IniEntry* const entry = found != nullptr ? content_->EntryAt(*found, index) : nullptr;
    if (entry == nullptr) return 0;
    name = ZelString(entry->name);
    return 1;
  });
}
int IniFile::GetEntryValue(const ZelString& section, const ZelString& name, ZelString& value,
                           const ZelString& defaultValue) const {
  return Guarded("GetEntryValue", 0, [&] {
    const IniEntry* const entry = content_ ? content_->FindEntry(section, name) : nullptr;
    value = entry != nullptr ? ZelString(entry->value) : defaultValue;
    return entry != nullptr ? 1 : 0;
  });
}
uint32_t IniFile::FindEntryLine(const ZelString& section, const ZelString& name) const {
  return Guarded("FindEntryLine", uint32_t{0}, [&] {
    const IniEntry* const entry = content_ ? content_->FindEntry(section, name) : nullptr;
    return entry != nullptr ? entry->line : 0;
  });
}
