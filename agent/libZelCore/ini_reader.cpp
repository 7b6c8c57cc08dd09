#include "agent/libZelCore/ini_reader.h"

#include <map>
#include <utility>

#include "agent/libZel/blanks.h"

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";
constexpr std::string_view kBlanks = " \t\r";

class Reader {
 public:
  void ReadLine(std::string_view line) {
    ++line_;
    line = TrimBlanks(line, kBlanks);
    if (line.empty() || line[0] == '#' || line[0] == ';') return;
    if (line[0] == '[') {
      ReadSection(line);
    } else {
      ReadEntry(line);
    }
  }

  IniDocument Take() { return std::move(document_); }

 private:
  void ReadSection(std::string_view line) {
    section_ = line.back() == ']' ? TrimBlanks(line.substr(1, line.size() - 2), kBlanks)
                                  : std::string_view();
    if (section_.empty()) return Fail("a section is written [name]");
    document_.sections.push_back({section_, line_});
  }

  void ReadEntry(std::string_view line) {
    const size_t equals = line.find('=');
    if (equals == std::string_view::npos) return Fail("neither [section] nor key = value");
    const std::string_view key = TrimBlanks(line.substr(0, equals), kBlanks);
    if (key.empty()) return Fail("there is no key before the equals sign");
    if (section_.empty()) return Fail("\"" + std::string(key) + "\" stands outside any section");

    const auto [first, isNew] = seen_.try_emplace({section_, key}, line_);
    if (!isNew) {
      return Fail("\"" + std::string(key) + "\" is set already in line " +
                  std::to_string(first->second));
    }
    document_.entries.push_back(
        {section_, key, TrimBlanks(line.substr(equals + 1), kBlanks), line_});
  }

  void Fail(const std::string& what) {
    document_.errors.push_back("line " + std::to_string(line_) + ": " + what);
  }

  IniDocument document_;
  std::map<std::pair<std::string_view, std::string_view>, size_t> seen_;
  std::string_view section_;
  size_t line_ = 0;
};

}  // namespace

IniDocument ReadIni(std::string_view text) {
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  Reader reader;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    reader.ReadLine(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return reader.Take();
}
