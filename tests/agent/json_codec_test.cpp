#include "agent/libZelCore/json_codec.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

// U+FDD0, the escape's first character.
constexpr const char* kEscape = "\xEF\xB7\x90";

ZelContainer Decoded(std::string_view json) {
  JsonDecodeResult result = DecodeContainer(json);
  EXPECT_THAT(result.error, IsEmpty()) << json;
  return result.container;
}

std::string Error(std::string_view json) {
  const JsonDecodeResult result = DecodeContainer(json);
  EXPECT_EQ(result.container.CountKeys(), 0U) << json;
  return result.error;
}

std::string Encoded(const ZelContainer& container) {
  std::string json;
  EncodeContainer(container, &json);
  return json;
}

std::string RoundTrip(std::string_view json) {
  return Encoded(Decoded(json));
}

std::string Nested(size_t levels) {
  std::string json;
  for (size_t i = 0; i < levels; ++i) json += R"({"a":)";
  json += "1";
  return json + std::string(levels, '}');
}

TEST(DecodeContainer, MapsEachKindOfValueToItsType) {
  const ZelContainer container =
      Decoded(R"({"s":"text","t":true,"f":false,"i":-7,"l":5000000000,"c":{"x":1}})");
  const ZelValueType expected[] = {ZelValueType::kString, ZelValueType::kBool,
                                   ZelValueType::kBool,   ZelValueType::kInt32,
                                   ZelValueType::kInt64,  ZelValueType::kContainer};
  ASSERT_EQ(container.CountKeys(), std::size(expected));
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_EQ(container.EntryAt(i).Type(), expected[i]) << i;
    EXPECT_FALSE(container.EntryAt(i).IsList()) << i;
  }
  ZelContainer inner;
  int32_t value = 0;
  EXPECT_TRUE(container.GetContainer("c", &inner, kNoIndex));
  EXPECT_TRUE(inner.GetInt32("x", &value, kNoIndex));
  EXPECT_EQ(value, 1);
}

TEST(DecodeContainer, TakesInt64OnlyWhereInt32IsTooSmall) {
  const ZelContainer container = Decoded(
      R"({"a":2147483647,"b":2147483648,"c":-2147483648,"d":-2147483649,"e":9223372036854775807,
          "f":-9223372036854775808})");
  EXPECT_EQ(container.EntryAt(0).Type(), ZelValueType::kInt32);
  EXPECT_EQ(container.EntryAt(1).Type(), ZelValueType::kInt64);
  EXPECT_EQ(container.EntryAt(2).Type(), ZelValueType::kInt32);
  EXPECT_EQ(container.EntryAt(3).Type(), ZelValueType::kInt64);
  EXPECT_EQ(container.EntryAt(4).IntegerAt(0), INT64_MAX);
  EXPECT_EQ(container.EntryAt(5).IntegerAt(0), INT64_MIN);
}

TEST(DecodeContainer, MakesListsOfArrays) {
  const ZelContainer container = Decoded(R"({"l":["a","b"],"one":[7]})");
  EXPECT_EQ(container.CountValues("l"), 2);
  ZelString second;
  EXPECT_TRUE(container.GetString("l", &second, 1));
  EXPECT_EQ(second, ZelString("b"));
  EXPECT_TRUE(container.EntryAt(1).IsList());
}

TEST(DecodeContainer, MakesAWholeListInt64WhenOneOfItsNumbersNeedsIt) {
  const ZelContainer container = Decoded(R"({"l":[1,5000000000,2]})");
  EXPECT_EQ(container.EntryAt(0).Type(), ZelValueType::kInt64);
  EXPECT_EQ(container.EntryAt(0).Count(), 3U);
  EXPECT_EQ(container.EntryAt(0).IntegerAt(1), 5000000000);
}

TEST(DecodeContainer, LeavesTheKeyOfAnEmptyListAbsent) {
  EXPECT_EQ(Decoded(R"({"l":[],"x":1})").CountKeys(), 1U);
}

TEST(DecodeContainer, NamesTheKeyOfAValueThatItRefuses) {
  EXPECT_EQ(Error(R"({"A":{"B":[1,2,3,null]}})"), R"(key "A.B[3]": null is not a value)");
  EXPECT_EQ(Error(R"({"R":[{"x":1},{"x":1.5}]})"),
            R"(key "R[1].x": the number is not an integer of 64 bits)");
}

TEST(DecodeContainer, RefusesWhatContainersCannotHold) {
  EXPECT_THAT(Error(R"({"a":1.0})"), HasSubstr(R"(key "a")"));
  EXPECT_THAT(Error(R"({"a":1e2})"), HasSubstr(R"(key "a")"));
  EXPECT_THAT(Error(R"({"a":18446744073709551615})"), HasSubstr("64 bits"));
  EXPECT_THAT(Error(R"({"a":-9223372036854775809})"), HasSubstr("64 bits"));
  EXPECT_THAT(Error(R"({"a":[1,"b"]})"), HasSubstr("one type"));
  EXPECT_THAT(Error(R"({"a":[[1]]})"), HasSubstr("lists"));
  EXPECT_THAT(Error(R"({"a":1,"a":2})"), HasSubstr("twice"));
  EXPECT_THAT(Error(R"({"a":[],"a":2})"), HasSubstr("twice"));
}

TEST(DecodeContainer, RefusesATopLevelThatIsNoObject) {
  for (const char* json : {"[]", "[1]", "1", "true", "null", "\"text\""}) {
    EXPECT_THAT(Error(json), testing::AnyOf(HasSubstr("not a JSON object"), HasSubstr("null")));
  }
}

TEST(DecodeContainer, RefusesMalformedText) {
  for (const char* json : {"", " ", "{", R"({"a":)", R"({"a":1,})", R"({a:1})", R"({"a":tru})",
                           R"({"a":01})", R"({'a':1})", "{} x", R"({"a":1}{})", "{/**/}",
                           R"({"a":"\x"})", "{\"a\":\"line\nend\"}", "\xEF\xBB\xBF{}"}) {
    EXPECT_THAT(Error(json), HasSubstr("malformed JSON")) << json;
  }
}

TEST(DecodeContainer, RefusesBytesThatAreNotUtf8) {
  for (const char* bytes : {"\xFF", "\xC0\x80", "\xED\xA0\x80", "\xF5\x80\x80\x80", "\xE2\x82"}) {
    EXPECT_THAT(Error(std::string(R"({"a":")") + bytes + R"("})"), HasSubstr("malformed")) << bytes;
    EXPECT_THAT(Error(std::string("{\"") + bytes + R"(":1})"), HasSubstr("malformed")) << bytes;
  }
  EXPECT_THAT(Error(R"({"a":"\ud800"})"), HasSubstr("malformed"));
}

TEST(DecodeContainer, TakesThirtyTwoLevelsAndRefusesMore) {
  EXPECT_THAT(DecodeContainer(Nested(kMaxJsonDepth)).error, IsEmpty());
  EXPECT_THAT(DecodeContainer(Nested(kMaxJsonDepth + 1)).error, HasSubstr("deeper than 32"));
  EXPECT_THAT(DecodeContainer(Nested(1000000)).error, HasSubstr("deeper than 32"));
  EXPECT_THAT(DecodeContainer(std::string(1000000, '[')).error, testing::Not(IsEmpty()));
}

TEST(DecodeContainer, KeepsItsMessagesShort) {
  const std::string json = "{\"" + std::string(1000000, 'k') + "\":null}";
  EXPECT_LT(Error(json).size(), 400U);
}

TEST(DecodeContainer, TakesManyKeysInTimeThatGrowsWithTheirNumber) {
  std::string json = "{";
  for (int i = 0; i < 300000; ++i) json += "\"key" + std::to_string(i) + "\":[],";
  for (int i = 300000; i < 600000; ++i) json += "\"key" + std::to_string(i) + "\":1,";
  json.back() = '}';
  EXPECT_EQ(Decoded(json).CountKeys(), 300000U);
}

TEST(JsonCodec, KeepsNulAndControlCharacters) {
  EXPECT_EQ(RoundTrip(R"({"a":"x\u0000y\n\t\b\f\r\u001f\"\\\/"})"),
            R"({"a":"x\u0000y\n\t\b\f\r\u001f\"\\/"})");
  ZelString text;
  Decoded(R"({"a":"x\u0000y"})").GetString("a", &text, kNoIndex);
  EXPECT_EQ(text.GetLength(), 3U);
}

TEST(JsonCodec, FindsWhatNeedsAnEscapeAnywhereInAText) {
  const std::pair<const char*, const char*> escapes[] = {{"\"", "\\\""},
                                                         {"\\", "\\\\"},
                                                         {"\x01", "\\u0001"},
                                                         {"\x1f", "\\u001f"},
                                                         {"\n", "\\n"},
                                                         {" ", " "},
                                                         {"\x7f", "\x7f"},
                                                         {"\xc3\xa9", "\xc3\xa9"},
                                                         {"\xed\xb2\x80",
                                                          "\xef\xb7\x90"
                                                          "dc80"}};
  for (const auto& [plain, escaped] : escapes) {
    for (size_t before = 0; before < 70; ++before) {
      const std::string head(before, 'h');
      const std::string tail(70 - before, 't');
      std::string json;
      EncodeString(head + plain + tail + plain, &json);
      EXPECT_EQ(json, '"' + head + escaped + tail + escaped + '"') << before;
    }
  }
}

TEST(JsonCodec, KeepsEveryCharacterOfUnicode) {
  EXPECT_EQ(RoundTrip(R"({"ключ":"\ud83d\ude00\u20ac"})"), "{\"ключ\":\"\U0001F600\u20AC\"}");
}

TEST(JsonCodec, CarriesNamesThatAreNotUnicode) {
  ZelContainer container;
  container.SetString("name",
                      ZelString(std::string_view("a\xFF"
                                                 "b")),
                      kNoIndex);
  const std::string json = Encoded(container);
  EXPECT_EQ(json, std::string(R"({"name":"a)") + kEscape + R"(dcffb"})");
  EXPECT_EQ(Decoded(json), container);
}

TEST(JsonCodec, CarriesTheEscapesOwnCharacter) {
  ZelContainer container;
  const std::string text = std::string(kEscape) + "dcff";
  container.SetString(ZelString(text), ZelString(text), kNoIndex);
  const std::string json = Encoded(container);
  const std::string escaped = std::string("\"") + kEscape + "fdd0dcff\"";
  EXPECT_EQ(json, "{" + escaped + ":" + escaped + "}");
  EXPECT_EQ(Decoded(json), container);
}

TEST(DecodeContainer, RefusesAMalformedEscape) {
  for (const char* tail : {"", "dc", "dcf", "DCFF", "0041", "e000", "d7ff", "fdd1", "dcfg"}) {
    EXPECT_THAT(Error(std::string(R"({"a":")") + kEscape + tail + R"("})"), HasSubstr("U+FDD0"))
        << tail;
    EXPECT_THAT(Error(std::string("{\"") + kEscape + tail + R"(":1})"), HasSubstr("U+FDD0"))
        << tail;
  }
}

TEST(DecodeContainer, JoinsEscapedSurrogatesThatMeet) {
  ZelString text;
  Decoded(std::string(R"({"a":")") + kEscape + "d83d" + kEscape + R"(de00"})")
      .GetString("a", &text, kNoIndex);
  EXPECT_EQ(text, ZelString("\U0001F600"));
}

TEST(EncodeContainer, WritesNoBlanks) {
  ZelContainer row;
  row.SetBool("Flag", true, kNoIndex);
  ZelContainer container;
  container.SetInt32("Result", -1, kNoIndex);
  container.SetInt64("Size", INT64_MIN, kNoIndex);
  container.SetContainer("Values", row, 0);
  container.SetContainer("Values", ZelContainer(), 1);
  EXPECT_EQ(Encoded(container),
            R"({"Result":-1,"Size":-9223372036854775808,"Values":[{"Flag":true},{}]})");
  EXPECT_EQ(Encoded(ZelContainer()), "{}");
}

TEST(EncodeContainer, WritesAListOfOneAsAList) {
  ZelContainer container;
  container.SetString("l", "x", 0);
  EXPECT_EQ(Encoded(container), R"({"l":["x"]})");
  EXPECT_EQ(Decoded(Encoded(container)), container);
}

}  // namespace
