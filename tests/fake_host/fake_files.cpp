// host/libZel: what files hold, and directories.

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tests/fake_host/fake_host.h"
#include "tests/fake_host/transcript.h"

namespace {

constexpr int64_t kAllBits = 0xFFFFFFFF;

int64_t Ask(const std::string& function, const std::string& arguments, int64_t failure) {
  return FakeHost::Current().Ask(function, arguments, failure).value;
}

uint32_t Ask32(const std::string& function, const std::string& arguments, int64_t failure) {
  return static_cast<uint32_t>(Ask(function, arguments, failure));
}

struct FakeDirectory : ZelDirectory {
  std::vector<FakeHost::DirectoryEntry> entries;
  size_t next = 0;
};

}  // namespace

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
  return static_cast<int>(Ask("FileIsAscii", Quote(path), 0));
}

ZelString FileMd5(const ZelString& path) {
  return FakeHost::Current().Ask("FileMd5", Quote(path)).text;
}

int FileOpen(const ZelString& path, int mode) {
  return static_cast<int>(Ask("FileOpen", List(Quote(path), std::to_string(mode)), -1));
}

uint32_t FileRead(int handle, char* buffer, uint32_t sizeBytes) {
  FakeHost& host = FakeHost::Current();
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
  return static_cast<int>(Ask("FileCreate", List(Quote(path), std::to_string(mode)), -1));
}

uint32_t FileWrite(int handle, const char* bytes, uint32_t sizeBytes) {
  const std::string arguments =
      List(std::to_string(handle), QuoteBytes({bytes, sizeBytes}), std::to_string(sizeBytes));
  return Ask32("FileWrite", arguments, kAllBits);
}

int FileClose(int handle) {
  std::array<char, 16> line;
  std::snprintf(line.data(), line.size(), "FileClose(%d)", handle % 1000);
  FakeHost::Current().NoteRelease(line.data());
  return 0;
}

int FileCopy(const ZelString& source, const ZelString& destination, int failIfExists) {
  return static_cast<int>(
      Ask("FileCopy", List(Quote(source), Quote(destination), std::to_string(failIfExists)), -1));
}

int FileDelete(const ZelString& path, int force) {
  return static_cast<int>(Ask("FileDelete", List(Quote(path), std::to_string(force)), -1));
}

bool File::FileIsValid() const {
  return FakeHost::Current().Ask("File::FileIsValid", Quote(path_)).value != 0;
}

DIR* OpenDirectory(const ZelString& path) {
  FakeHost::ScriptedAnswer answer = FakeHost::Current().Ask("OpenDirectory", Quote(path));
  if (!answer.isDirectory) return nullptr;
  auto directory = std::make_unique<FakeDirectory>();
  directory->entries = std::move(answer.entries);
  return directory.release();
}

dirent* ReadDirectory(DIR* directory) {
  auto& fake = static_cast<FakeDirectory&>(*directory);
  if (!FakeHost::Current().NoteAndTest("ReadDirectory")) return nullptr;
  if (fake.next == fake.entries.size()) return nullptr;
  const FakeHost::DirectoryEntry& entry = fake.entries[fake.next++];
  fake.entry.name = entry.name.GetTCHAR();
  fake.attributes = entry.attributes;
  return &fake.entry;
}

void CloseDirectory(DIR* directory) {
  FakeHost::Current().NoteRelease("CloseDirectory");
  delete static_cast<FakeDirectory*>(directory);
}
