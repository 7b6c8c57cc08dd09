#include "agent/libZel/file_facts.h"

#include "agent/libZel/boundary.h"
#include "agent/libZel/directory_listing.h"
#include "agent/libZel/native_path.h"
#include "agent/libZel/path_parts.h"
#include "libZel/file.h"

namespace {

using file_system::DirectoryReader;

FileFacts FactsOfPath(const ZelString& path) {
  const NativePath native = ToNativePath(path);
  if (!native) return {};
  const FileFacts facts = file_system::FactsOf(native.path);
  // What ends in a separator is a directory, even where none is.
  const bool namesDirectory = IsPathSeparator(path.Utf8().back());
  return namesDirectory && !IsDirectory(facts) ? FileFacts{} : facts;
}

FileFacts Facts(const ZelString& path) {
  DirectoryReader* const reader = ReaderOfEntry(path);
  return reader != nullptr ? reader->Facts() : FactsOfPath(path);
}

bool IsText(const ZelString& path) {
  if (DirectoryReader* const reader = ReaderOfEntry(path)) return reader->IsText();
  return FactsOfPath(path).isReadable && file_system::IsTextFile(ToNativePath(path).path);
}

}  // namespace

uint32_t FileGetAttributes(const ZelString& path) {
  return Guarded("FileGetAttributes", kNoAttributes, [&] {
    DirectoryReader* const reader = ReaderOfEntry(path);
    return reader != nullptr ? reader->Attributes() : FactsOfPath(path).attributes;
  });
}

int64_t FileGetSize64(const ZelString& path) {
  return Guarded("FileGetSize64", kUnknownSize, [&] { return Facts(path).sizeBytes; });
}

uint32_t FileGetWriteTime(const ZelString& path) {
  return Guarded("FileGetWriteTime", kUnknownTime, [&] { return Facts(path).writeTime; });
}

uint32_t FileGetMode(const ZelString& path) {
  return Guarded("FileGetMode", kUnknownMode, [&] { return Facts(path).mode; });
}

int FileIsAscii(const ZelString& path) {
  return Guarded("FileIsAscii", 0, [&] { return IsText(path) ? 1 : 0; });
}

bool File::FileIsValid() const {
  return FileIsAscii(path_) != 0;
}
