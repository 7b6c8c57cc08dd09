// host/libZel: files, what they hold, and directories.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"

namespace {

constexpr int64_t kAllBits = 0xFFFFFFFF;

int AskForHandle(const std::string& function, const std::string& arguments) {
  const auto handle = AskInt(function, arguments, -1);
  if (handle >= 0) Host().Hold();
  return handle;
}

struct FakeDirectory : ZelDirectory {
  std::vector<FakeHost::DirectoryEntry> entries;
  size_t next = 0;
};

}  // namespace

int FileExists(const ZelString& path) {
  return AskInt("FileExists", Quote(path));
}

uint32_t FileGetSize(const ZelString& path) {
  return Ask32("FileGetSize", Quote(path));
}

int FileCopyNet(const ZelString& source, const ZelString& destination, int failIfExists) {
  return AskInt("FileCopyNet",
                List(Quote(source), Quote(destination), std::to_string(failIfExists)), -1);
}

int FileRenameNet(const ZelString& source, const ZelString& destination) {
  return AskInt("FileRenameNet", List(Quote(source), Quote(destination)), -1);
}

int FileDeleteNet(const ZelString& path, bool force) {
  return AskInt("FileDeleteNet", List(Quote(path), Flag(force)), -1);
}

int DirExists(const ZelString& path) {
  return AskInt("DirExists", Quote(path));
}

int DirCreate(const ZelString& path) {
  return AskInt("DirCreate", Quote(path));
}

int DirRename(const ZelString& source, const ZelString& destination) {
  return AskInt("DirRename", List(Quote(source), Quote(destination)));
}

int DirDelete(const ZelString& path, int recursive, int keepRoot) {
  return AskInt("DirDelete",
                List(Quote(path), std::to_string(recursive), std::to_string(keepRoot)));
}

bool PathCreate(const ZelString& path) {
  return Ask("PathCreate", Quote(path)) != 0;
}

ZelString CompletePath(const ZelString& path) {
  return AskText("CompletePath", Quote(path));
}

int64_t FileGetSize64(const ZelString& path) {
  return Ask("FileGetSize64", Quote(path), -1);
}

uint32_t FileGetWriteTime(const ZelString& path) {
  return Ask32("FileGetWriteTime", Quote(path), kAllBits);
}

uint32_t FileGetMode(const ZelString& path) {
  return Ask32("FileGetMode", Quote(path), 0);
}

uint32_t FileGetAttributes(const ZelString& path) {
  return Ask32("FileGetAttributes", Quote(path), kAllBits);
}

int FileIsAscii(const ZelString& path) {
  return AskInt("FileIsAscii", Quote(path), 0);
}

ZelString FileMd5(const ZelString& path) {
  return AskText("FileMd5", Quote(path));
}

int FileOpen(const ZelString& path, int mode) {
  return AskForHandle("FileOpen", List(Quote(path), std::to_string(mode)));
}

uint32_t FileRead(int handle, char* buffer, uint32_t sizeBytes) {
  FakeHost& host = Host();
  const std::string arguments = List(std::to_string(handle), std::to_string(sizeBytes));
  const FakeHost::ScriptedAnswer answer = host.Ask("FileRead", arguments, kAllBits);
  if (answer.bytes.size() > sizeBytes) {
    host.Complain("more bytes are scripted than FileRead(" + arguments + ") has room for");
    return kAllBits;
  }
  // A real read may use the whole room, whatever it returns.
  std::memset(buffer, 0xEE, sizeBytes);
  std::memcpy(buffer, answer.bytes.data(), answer.bytes.size());
  return static_cast<uint32_t>(answer.value);
}

int FileCreate(const ZelString& path, int mode) {
  return AskForHandle("FileCreate", List(Quote(path), std::to_string(mode)));
}

uint32_t FileWrite(int handle, const char* bytes, uint32_t sizeBytes) {
  const std::string arguments =
      List(std::to_string(handle), QuoteBytes({bytes, sizeBytes}), std::to_string(sizeBytes));
  return Ask32("FileWrite", arguments, kAllBits);
}

int FileClose(int handle) {
  std::array<char, 16> line;
  std::snprintf(line.data(), line.size(), "FileClose(%d)", handle % 1000);
  Host().NoteRelease(line.data());
  return 0;
}

int FileCopy(const ZelString& source, const ZelString& destination, int failIfExists) {
  return AskInt("FileCopy", List(Quote(source), Quote(destination), std::to_string(failIfExists)),
                -1);
}

int FileDelete(const ZelString& path, int force) {
  return AskInt("FileDelete", List(Quote(path), std::to_string(force)), -1);
}

bool File::FileIsValid() const {
  return Ask("File::FileIsValid", Quote(path_)) != 0;
}

DIR* OpenDirectory(const ZelString& path) {
  FakeHost::ScriptedAnswer answer = Host().Ask("OpenDirectory", Quote(path));
  if (!answer.isDirectory) return nullptr;
  auto directory = std::make_unique<FakeDirectory>();
  directory->entries = std::move(answer.entries);
  Host().Hold();
  return directory.release();
}

dirent* ReadDirectory(DIR* directory) {
  auto& fake = static_cast<FakeDirectory&>(*directory);
  if (!Host().NoteAndTest("ReadDirectory")) return nullptr;
  if (fake.next == fake.entries.size()) return nullptr;
  const FakeHost::DirectoryEntry& entry = fake.entries[fake.next++];
  fake.entry.name = entry.name.GetTCHAR();
  fake.attributes = entry.attributes;
  return &fake.entry;
}

void CloseDirectory(DIR* directory) {
  Host().NoteRelease("CloseDirectory");
  delete static_cast<FakeDirectory*>(directory);
}

bool LoadFileToString(const ZelString& path, ZelString* text) {
  const FakeHost::ScriptedAnswer answer = Host().Ask("LoadFileToString", Quote(path));
  if (!answer.value) return false;
  *text = answer.text;
  return true;
}

bool SaveFileFromString(const ZelString& path, const ZelString& text) {
  return Ask("SaveFileFromString", List(Quote(path), Quote(text))) != 0;
}

ZelVector<ZelString> DirListFiles(const ZelString& directory, bool recursive, bool withPath,
                                  bool filesOnly) {
  return Host()
      .Ask("DirListFiles", List(Quote(directory), Flag(recursive), Flag(withPath), Flag(filesOnly)))
      .list;
}
