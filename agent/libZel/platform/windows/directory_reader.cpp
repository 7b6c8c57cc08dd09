#include "agent/libZel/directory_reader.h"

#include <windows.h>

#include <optional>

#include "agent/libZel/platform/windows/find_facts.h"

namespace file_system {
namespace {

class Search {
 public:
  Search() = default;
  ~Search() {
    if (handle_ != INVALID_HANDLE_VALUE) FindClose(handle_);
  }
  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;

  bool First(const std::filesystem::path& pattern, WIN32_FIND_DATAW* data) {
    handle_ = FindFirstFileExW(pattern.c_str(), FindExInfoBasic, data, FindExSearchNameMatch,
                               nullptr, FIND_FIRST_EX_LARGE_FETCH);
    return handle_ != INVALID_HANDLE_VALUE;
  }
  bool Next(WIN32_FIND_DATAW* data) { return FindNextFileW(handle_, data); }

 private:
  HANDLE handle_ = INVALID_HANDLE_VALUE;
};

bool IsExistingDirectory(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

}  // namespace

struct DirectoryReader::Implementation {
  std::filesystem::path EntryPath() const { return directory / data.cFileName; }

  std::filesystem::path directory;
  Search search;
  // Of the entry.
  WIN32_FIND_DATAW data{};
  // The search starts with its first entry.
  bool hasFirst = false;
  bool isEmpty = false;
  std::optional<FileFacts> facts;
};

DirectoryReader::DirectoryReader() : implementation_(std::make_unique<Implementation>()) {}
DirectoryReader::~DirectoryReader() = default;

int DirectoryReader::Open(const std::filesystem::path& path) {
  Implementation& self = *implementation_;
  self.directory = path;
  self.hasFirst = self.search.First(path / L"*", &self.data);
  if (self.hasFirst) return 0;
  const DWORD error = GetLastError();
  // The root of a volume has no entries for itself and its parent.
  self.isEmpty = error == ERROR_FILE_NOT_FOUND && IsExistingDirectory(path);
  return self.isEmpty ? 0 : static_cast<int>(error);
}

bool DirectoryReader::Next(int* error) {
  Implementation& self = *implementation_;
  self.facts.reset();
  *error = 0;
  if (self.isEmpty) return false;
  if (self.hasFirst) {
    self.hasFirst = false;
    return true;
  }
  if (self.search.Next(&self.data)) return true;
  const DWORD reason = GetLastError();
  *error = reason == ERROR_NO_MORE_FILES ? 0 : static_cast<int>(reason);
  return false;
}

const TCHAR* DirectoryReader::Name() const {
  return implementation_->data.cFileName;
}

void DirectoryReader::AppendName(std::string* wtf8) const {
  wtf8->append(ZelString(implementation_->data.cFileName).Utf8());
}

uint32_t DirectoryReader::ListedAttributes() {
  return AttributesOf(EntryOf(implementation_->data));
}

uint32_t DirectoryReader::Attributes() {
  return ListedAttributes();
}

const FileFacts& DirectoryReader::Facts() {
  Implementation& self = *implementation_;
  if (!self.facts) self.facts = ::FactsOf(EntryOf(self.data), self.EntryPath());
  return *self.facts;
}

bool DirectoryReader::IsText() {
  return Facts().isReadable && IsTextFile(implementation_->EntryPath());
}

}  // namespace file_system
