#include "agent/libZel/directory_reader.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string_view>

#include "agent/libZel/platform/posix/byte_names.h"
#include "agent/libZel/platform/posix/directory_stream.h"
#include "agent/libZel/platform/posix/stat_facts.h"

namespace file_system {

struct DirectoryReader::Implementation {
  void SetName(std::string_view bytes) {
    name = bytes;
    isAscii = std::all_of(name.begin(), name.end(), [](char c) { return (c & 0x80) == 0; });
    if (isAscii) {
      wide.assign(name.begin(), name.end());
      return;
    }
    text = TextOfBytes(name);
    wide = text.GetTCHAR();
  }

  void Look() {
    facts.emplace();
    struct stat info;
    if (type == DT_UNKNOWN) {
      const int result = fstatat(dirfd(stream.get()), name.data(), &info, AT_SYMLINK_NOFOLLOW);
      type = result != 0             ? DT_REG
             : S_ISLNK(info.st_mode) ? DT_LNK
             : S_ISDIR(info.st_mode) ? DT_DIR
                                     : DT_REG;
    }
    uint32_t attributes = AttributesOfName(name);
    if (type == DT_LNK) attributes |= kLinkAttribute;
    if (fstatat(dirfd(stream.get()), name.data(), &info, 0) == 0) {
      facts = ::FactsOf(info, attributes);
      return;
    }
    if (type == DT_DIR) attributes |= kDirectoryAttribute;
    facts->attributes = CompleteAttributes(attributes);
  }

  DirectoryStream stream;
  // Of the entry. The bytes lie in the stream, terminated.
  std::string_view name;
  unsigned char type = DT_UNKNOWN;
  bool isAscii = true;
  ZelString text;
  std::basic_string<TCHAR> wide;
  std::optional<FileFacts> facts;
};

DirectoryReader::DirectoryReader() : implementation_(std::make_unique<Implementation>()) {}
DirectoryReader::~DirectoryReader() = default;

int DirectoryReader::Open(const std::filesystem::path& path) {
  implementation_->stream.reset(opendir(path.c_str()));
  return implementation_->stream ? 0 : errno;
}

bool DirectoryReader::Next(int* error) {
  Implementation& entry = *implementation_;
  errno = 0;
  const dirent* const found = readdir(entry.stream.get());
  *error = found == nullptr ? errno : 0;
  entry.facts.reset();
  if (found == nullptr) return false;
  entry.SetName(found->d_name);
  entry.type = found->d_type;
  return true;
}

const TCHAR* DirectoryReader::Name() const {
  return implementation_->wide.c_str();
}

void DirectoryReader::AppendName(std::string* wtf8) const {
  const Implementation& entry = *implementation_;
  wtf8->append(entry.isAscii ? entry.name : entry.text.Utf8());
}

uint32_t DirectoryReader::ListedAttributes() {
  Implementation& entry = *implementation_;
  if (entry.type == DT_LNK || entry.type == DT_UNKNOWN) return Facts().attributes;
  const uint32_t attributes = AttributesOfName(entry.name);
  return CompleteAttributes(entry.type == DT_DIR ? attributes | kDirectoryAttribute : attributes);
}

uint32_t DirectoryReader::Attributes() {
  return implementation_->type == DT_DIR ? ListedAttributes() : Facts().attributes;
}

const FileFacts& DirectoryReader::Facts() {
  if (!implementation_->facts) implementation_->Look();
  return *implementation_->facts;
}

bool DirectoryReader::IsText() {
  if (!Facts().isReadable) return false;
  return IsTextAt(dirfd(implementation_->stream.get()), implementation_->name.data());
}

}  // namespace file_system
