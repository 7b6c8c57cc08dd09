// INI files of any content, and edits of their lines. What the index says of an entry must stand in
// its line, and an edit must change no byte but those of its line. The first byte of the input
// chooses the line; the rest is the file.

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>

#include "agent/libZel/text_lines.h"
#include "libZel/ini_file.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/scratch.h"

namespace {

void CheckEntries(const IniFile& file, const TextLines& lines, const ZelString& section) {
  uint32_t before = 0;
  ZelString name;
  for (unsigned index = 1; file.GetEntryName(section, index, name) == 1; ++index) {
    const uint32_t line = file.FindEntryLine(section, name);
    Require(line > before && lines.Line(line).has_value());
    before = line;
    ZelString value;
    Require(file.GetEntryValue(section, name, value) == 1);
    Require(!name.IsEmpty() && name.Find("\n") == ZelString::kNotFound);
    Require(name.Find("=") == ZelString::kNotFound && value.Find("\n") == ZelString::kNotFound);
  }
}

void CheckInsertion(const std::string& bytes, unsigned line) {
  const TextLines before(bytes);
  TextLines lines(bytes);
  if (!lines.Insert(line, "; x\r\n")) return Require(lines.Bytes() == bytes);
  // The new line taken out again leaves the file, but for a line end that was missing.
  const std::string inserted = lines.Bytes();
  Require(inserted.size() > bytes.size() && lines.Line(line).has_value());
  Require(lines.Delete(line));
  if (before.Line(line)) return Require(lines.Bytes() == bytes);
  Require(inserted.starts_with(bytes) && lines.Bytes().starts_with(bytes));
}

void CheckDeletion(const std::string& bytes, unsigned line) {
  TextLines lines(bytes);
  const TextLines before(bytes);
  const auto deleted = before.Line(line);
  Require(lines.Delete(line) == deleted.has_value());
  Require(lines.Bytes().size() + (deleted ? deleted->size() : 0) == bytes.size());
}

// What the text is read as, written again, gives the bytes of the line.
void CheckRoundTrip(const TextLines& lines) {
  std::string buffer;
  const ZelString text(lines.Text(&buffer));
  std::string mark;
  for (const std::string_view known : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"}) {
    if (lines.Bytes().starts_with(known)) mark = known;
  }
  TextLines copy{mark};
  Require(copy.Insert(1, text));
  const bool isInHalf = mark.size() == 2 && lines.Bytes().size() % 2 != 0;
  Require(copy.Bytes() == lines.Bytes().substr(0, lines.Bytes().size() - (isInHalf ? 1 : 0)));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const unsigned line = data[0] % 16;
  const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
  static const Scratch scratch;
  const std::filesystem::path path = scratch / "a.ini";
  WriteBytes(path, bytes);

  const TextLines lines(bytes);
  IniFile file(path.native());
  for (const char* section : {"RunOnce", "RUN", "", "a", "s"}) CheckEntries(file, lines, section);
  CheckRoundTrip(lines);
  CheckInsertion(bytes, line);
  CheckDeletion(bytes, line);

  // On the disk too, for one in sixteen: it is slow.
  if (data[0] / 16 == 1) {
    Require(file.DeleteLine(line) == (lines.Line(line) ? 1 : 0));
    Require(std::filesystem::file_size(path) ==
            bytes.size() - lines.Line(line).value_or(std::string_view()).size());
  }
  return 0;
}
