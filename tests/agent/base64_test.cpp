#include "libZel/base64.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace {

using std::string_view_literals::operator""sv;

std::string Encoded(std::string_view bytes) {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  return std::string(EncodeBase64(data, static_cast<uint32_t>(bytes.size())).Utf8());
}

// None where the decoder refuses the text.
std::optional<std::string> Decoded(std::string_view text) {
  auto length = static_cast<uint32_t>(text.size());
  const std::unique_ptr<char, void (*)(void*)> bytes(
      DecodeBase64(reinterpret_cast<const unsigned char*>(text.data()), &length), std::free);
  if (bytes) return std::string(bytes.get(), length);
  EXPECT_EQ(length, 0u);
  return std::nullopt;
}

// As the standard words it: each character stands for six bits, and what fills no byte is dropped.
std::string DecodedByTheBook(std::string_view text) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string bits;
  for (const char c : text.substr(0, text.find('='))) {
    const size_t value = kAlphabet.find(c);
    EXPECT_NE(value, kAlphabet.npos) << c;
    for (int bit = 5; bit >= 0; --bit) bits += (value >> bit) & 1 ? '1' : '0';
  }
  std::string bytes;
  for (size_t i = 0; i + 8 <= bits.size(); i += 8) {
    bytes += static_cast<char>(std::stoi(bits.substr(i, 8), nullptr, 2));
  }
  return bytes;
}

struct Vector {
  std::string_view bytes;
  std::string_view text;
};

// RFC 4648, section 10.
constexpr Vector kVectors[] = {
    {"", ""},
    {"f", "Zg=="},
    {"fo", "Zm8="},
    {"foo", "Zm9v"},
    {"foob", "Zm9vYg=="},
    {"fooba", "Zm9vYmE="},
    {"foobar", "Zm9vYmFy"},
};

TEST(EncodeBase64, AnswersTheStandardsExamples) {
  for (const Vector& vector : kVectors) EXPECT_EQ(Encoded(vector.bytes), vector.text);
}

TEST(EncodeBase64, TakesNullForNoBytes) {
  EXPECT_EQ(EncodeBase64(nullptr, 0), ZelString(""));
}

TEST(EncodeBase64, UsesTheStandardAlphabetInItsOrder) {
  std::string bytes;
  for (unsigned i = 0; i < 64; i += 4) {
    const unsigned group = i << 18 | (i + 1) << 12 | (i + 2) << 6 | (i + 3);
    for (const int shift : {16, 8, 0}) bytes += static_cast<char>(group >> shift);
  }
  EXPECT_EQ(Encoded(bytes), "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/");
}

TEST(EncodeBase64, GivesEverySizeWhatTheStandardSays) {
  std::string bytes;
  for (unsigned size = 0; size <= 100; ++size) {
    const std::string text = Encoded(bytes);
    EXPECT_EQ(text.size(), (size + 2) / 3 * 4);
    EXPECT_EQ(DecodedByTheBook(text), bytes) << size;
    EXPECT_EQ(Decoded(text), bytes) << size;
    bytes += static_cast<char>(size * 151 + 7);
  }
}

TEST(DecodeBase64, AnswersTheStandardsExamples) {
  for (const Vector& vector : kVectors) EXPECT_EQ(Decoded(vector.text), vector.bytes);
}

TEST(DecodeBase64, KeepsNulCharactersAmongTheBytes) {
  EXPECT_EQ(Decoded("AAEAAA=="), "\0\1\0\0"sv);
}

TEST(DecodeBase64, SkipsBlanksTabsAndLineBreaksAnywhere) {
  EXPECT_EQ(Decoded(" Zm9\r\nvY\tg = =\n"), "foob");
  EXPECT_EQ(Decoded(" \t\r\n"), "");
}

TEST(DecodeBase64, RefusesMissingOrWrongPadding) {
  for (const std::string_view text :
       {"Z", "Zg", "Zg=", "Zm8", "Zm9vY", "=",
        "==", "====", "Z===", "Zg===", "Zm8==", "Zm9v=", "Zm9v====", "Zg==Zg==", "Zg==Z", "Z=g="}) {
    EXPECT_EQ(Decoded(text), std::nullopt) << text;
  }
}

TEST(DecodeBase64, RefusesSpareBitsThatAreNotZero) {
  for (const std::string_view text : {"Zh==", "Zv==", "Zm9=", "Zm+="}) {
    EXPECT_EQ(Decoded(text), std::nullopt) << text;
  }
}

TEST(DecodeBase64, RefusesEveryOtherCharacter) {
  for (int c = 0; c < 256; ++c) {
    const std::string text = "Zm9" + std::string(1, static_cast<char>(c));
    const bool isDigit = (c < 128 && std::isalnum(c)) || c == '+' || c == '/';
    // Zm8= has the spare bits in order, Zm9= has not.
    EXPECT_EQ(Decoded(text).has_value(), isDigit) << c;
  }
  EXPECT_EQ(Decoded("Zm9\0Zm9v"sv), std::nullopt);
}

}  // namespace
