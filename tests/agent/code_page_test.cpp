#include "agent/windows_api/code_page.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <string_view>

#include "windows_api.h"

namespace {

using namespace std::string_literals;

int Count(const auto& text) {
  return static_cast<int>(text.size());
}

std::u16string ToWide(UINT codePage, const std::string& bytes) {
  const int size = MultiByteToWideChar(codePage, 0, bytes.data(), Count(bytes), nullptr, 0);
  std::u16string wide(static_cast<size_t>(size), u'\0');
  EXPECT_EQ(MultiByteToWideChar(codePage, 0, bytes.data(), Count(bytes), wide.data(), size), size);
  return wide;
}

std::string ToBytes(UINT codePage, const std::u16string& wide, bool* usedDefault = nullptr,
                    const char* defaultChar = nullptr) {
  BOOL used = 7;
  const int size =
      WideCharToMultiByte(codePage, 0, wide.data(), Count(wide), nullptr, 0, defaultChar, nullptr);
  std::string bytes(static_cast<size_t>(size), '\0');
  EXPECT_EQ(WideCharToMultiByte(codePage, 0, wide.data(), Count(wide), bytes.data(), size,
                                defaultChar, &used),
            size);
  EXPECT_TRUE(used == 0 || used == 1);
  if (usedDefault) *usedDefault = used == 1;
  return bytes;
}

std::string AllBytes() {
  std::string bytes;
  for (int byte = 0; byte < 256; ++byte) bytes.push_back(static_cast<char>(byte));
  return bytes;
}

TEST(CodePage1252, GivesEveryByteAMeaningOfItsOwn) {
  const std::u16string wide = ToWide(1252, AllBytes());
  ASSERT_EQ(wide.size(), 256u);
  EXPECT_EQ(wide.substr(0x41, 2), u"AB");
  EXPECT_EQ(wide.substr(0x80, 5), u"\u20AC\u0081\u201A\u0192\u201E");
  for (const char16_t undefined : {0x81, 0x8D, 0x8F, 0x90, 0x9D})
    EXPECT_EQ(wide[undefined], undefined);
  EXPECT_EQ(wide[0xFF], u'ÿ');

  bool usedDefault = true;
  EXPECT_EQ(ToBytes(1252, wide, &usedDefault), AllBytes());
  EXPECT_FALSE(usedDefault);
}

TEST(CodePage1252, PutsAQuestionMarkForWhatItLacks) {
  bool usedDefault = false;
  EXPECT_EQ(ToBytes(1252, u"a\u0100\u0080b", &usedDefault),
            "a?\x80"
            "b");
  EXPECT_TRUE(usedDefault);
  EXPECT_EQ(ToBytes(1252, u"日x", &usedDefault, "#"), "#x");
  EXPECT_TRUE(usedDefault);
}

TEST(CodePage1252, PutsOneMarkForEachHalfOfAPair) {
  EXPECT_EQ(ToBytes(1252, u"\U0001F600x"), "??x");
}

TEST(CodePage1253, LeavesBytesWithoutMeaningAboveTheControlsToTheReplacement) {
  EXPECT_EQ(ToWide(1253, "\xD2\x81\xC1"), u"\uFFFD\u0081Α");
  bool usedDefault = false;
  EXPECT_EQ(ToBytes(1253, u"\uFFFD", &usedDefault), "?");
  EXPECT_TRUE(usedDefault);
}

TEST(CodePage1258, KeepsLettersAndMarksApart) {
  EXPECT_EQ(ToWide(1258, "a\xCC"), u"a\u0300");
  EXPECT_EQ(ToBytes(1258, u"a\u0300"), "a\xCC");
}

TEST(CodePage932, ConvertsBothWays) {
  const std::string bytes = "A\\~\x82\xA0\x93\xFA\x96\x7B\xB1";
  EXPECT_EQ(ToWide(932, bytes), u"A\\~あ日本ｱ");
  EXPECT_EQ(ToBytes(932, u"A\\~あ日本ｱ"), bytes);
}

TEST(CodePage932, ReplacesWhatMeansNothing) {
  // A first byte at the end, and one before a byte that cannot follow it.
  EXPECT_EQ(ToWide(932, "x\x82"), u"x\u0082");
  EXPECT_EQ(ToWide(932, "x\xE0"), u"x\uFFFD");
  EXPECT_EQ(ToWide(932, "\x82 \x82\xA0"), u"\u0082 あ");
  EXPECT_EQ(ToWide(932,
                   "\xFF"
                   "a"),
            u"\uFFFD"
            u"a");
  bool usedDefault = false;
  EXPECT_EQ(ToBytes(932, u"あ\U0001F600é\xD800い\xDB40\xDC41", &usedDefault),
            "\x82\xA0????\x82\xA2??");
  EXPECT_TRUE(usedDefault);
}

TEST(CodePage932, ConvertsLongTextsThatAreNoMultipleOfAnything) {
  std::string bytes;
  std::u16string wide;
  for (int i = 0; i < 5000; ++i) {
    bytes += i % 3 == 0 ? "x" : "\x82\xA0";
    wide += i % 3 == 0 ? u'x' : u'あ';
  }
  EXPECT_EQ(ToWide(932, bytes), wide);
  EXPECT_EQ(ToBytes(932, wide), bytes);
  // Where a run ends and how much of it fails must make no difference.
  std::u16string mixed;
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    mixed += i % 7 == 0 ? u"\U0001F600" : u"い";
    expected += i % 7 == 0 ? "??" : "\x82\xA2";
  }
  EXPECT_EQ(ToBytes(932, mixed), expected);
}

TEST(CodePage54936, HasEveryCharacter) {
  const std::u16string wide = u"ä日\U0001F600";
  bool usedDefault = true;
  EXPECT_EQ(ToWide(54936, ToBytes(54936, wide, &usedDefault)), wide);
  EXPECT_FALSE(usedDefault);
}

TEST(CodePageUtf8, ConvertsBothWays) {
  const std::string bytes = "aä€\0\xF0\x9F\x98\x80"s;
  const std::u16string wide = u"aä€\0\U0001F600"s;
  EXPECT_EQ(ToWide(CP_UTF8, bytes), wide);
  EXPECT_EQ(ToBytes(CP_UTF8, wide), bytes);
}

TEST(CodePageUtf8, PutsAReplacementForEachPartThatIsNotValid) {
  EXPECT_EQ(ToWide(CP_UTF8, "a\x80z"), u"a\uFFFDz");
  EXPECT_EQ(ToWide(CP_UTF8, "\xC0\xAF"), u"\uFFFD\uFFFD");
  EXPECT_EQ(ToWide(CP_UTF8, "\xE2\x82z"), u"\uFFFDz");
  EXPECT_EQ(ToWide(CP_UTF8, "\xED\xA0\x80"), u"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(ToWide(CP_UTF8, "\xF4\x90\x80\x80"), u"\uFFFD\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(ToWide(CP_UTF8, "\xF0\x9F\x98"), u"\uFFFD");
  EXPECT_EQ(ToBytes(CP_UTF8, u"\xD800x\xDC00\xD800"), "\uFFFDx\uFFFD\uFFFD");
}

TEST(CodePage, OfTheSystemIs1252UntilSet) {
  EXPECT_EQ(ToWide(CP_ACP, "\x80"), u"€");
  EXPECT_TRUE(SetSystemCodePage(1251));
  EXPECT_EQ(ToWide(CP_ACP, "\xC0"), u"А");
  EXPECT_TRUE(SetSystemCodePage(CP_UTF8));
  EXPECT_EQ(ToWide(CP_ACP, "\xC3\xA4"), u"ä");
  EXPECT_FALSE(SetSystemCodePage(4711));
  EXPECT_FALSE(SetSystemCodePage(CP_ACP));
  EXPECT_EQ(ToBytes(CP_ACP, u"ä"), "\xC3\xA4");
  EXPECT_TRUE(SetSystemCodePage(1252));
}

TEST(CodePage, MustBeKnown) {
  WCHAR wide[4];
  char bytes[4];
  EXPECT_FALSE(IsKnownCodePage(4711));
  EXPECT_TRUE(IsKnownCodePage(437));
  EXPECT_TRUE(IsKnownCodePage(28605));
  EXPECT_EQ(MultiByteToWideChar(4711, 0, "a", 1, wide, 4), 0);
  EXPECT_EQ(WideCharToMultiByte(4711, 0, u"a", 1, bytes, 4, nullptr, nullptr), 0);
}

TEST(CodePage, CallsTakeTerminatedTextsWithTheirTerminator) {
  WCHAR wide[4] = {};
  char bytes[4] = {};
  EXPECT_EQ(MultiByteToWideChar(1252, 0, "ab", -1, wide, 4), 3);
  EXPECT_EQ(std::u16string(wide, 3), u"ab\0"s);
  EXPECT_EQ(WideCharToMultiByte(932, 0, u"あ", -1, bytes, 4, nullptr, nullptr), 3);
  EXPECT_EQ(std::string(bytes, 3), "\x82\xA0\0"s);
}

TEST(CodePage, CallsFailWithoutRoomWithoutBytesAndWithFlags) {
  WCHAR wide[4] = {};
  char bytes[4] = {};
  for (const UINT codePage : {1252u, 932u, CP_UTF8}) {
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, "abc", 3, wide, 2), 0);
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, "abc", 3, wide, 3), 3);
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, "abc", 0, wide, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, "abc", -2, wide, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, nullptr, 1, wide, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, "abc", 3, nullptr, 4), 0);
    EXPECT_EQ(MultiByteToWideChar(codePage, 0, "abc", 3, wide, -1), 0);
    EXPECT_EQ(MultiByteToWideChar(codePage, 8, "abc", 3, wide, 4), 0);
    EXPECT_EQ(WideCharToMultiByte(codePage, 0, u"abc", 3, bytes, 2, nullptr, nullptr), 0);
    EXPECT_EQ(WideCharToMultiByte(codePage, 0, u"abc", 3, bytes, 3, nullptr, nullptr), 3);
    EXPECT_EQ(WideCharToMultiByte(codePage, 0, u"abc", 0, bytes, 4, nullptr, nullptr), 0);
    EXPECT_EQ(WideCharToMultiByte(codePage, 0, nullptr, 1, bytes, 4, nullptr, nullptr), 0);
    EXPECT_EQ(WideCharToMultiByte(codePage, 1, u"abc", 3, bytes, 4, nullptr, nullptr), 0);
  }
}

}  // namespace
