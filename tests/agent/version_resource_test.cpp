#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/windows_api/pe_version.h"
#include "tests/agent/pe_builder.h"
#include "tests/agent/temporary_directory.h"
#include "windows_api.h"

namespace {

const pe::Table kEnglish = {u"040904b0",
                            {{u"OriginalFilename", u"tool.exe"}, {u"FileVersion", u"1.2.3.4"}}};
const pe::Table kGerman = {u"040704e4",
                           {{u"OriginalFilename", u"werkzeug.exe"}, {u"FileVersion", u"1,2"}}};

pe::Bytes TwoLanguages() {
  return pe::VersionResource({kEnglish, kGerman}, {{0x407, 0x4E4}, {0x409, 0x4B0}});
}

std::optional<std::vector<unsigned char>> ReadFrom(std::string_view file) {
  return ReadVersionResource([&](uint64_t offset, void* target, size_t count) {
    if (offset > file.size() || count > file.size() - offset) return false;
    std::memcpy(target, file.data() + offset, count);
    return true;
  });
}

std::optional<std::string> Text(const void* data, const std::u16string& path) {
  void* value = nullptr;
  UINT length = 0;
  if (!VerQueryValueW(data, path.c_str(), &value, &length)) return std::nullopt;
  std::u16string wide(length, u'\0');
  std::memcpy(wide.data(), value, length * sizeof(char16_t));
  return std::string(ZelString(std::basic_string_view<TCHAR>(wide)).Utf8());
}

std::optional<std::string> Binary(const void* data, const std::u16string& path) {
  void* value = nullptr;
  UINT length = 0;
  if (!VerQueryValueW(data, path.c_str(), &value, &length)) return std::nullopt;
  return std::string(static_cast<const char*>(value), length);
}

std::string WithTerminator(const std::string& text) {
  return text + '\0';
}

class VersionResource : public testing::Test {
 protected:
  ZelString Write(const pe::Bytes& bytes) {
    WriteFile(directory_.Native() / "file.dll", bytes);
    return directory_ / "file.dll";
  }

  /// The resource of the file as callers read it; empty when they get none.
  std::vector<char> Read(const ZelString& path) {
    DWORD handle = 77;
    const DWORD size = GetFileVersionInfoSizeW(path.GetTCHAR(), &handle);
    EXPECT_EQ(handle, 0u);
    std::vector<char> data(size);
    const BOOL isRead = GetFileVersionInfoW(path.GetTCHAR(), 0, size, data.data());
    EXPECT_EQ(isRead != 0, size != 0);
    return data;
  }

  TemporaryDirectory directory_;
};

TEST_F(VersionResource, IsFoundInLibrariesOf32And64BitsAndOfAnyMachine) {
  const pe::Bytes resource = TwoLanguages();
  for (const pe::Options& options :
       {pe::Options{true, 16, false, 0x8664}, pe::Options{false, 16, false, 0x14C},
        pe::Options{true, 16, true, 0xAA64}}) {
    const std::vector<char> data = Read(Write(pe::Library(resource, options)));
    EXPECT_EQ(pe::Bytes(data.begin(), data.end()), resource);
  }
}

TEST_F(VersionResource, IsAbsentFromOtherFiles) {
  const pe::Options icons = {true, 3, false, 0x8664};
  EXPECT_THAT(Read(Write(pe::Library(TwoLanguages(), icons))), testing::IsEmpty());
  EXPECT_THAT(Read(Write("a text")), testing::IsEmpty());
  EXPECT_THAT(Read(Write("")), testing::IsEmpty());
  EXPECT_THAT(Read(directory_ / "none"), testing::IsEmpty());
  EXPECT_THAT(Read(directory_ / ""), testing::IsEmpty());
  ASSERT_EQ(mkfifo((directory_.Native() / "pipe").c_str(), 0600), 0);
  EXPECT_THAT(Read(directory_ / "pipe"), testing::IsEmpty());
  EXPECT_EQ(GetFileVersionInfoSizeW(nullptr, nullptr), 0u);
}

TEST_F(VersionResource, AnswersTextsOfEachTranslation) {
  const std::vector<char> data = Read(Write(pe::Library(TwoLanguages())));
  EXPECT_EQ(Text(data.data(), u"\\StringFileInfo\\040904b0\\OriginalFilename"),
            WithTerminator("tool.exe"));
  EXPECT_EQ(Text(data.data(), u"\\StringFileInfo\\040704E4\\FileVersion"), WithTerminator("1,2"));
  EXPECT_EQ(Text(data.data(), u"\\stringfileinfo\\040904B0\\ORIGINALFILENAME"),
            WithTerminator("tool.exe"));
  EXPECT_EQ(Text(data.data(), u"\\StringFileInfo\\040904b0\\Comments"), std::nullopt);
  EXPECT_EQ(Text(data.data(), u"\\StringFileInfo\\040c04b0\\FileVersion"), std::nullopt);
  EXPECT_EQ(Text(data.data(), u"\\StringFileInfo\\040904b0\\FileVersion\\More"), std::nullopt);
}

TEST_F(VersionResource, AnswersTheTranslationsInTheirOrder) {
  const std::vector<char> data = Read(Write(pe::Library(TwoLanguages())));
  void* value = nullptr;
  UINT length = 0;
  ASSERT_NE(VerQueryValueW(data.data(), u"\\VarFileInfo\\Translation", &value, &length), 0);
  ASSERT_EQ(length, 8u);
  const std::vector<WORD> expected = {0x407, 0x4E4, 0x409, 0x4B0};
  EXPECT_EQ(std::memcmp(value, expected.data(), length), 0);
}

TEST_F(VersionResource, AnswersTheFixedPart) {
  const std::vector<char> data = Read(Write(pe::Library(TwoLanguages())));
  void* value = nullptr;
  UINT length = 0;
  ASSERT_NE(VerQueryValueW(data.data(), u"\\", &value, &length), 0);
  EXPECT_EQ(std::string(static_cast<char*>(value), length), pe::FixedPart());
}

TEST_F(VersionResource, MayLackTranslationsAndTexts) {
  const std::vector<char> bare = Read(Write(pe::Library(pe::VersionResource({}, {}))));
  ASSERT_FALSE(bare.empty());
  EXPECT_EQ(Text(bare.data(), u"\\VarFileInfo\\Translation"), std::nullopt);
  EXPECT_EQ(Text(bare.data(), u"\\StringFileInfo\\040904b0\\FileVersion"), std::nullopt);
}

TEST_F(VersionResource, TellsShortAndEmptyTextsWithTheirLength) {
  const pe::Table table = {u"000004b0", {{u"OriginalFilename", u"x"}, {u"FileVersion", u""}}};
  const std::vector<char> data =
      Read(Write(pe::Library(pe::VersionResource({table}, {{0, 0x4B0}}))));
  EXPECT_EQ(Text(data.data(), u"\\StringFileInfo\\000004b0\\OriginalFilename"),
            WithTerminator("x"));
  EXPECT_EQ(Text(data.data(), u"\\StringFileInfo\\000004b0\\FileVersion"), "");
}

TEST_F(VersionResource, CutToASmallBufferIsStillBoundedByIt) {
  const ZelString path = Write(pe::Library(TwoLanguages()));
  const DWORD size = GetFileVersionInfoSizeW(path.GetTCHAR(), nullptr);
  size_t answered = 0;
  for (DWORD cut = 0; cut < size; ++cut) {
    // As long as asked for, so that the sanitizer sees a step past it.
    const auto data = std::make_unique<char[]>(cut);
    const BOOL isRead = GetFileVersionInfoW(path.GetTCHAR(), 0, cut, data.get());
    EXPECT_EQ(isRead != 0, cut >= 6) << cut;
    if (isRead && Text(data.get(), u"\\StringFileInfo\\040704e4\\FileVersion")) ++answered;
  }
  EXPECT_GT(answered, 0u);
  EXPECT_LT(answered, size / 2);
}

TEST_F(VersionResource, MayStandAtAnOddAddress) {
  const pe::Bytes resource = TwoLanguages();
  const pe::Bytes shifted = "x" + resource;
  EXPECT_EQ(Text(shifted.data() + 1, u"\\StringFileInfo\\040904b0\\FileVersion"),
            WithTerminator("1.2.3.4"));
}

TEST_F(VersionResource, OfZerosHoldsNothing) {
  const std::vector<char> zeros(2);
  EXPECT_EQ(Text(zeros.data(), u"\\"), std::nullopt);
  EXPECT_EQ(Text(zeros.data(), u"\\VarFileInfo\\Translation"), std::nullopt);
}

TEST_F(VersionResource, RefusesMissingArguments) {
  const pe::Bytes resource = TwoLanguages();
  void* value = nullptr;
  UINT length = 0;
  EXPECT_EQ(VerQueryValueW(nullptr, u"\\", &value, &length), 0);
  EXPECT_EQ(VerQueryValueW(resource.data(), nullptr, &value, &length), 0);
  EXPECT_EQ(VerQueryValueW(resource.data(), u"\\", nullptr, &length), 0);
  EXPECT_NE(VerQueryValueW(resource.data(), u"\\", &value, nullptr), 0);
}

// Some tools count a text's bytes where its characters are meant.
TEST_F(VersionResource, BoundsATextWhoseLengthIsTooLargeByItsBlock) {
  pe::Bytes resource = TwoLanguages();
  pe::Bytes name;
  pe::PutText(&name, u"FileVersion");
  const size_t block = resource.find(name) - 6;
  resource[block + 2] = 16;
  EXPECT_EQ(Text(resource.data(), u"\\StringFileInfo\\040904b0\\FileVersion"),
            WithTerminator("1.2.3.4"));
}

TEST_F(VersionResource, CountsCharactersOfTextsThatAreMarkedAsBinary) {
  pe::Bytes resource = TwoLanguages();
  pe::Bytes name;
  pe::PutText(&name, u"FileVersion");
  const size_t block = resource.find(name) - 6;
  resource[block + 2] = 16;
  resource[block + 4] = 0;
  EXPECT_EQ(Text(resource.data(), u"\\StringFileInfo\\040904b0\\FileVersion"),
            WithTerminator("1.2.3.4"));
}

TEST_F(VersionResource, IsAbsentFromALibraryThatEndsTooEarly) {
  const pe::Bytes resource = TwoLanguages();
  const pe::Bytes file = pe::Library(resource);
  const size_t end = file.find(resource) + resource.size();
  for (size_t size = 0; size < end; ++size)
    EXPECT_FALSE(ReadFrom(std::string_view(file).substr(0, size))) << size;
  EXPECT_TRUE(ReadFrom(std::string_view(file).substr(0, end)));
}

// Queries every path on bytes of which one is damaged; the sanitizers judge.
TEST_F(VersionResource, WithAnyByteDamagedIsReadWithinItsBounds) {
  const pe::Bytes file = pe::Library(TwoLanguages());
  size_t found = 0;
  for (size_t i = 0; i < file.size(); ++i) {
    for (const int damage : {0x01, 0x80, 0xFF}) {
      pe::Bytes damaged = file;
      damaged[i] = static_cast<char>(damaged[i] ^ damage);
      const auto resource = ReadFrom(damaged);
      if (!resource) continue;
      ++found;
      std::vector<unsigned char> data(*resource);
      const size_t length = std::min<size_t>(data[0] | data[1] << 8, data.size());
      data[0] = static_cast<unsigned char>(length & 0xFF);
      data[1] = static_cast<unsigned char>(length >> 8);
      Text(data.data(), u"\\StringFileInfo\\040704e4\\FileVersion");
      Binary(data.data(), u"\\VarFileInfo\\Translation");
      Binary(data.data(), u"\\");
    }
  }
  EXPECT_GT(found, file.size());
}

}  // namespace
