#include "libZel/string.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <thread>
#include <vector>

namespace {

using Wide = std::basic_string<TCHAR>;

std::string Utf8(const ZelString& text) {
  return std::string(text.Utf8());
}

template <typename... Arguments>
std::string Formatted(const char* format, const Arguments&... arguments) {
  ZelString text;
  text.Printf(format, arguments...);
  return Utf8(text);
}

TEST(ZelString, KeepsUtf8AsItIs) {
  EXPECT_EQ(Utf8("Grüße 🦊"), "Grüße 🦊");
  EXPECT_EQ(Utf8(static_cast<const char*>(nullptr)), "");
}

TEST(ZelString, KeepsBytesThatAreNoCharacterAsLoneSurrogates) {
  EXPECT_EQ(Utf8("a\xFFz"), "a\xED\xB3\xBFz");
  EXPECT_EQ(Utf8("\xC3"), "\xED\xB3\x83");
  EXPECT_EQ(Utf8("\xC0\xAF"), "\xED\xB3\x80\xED\xB2\xAF") << "overlong forms are no characters";
  EXPECT_EQ(Utf8("\xF5\x80\x80\x80").size(), 12u) << "nothing above U+10FFFF";
}

TEST(ZelString, KeepsEncodedLoneSurrogates) {
  EXPECT_EQ(Utf8(ZelString(Utf8("a\xFFz"))), "a\xED\xB3\xBFz");
}

TEST(ZelString, GivesTheUtf16View) {
  const ZelString text("aé🦊");
  const Wide expected = {'a', 0xE9, static_cast<TCHAR>(0xD83E), static_cast<TCHAR>(0xDD8A)};
  EXPECT_EQ(Wide(text.GetTCHAR()), expected);
  EXPECT_EQ(ZelString(text.GetTCHAR()), text);
}

TEST(ZelString, RoundTripsLoneSurrogatesThroughTheWideForm) {
  const Wide name = {'x', static_cast<TCHAR>(0xD800), 'y', static_cast<TCHAR>(0xDC12)};
  const ZelString text{std::basic_string_view<TCHAR>(name)};
  EXPECT_EQ(Wide(text.GetTCHAR()), name);
}

TEST(ZelString, JoinsSurrogatesThatMeetWhenAppended) {
  const TCHAR high[] = {static_cast<TCHAR>(0xD83E), 0};
  const TCHAR low[] = {static_cast<TCHAR>(0xDD8A), 0};
  ZelString text(high);
  text += ZelString(low);
  EXPECT_EQ(Utf8(text), "🦊");
  EXPECT_EQ(Formatted("%S%S", ZelString(high), ZelString(low)), "🦊");
}

TEST(ZelString, JoinsSurrogatesThatMeetWhenWhatStoodBetweenIsRemoved) {
  const TCHAR split[] = {static_cast<TCHAR>(0xD83E), '-', static_cast<TCHAR>(0xDD8A), 0};
  ZelString removed(split);
  removed.Remove(3, 1);
  EXPECT_EQ(Utf8(removed), "🦊");
  ZelString replaced(split);
  replaced.ReplaceAll("-", "", false);
  EXPECT_EQ(Utf8(replaced), "🦊");
}

TEST(ZelString, DropsTheWideViewWhenTheTextChanges) {
  ZelString text("a");
  EXPECT_EQ(Wide(text.GetTCHAR()), Wide({'a'}));
  text += "b";
  EXPECT_EQ(Wide(text.GetTCHAR()), Wide({'a', 'b'}));
  text = ZelString("c");
  EXPECT_EQ(Wide(text.GetTCHAR()), Wide({'c'}));
  text.Clear();
  EXPECT_EQ(Wide(text.GetTCHAR()), Wide());
}

TEST(ZelString, HoldsNulCharacters) {
  const ZelString text(std::string_view("a\0b", 3));
  EXPECT_EQ(text.GetLength(), 3u);
  EXPECT_EQ(text.GetSize(kEncodingUtf16), 6u);
  EXPECT_NE(text, ZelString("a"));
}

TEST(ZelString, AssignsAndGivesBothEncodings) {
  ZelString text;
  ASSERT_TRUE(text.Assign("A\0\xE9\0", 4, kEncodingUtf16));
  EXPECT_EQ(Utf8(text), "Aé");
  EXPECT_EQ(text.GetSize(kEncodingUtf8), 3u);
  EXPECT_EQ(text.GetSize(kEncodingUtf16), 4u);
  EXPECT_EQ(std::string(text.GetString(kEncodingUtf16), 4), std::string("A\0\xE9\0", 4));
  ASSERT_TRUE(text.Assign("xyz", 2, kEncodingUtf8));
  EXPECT_STREQ(text.GetString(kEncodingUtf8), "xy");
}

TEST(ZelString, RefusesUnknownEncodingsAndHalfUnits) {
  ZelString text("kept");
  EXPECT_FALSE(text.Assign("abc", 3, kEncodingUtf16));
  EXPECT_FALSE(text.Assign("abc", 3, 42));
  EXPECT_EQ(Utf8(text), "kept");
  EXPECT_EQ(text.GetString(42), nullptr);
  EXPECT_EQ(text.GetSize(42), 0u);
}

TEST(ZelString, ReplacesEveryOccurrenceFromTheLeft) {
  ZelString text("aaa");
  EXPECT_EQ(text.ReplaceAll("aa", "b", false), 1u);
  EXPECT_EQ(Utf8(text), "ba");
  ZelString path("C:\\x\\y");
  EXPECT_EQ(path.ReplaceAll("\\", "/", false), 2u);
  EXPECT_EQ(Utf8(path), "C:/x/y");
}

TEST(ZelString, ReplacesWithoutRegardToCaseWhenAsked) {
  ZelString text("One ONE one");
  EXPECT_EQ(ZelString(text).ReplaceAll("one", "2", false), 1u);
  EXPECT_EQ(text.ReplaceAll("oNe", "2", true), 3u);
  EXPECT_EQ(Utf8(text), "2 2 2");
}

TEST(ZelString, LeavesTheTextAloneWhenThereIsNothingToReplace) {
  ZelString text("abc");
  EXPECT_EQ(text.ReplaceAll("", "x", false), 0u);
  EXPECT_EQ(text.ReplaceAll("d", "x", false), 0u);
  EXPECT_EQ(Utf8(text), "abc");
}

TEST(ZelString, ComparesStartAndEnd) {
  const ZelString name("Driver.SYS");
  EXPECT_TRUE(name.EndsWith(".SYS"));
  EXPECT_FALSE(name.EndsWith(".sys"));
  EXPECT_TRUE(name.EndsWith(".sys", true));
  EXPECT_TRUE(name.StartsWith("driver", true));
  EXPECT_FALSE(name.StartsWith("driver"));
  EXPECT_FALSE(ZelString("s").EndsWith(".sys"));
}

TEST(ZelString, CutsPieces) {
  const ZelString text("abcdef");
  EXPECT_EQ(Utf8(text.SubString(2)), "cdef");
  EXPECT_EQ(Utf8(text.SubString(2, 2)), "cd");
  EXPECT_EQ(Utf8(text.SubString(9)), "");
  EXPECT_EQ(text.Find("cd"), 2u);
  EXPECT_EQ(text.Find("x"), ZelString::kNotFound);
}

TEST(ZelString, AppendsRepeatedlyAndItself) {
  ZelString text("ab");
  text.Append('-', 3).Append("xy", 2);
  EXPECT_EQ(Utf8(text), "ab---xyxy");
  text.Remove(2, 3);
  text += text;
  EXPECT_EQ(Utf8(text), "abxyxyabxyxy");
}

TEST(ZelString, ReadsNumbers) {
  EXPECT_EQ(ZelString(" 42x").ToUL(10), 42u);
  EXPECT_EQ(ZelString("0x1F").ToUL(0), 31u);
  EXPECT_EQ(ZelString("017").ToUL(0), 15u);
  EXPECT_EQ(ZelString("08").ToUL(0), 8u);
  EXPECT_EQ(ZelString("09").ToUL(0), 9u);
  EXPECT_EQ(ZelString("07x8").ToUL(0), 7u);
  EXPECT_EQ(ZelString("017").ToUL(10), 17u);
  EXPECT_EQ(ZelString("ff").ToUL(16), 255u);
  EXPECT_EQ(ZelString("99999999999").ToUL(10), std::numeric_limits<uint32_t>::max());
  EXPECT_EQ(ZelString("-5").ToUL(10), 0u);
  EXPECT_EQ(ZelString("").ToUL(10), 0u);
  EXPECT_EQ(ZelString("17").ToUL(1), 0u);
  EXPECT_EQ(ZelString("17").ToUL(37), 0u);
  EXPECT_EQ(ZelString("-17").ToInt64(-1), 0);
  EXPECT_EQ(ZelString("-9223372036854775808").ToInt64(10), std::numeric_limits<int64_t>::min());
  EXPECT_EQ(ZelString("9223372036854775808").ToInt64(10), std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Utf8(ZelString::FromInt64(-7)), "-7");
}

bool IsUtf8(std::string_view bytes) {
  return ZelString::IsTextUTF8(bytes.data(), static_cast<uint32_t>(bytes.size()));
}

// As RFC 3629 defines it: the shortest form, no surrogates, nothing beyond U+10FFFF.
std::string Utf8Of(uint32_t code, unsigned length) {
  if (length == 1) return std::string(1, static_cast<char>(code));
  std::string bytes;
  for (unsigned rest = length - 1; rest > 0; --rest, code >>= 6) {
    bytes.insert(bytes.begin(), static_cast<char>(0x80 | (code & 0x3F)));
  }
  const unsigned mark = 0xFF00u >> length & 0xFF;
  bytes.insert(bytes.begin(), static_cast<char>(mark | code));
  return bytes;
}

TEST(IsTextUTF8, AcceptsEveryCharacterInItsShortestFormOnly) {
  for (uint32_t code = 0; code <= 0x10FFFF; ++code) {
    const unsigned shortest = code < 0x80 ? 1 : code < 0x800 ? 2 : code < 0x10000 ? 3 : 4;
    const bool isSurrogate = code >= 0xD800 && code <= 0xDFFF;
    for (unsigned length = shortest; length <= 4; ++length) {
      ASSERT_EQ(IsUtf8(Utf8Of(code, length)), length == shortest && !isSurrogate)
          << code << " in " << length << " bytes";
    }
  }
}

TEST(IsTextUTF8, RefusesWhatLiesBeyondUnicode) {
  for (uint32_t code = 0x110000; code < 0x200000; code += 0x3FF) {
    EXPECT_FALSE(IsUtf8(Utf8Of(code, 4))) << code;
  }
  EXPECT_FALSE(IsUtf8(Utf8Of(0x200000, 5)));
  EXPECT_FALSE(IsUtf8(Utf8Of(0x4000000, 6)));
  EXPECT_FALSE(IsUtf8("\xFE"));
  EXPECT_FALSE(IsUtf8("\xFF"));
}

TEST(IsTextUTF8, RefusesCharactersThatAreCutOff) {
  for (const std::string_view character : {"é", "€", "😀"}) {
    for (size_t length = 1; length < character.size(); ++length) {
      const std::string cut(character.substr(0, length));
      EXPECT_FALSE(IsUtf8(cut));
      EXPECT_FALSE(IsUtf8("text" + cut));
      EXPECT_FALSE(IsUtf8(cut + "text"));
      EXPECT_FALSE(IsUtf8(cut + std::string(character)));
    }
    EXPECT_FALSE(IsUtf8(character.substr(1)));
    EXPECT_TRUE(IsUtf8("text" + std::string(character) + "text"));
  }
}

TEST(IsTextUTF8, TakesNoBytesForText) {
  EXPECT_TRUE(ZelString::IsTextUTF8(nullptr, 0));
  EXPECT_TRUE(IsUtf8(std::string_view("a\0b", 3)));
}

TEST(ZelString, OrdersByCodeUnitRegardlessOfLocale) {
  EXPECT_LT(ZelString("B"), ZelString("a"));
  EXPECT_LT(ZelString("z"), ZelString("é"));
  EXPECT_NE(ZelString("A"), ZelString("a"));
}

TEST(ZelStringPrintf, FillsTextsAndNumbers) {
  const ZelString wide("wïde");
  EXPECT_EQ(Formatted("%S, %s and %S", wide, "narrow", wide.GetTCHAR()), "wïde, narrow and wïde");
  EXPECT_EQ(Formatted("%d %i %u %x %X %c%%", -5, 6L, 7u, 255u, 255, 'c'), "-5 6 7 ff FF c%");
  EXPECT_EQ(Formatted("%lu %hd %llu", 1ul, short{2}, ~0ull), "1 2 18446744073709551615");
}

TEST(ZelStringPrintf, TakesNegativeNumbersInTheirOwnWidthAsUnsigned) {
  EXPECT_EQ(Formatted("%u %x", -1, static_cast<short>(-1)), "4294967295 ffff");
}

TEST(ZelStringPrintf, PadsAndCuts) {
  EXPECT_EQ(Formatted("[%5d|%-5d|%05d|%04x]", 42, 42, -42, 0xAB), "[   42|42   |-0042|00ab]");
  EXPECT_EQ(Formatted("[%4S|%-4S|%.2S]", ZelString("ab"), ZelString("ab"), ZelString("abc")),
            "[  ab|ab  |ab]");
  EXPECT_EQ(Formatted("%.2s", "aé"), "a") << "a character is never split";
}

TEST(ZelStringPrintf, LeavesWhatItCannotFillAsItStands) {
  EXPECT_EQ(Formatted("%S"), "%S");
  EXPECT_EQ(Formatted("%d", "text"), "%d");
  EXPECT_EQ(Formatted("%s", 5), "%s");
  EXPECT_EQ(Formatted("%q%", 5), "%q%");
  EXPECT_EQ(Formatted("%9999d", 5), "%9999d");
  EXPECT_EQ(Formatted("100% é", 5), "100% é");
}

TEST(ZelStringPrintf, NeverReadsDirectivesOfItsArguments) {
  EXPECT_EQ(Formatted("%S-%S", ZelString("%S%n"), ZelString("b")), "%S%n-b");
}

TEST(ZelStringThreads, ManyReadersShareOneWideView) {
  const ZelString text("shared é");
  std::vector<std::thread> readers;
  std::vector<ZelString> seen(4);
  for (ZelString& copy : seen) {
    readers.emplace_back([&text, &copy] { copy = ZelString(text.GetTCHAR()); });
  }
  for (std::thread& reader : readers) reader.join();
  for (const ZelString& copy : seen) EXPECT_EQ(copy, text);
}

}  // namespace
