#include "agent/libZelMarlin/script_source.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "libZel/file.h"
#include "libZel/path.h"

namespace {

constexpr size_t kMostBytes = 16 * 1024 * 1024;
constexpr uint32_t kReadFailed = ~0U;
constexpr std::string_view kUtf8Mark = "\xEF\xBB\xBF";
constexpr char kCompiledMark = '\x1B';

ScriptSource Failure(MarlinError error, const ZelString& path, const char* what) {
  ScriptSource failed;
  failed.error = error;
  failed.reason = FileNameOf(path) + ": " + what;
  return failed;
}

bool IsUtf16OrUtf32(std::string_view text) {
  if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF")) return true;
  // Without a mark the first characters, which are ASCII in any script, tell.
  return text.substr(0, 4).find('\0') != std::string_view::npos;
}

/// Drops a first line that is for the system's program loader; its end stays, so that the lines
/// keep their numbers.
void DropLoaderLine(std::string* text) {
  if (text->starts_with('#')) text->erase(0, std::min(text->find_first_of("\r\n"), text->size()));
}

/// Closes what `FileOpen` has opened.
struct OpenedFile {
  explicit OpenedFile(const ZelString& path) : handle(FileOpen(path, 0)) {}
  ~OpenedFile() {
    if (handle != -1) FileClose(handle);
  }
  OpenedFile(const OpenedFile&) = delete;
  OpenedFile& operator=(const OpenedFile&) = delete;

  const int handle;
};

bool ReadAll(int handle, std::string* text, bool* tooLarge) {
  std::array<char, 32768> buffer;
  while (true) {
    const uint32_t count = FileRead(handle, buffer.data(), buffer.size());
    if (count == kReadFailed) return false;
    if (count == 0) return true;
    if (text->size() + count > kMostBytes) {
      *tooLarge = true;
      return false;
    }
    text->append(buffer.data(), count);
  }
}

}  // namespace

ZelString FileNameOf(const ZelString& path) {
  ZelString name;
  ZelString extension;
  SplitPath(path, nullptr, nullptr, &name, &extension);
  return name + extension;
}

ScriptSource ReadScriptSource(const ZelString& path) {
  const OpenedFile file(path);
  if (file.handle == -1) return Failure(kMarlinNotReadable, path, "the file cannot be opened");

  ScriptSource source;
  bool tooLarge = false;
  const bool isRead = ReadAll(file.handle, &source.text, &tooLarge);
  if (tooLarge) return Failure(kMarlinNotReadable, path, "the file is larger than 16 MiB");
  if (!isRead) return Failure(kMarlinNotReadable, path, "the file cannot be read");

  if (IsUtf16OrUtf32(source.text)) {
    return Failure(kMarlinNotText, path, "the text is in UTF-16 or UTF-32, or is no text");
  }
  if (source.text.starts_with(kUtf8Mark)) source.text.erase(0, kUtf8Mark.size());
  DropLoaderLine(&source.text);
  const size_t start = source.text.find_first_not_of("\r\n");
  if (start != std::string::npos && source.text[start] == kCompiledMark) {
    return Failure(kMarlinNotText, path, "the file holds compiled code");
  }
  return source;
}
