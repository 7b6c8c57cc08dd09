#include "agent/translations/translations.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "agent/translations/translation_file.h"
#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Optional;
using testing::SizeIs;

/// Two directories of texts and what was said about them.
class TranslationsOf : public testing::Test {
 protected:
  void Shipped(const std::string& name, const std::string& text) {
    Write(Path("shipped") / name, text);
  }
  void OfSite(const std::string& name, const std::string& text) {
    Write(Path("site") / name, text);
  }

  Translations Read() {
    return Translations({Path("shipped"), Path("site")},
                        [this](const std::string& line) { complaints_.push_back(line); });
  }

  fs::path Path(const char* name) const { return directory_.Native() / name; }

  static void Write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file, std::ios::binary) << text;
  }

  TemporaryDirectory directory_;
  std::vector<std::string> complaints_;
};

TEST_F(TranslationsOf, ARegionWithoutWordsOfItsOwnAreItsLanguages) {
  Shipped("en.ini", "A = hello\n");
  Shipped("de.ini", "A = hallo\n");

  EXPECT_THAT(Read().Find("A", "de-AT"), Optional(std::string("hallo")));
}

TEST_F(TranslationsOf, ARegionsWordsComeFirst) {
  Shipped("en.ini", "A = hello\nB = cheerio\n");
  Shipped("de.ini", "A = hallo\nB = tschau\n");
  Shipped("de-AT.ini", "A = servus\n");
  const Translations translations = Read();

  EXPECT_THAT(translations.Find("A", "de-AT"), Optional(std::string("servus")));
  EXPECT_THAT(translations.Find("B", "de-AT"), Optional(std::string("tschau")));
  EXPECT_THAT(translations.Find("A", "de-CH"), Optional(std::string("hallo")));
  EXPECT_THAT(translations.Find("A", "de"), Optional(std::string("hallo")));
}

TEST_F(TranslationsOf, AreInEnglishForOtherLanguages) {
  Shipped("en.ini", "A = hello\n");
  Shipped("de.ini", "A = hallo\n");
  const Translations translations = Read();

  for (const char* const language : {"pt-BR", "zz", "", "C", "POSIX", "C.UTF-8", "d", "../de",
                                     "de/", "-", "de--AT", "\xFF", "de\n"}) {
    EXPECT_THAT(translations.Find("A", language), Optional(std::string("hello"))) << language;
  }
}

TEST_F(TranslationsOf, TakeTagsAsSystemsWriteThem) {
  Shipped("en.ini", "A = hello\n");
  Shipped("pt-BR.ini", "A = oi\n");
  const Translations translations = Read();

  for (const char* const language : {"pt-BR", "pt_BR", "PT-br", "pt_BR.UTF-8", "pt_BR@euro",
                                     "pt_BR.ISO8859-1@euro", " pt-BR ", "pt-BR-x-old"}) {
    EXPECT_THAT(translations.Find("A", language), Optional(std::string("oi"))) << language;
  }
  EXPECT_THAT(translations.Find("A", "pt"), Optional(std::string("hello")));
}

TEST_F(TranslationsOf, FilesAreNamedInAnyCase) {
  Shipped("PT_br.ini", "A = oi\n");

  EXPECT_THAT(Read().Find("A", "pt-BR"), Optional(std::string("oi")));
}

TEST_F(TranslationsOf, KnowNoOtherKeysThanThose) {
  Shipped("en.ini", "A = hello\n");
  const Translations translations = Read();

  EXPECT_FALSE(translations.Find("B", "en"));
  EXPECT_FALSE(translations.Find("a", "en"));
  EXPECT_FALSE(translations.Find("", "en"));
  EXPECT_FALSE(translations.Find(std::string("A\0", 2), "en"));
}

TEST_F(TranslationsOf, ASiteReplaceTheShippedOnesKeyByKey) {
  Shipped("en.ini", "A = hello\nB = bye\n");
  Shipped("de.ini", "A = hallo\nB = adieu\n");
  OfSite("de.ini", "A = moin\n");
  OfSite("nl.ini", "A = hoi\n");
  const Translations translations = Read();

  EXPECT_THAT(translations.Find("A", "de"), Optional(std::string("moin")));
  EXPECT_THAT(translations.Find("B", "de"), Optional(std::string("adieu")));
  EXPECT_THAT(translations.Find("A", "en"), Optional(std::string("hello")));
  EXPECT_THAT(translations.Find("A", "nl"), Optional(std::string("hoi")));
  EXPECT_THAT(complaints_, IsEmpty());
}

TEST_F(TranslationsOf, NoDirectoryAreNone) {
  const Translations translations = Read();

  EXPECT_FALSE(translations.Find("A", "en"));
  EXPECT_THAT(complaints_, IsEmpty());
}

TEST_F(TranslationsOf, MayHoldCommentsBlanksLineEndsAndAByteOrderMark) {
  Shipped("en.ini",
          "\xEF\xBB\xBF"
          "A=one\r\n"
          "; comment = no key\r\n"
          "# another = one\r\n"
          "\r\n"
          "  B\t =  two = 2 ; all of it \r\n"
          "C = first\\nsecond\\\\n");
  const Translations translations = Read();

  EXPECT_THAT(translations.Find("A", "en"), Optional(std::string("one")));
  EXPECT_THAT(translations.Find("B", "en"), Optional(std::string("two = 2 ; all of it")));
  EXPECT_THAT(translations.Find("C", "en"), Optional(std::string("first\nsecond\\n")));
  EXPECT_THAT(complaints_, IsEmpty());
}

TEST_F(TranslationsOf, LeaveOddLinesOutAndTellWhere) {
  Shipped("en.ini",
          "[section]\n"
          "A = first\n"
          "A = again\n"
          "no text\n"
          " = no key\n"
          "KEY WITH BLANK = x\n"
          "B =\n"
          "C = \\t\n"
          "D = ends in a backslash\\\n"
          "E = bell \x07\n"
          "F = fine\n");
  const Translations translations = Read();

  EXPECT_THAT(translations.Find("A", "en"), Optional(std::string("first")));
  EXPECT_THAT(translations.Find("F", "en"), Optional(std::string("fine")));
  for (const char* const key : {"B", "C", "D", "E"}) EXPECT_FALSE(translations.Find(key, "en"));
  EXPECT_THAT(
      complaints_,
      ElementsAre(HasSubstr("en.ini, line 1: "), HasSubstr("line 3: "), HasSubstr("line 4: "),
                  HasSubstr("line 5: "), HasSubstr("line 6: "), HasSubstr("line 7: "),
                  HasSubstr("line 8: "), HasSubstr("line 9: "), HasSubstr("line 10: ")));
}

TEST_F(TranslationsOf, AreUtf8) {
  Shipped("en.ini",
          "A = \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80\n"
          "LONE = \x80\n"
          "CUT = \xE2\x82\n"
          "LATIN = gr\xFC\xDF\n"
          "OVERLONG = \xC0\xAF\n"
          "OVERLONG3 = \xE0\x80\xAF\n"
          "SURROGATE = \xED\xA0\x80\n"
          "BEYOND = \xF4\x90\x80\x80\n"
          "CONTROL = \xC2\x85\n");
  const Translations translations = Read();

  EXPECT_THAT(translations.Find("A", "en"),
              Optional(std::string("\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80")));
  for (const char* const key :
       {"LONE", "CUT", "LATIN", "OVERLONG", "OVERLONG3", "SURROGATE", "BEYOND", "CONTROL"}) {
    EXPECT_FALSE(translations.Find(key, "en")) << key;
  }
  EXPECT_THAT(complaints_, SizeIs(8));
}

TEST_F(TranslationsOf, LeaveOutFilesThatAreNone) {
  Shipped("en.ini", "A = hello\n");
  Shipped("not a language.ini", "A = x\n");
  Shipped("notes.txt", "A = x\n");
  fs::create_directories(Path("shipped") / "de.ini");
  const Translations translations = Read();

  EXPECT_THAT(translations.Find("A", "de"), Optional(std::string("hello")));
  EXPECT_THAT(complaints_, ElementsAre(EndsWith("de.ini is no file"),
                                       EndsWith("the name is no language's tag")));
}

TEST_F(TranslationsOf, LeaveOutFilesBeyondAMebibyte) {
  const std::string longest = "A = " + std::string((1 << 20) - 5, 'x') + "\n";
  Shipped("de.ini", longest);
  Shipped("fr.ini", longest + "\n");
  const Translations translations = Read();

  EXPECT_TRUE(translations.Find("A", "de"));
  EXPECT_FALSE(translations.Find("A", "fr"));
  EXPECT_THAT(complaints_, ElementsAre(EndsWith("fr.ini is larger than 1 MiB")));
}

TEST_F(TranslationsOf, ComplainTwentyTimesOfOneFile) {
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "odd\n";
  Shipped("en.ini", text);
  Read();

  EXPECT_THAT(complaints_, SizeIs(20));
}

TEST_F(TranslationsOf, TellOfADirectoryThatIsNone) {
  Write(Path("site"), "A = x\n");
  Read();

  EXPECT_THAT(complaints_, ElementsAre(HasSubstr("site cannot be read")));
}

TEST(RightToLeft, GoesByScriptThenLanguage) {
  for (const char* const language : {"ar", "ar-EG", "ar_EG.UTF-8", "HE", "fa-IR", "ur", "az-Arab"})
    EXPECT_TRUE(Translations::IsRightToLeft(language)) << language;
  for (const char* const language : {"", "en", "de-AT", "C", "az", "ar-Latn", "ara", "arn"})
    EXPECT_FALSE(Translations::IsRightToLeft(language)) << language;
}

// The files that come with the agent.

TranslationTexts ShippedTexts(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  const std::string content{std::istreambuf_iterator<char>(stream), {}};
  TranslationTexts texts;
  ReadTranslationFile(content, &texts,
                      [&](const std::string& line) { ADD_FAILURE() << file << ", " << line; });
  return texts;
}

std::set<std::string> KeysOf(const TranslationTexts& texts) {
  std::set<std::string> keys;
  for (const auto& text : texts) keys.insert(text.first);
  return keys;
}

std::multiset<std::string> PlaceholdersOf(const std::string& text) {
  std::multiset<std::string> placeholders;
  for (size_t start = text.find('{'); start != std::string::npos; start = text.find('{', start + 1))
    placeholders.insert(text.substr(start, text.find('}', start) - start + 1));
  return placeholders;
}

TEST(ShippedTranslationsOf, EveryLanguageHaveTheKeysAndPlaceholdersOfEnglish) {
  const TranslationTexts english = ShippedTexts(ShippedTranslations() / "en.ini");
  ASSERT_THAT(english, SizeIs(8));
  std::set<std::string> languages;
  for (const fs::directory_entry& entry : fs::directory_iterator(ShippedTranslations())) {
    const TranslationTexts texts = ShippedTexts(entry.path());
    languages.insert(entry.path().stem().string());
    EXPECT_EQ(KeysOf(texts), KeysOf(english)) << entry.path();
    for (const auto& [key, text] : texts)
      EXPECT_EQ(PlaceholdersOf(text), PlaceholdersOf(english.at(key))) << entry.path() << key;
  }
  EXPECT_THAT(languages, ElementsAre("ar", "de", "en", "fr"));
}

// A name may be so long that what stands behind it is out of sight.
TEST(ShippedTranslationsOf, AllLanguagesPutTheNameOfWhoAsksBehindTheQuestion) {
  for (const fs::directory_entry& entry : fs::directory_iterator(ShippedTranslations())) {
    const std::string text = ShippedTexts(entry.path()).at("_MESSAGEBOX_DA_ACKNOWLEDGMENTREQUEST_");
    EXPECT_THAT(text, EndsWith("{AdminName}")) << entry.path();
    EXPECT_THAT(text, HasSubstr("\n\n")) << entry.path();
  }
}

TEST(ShippedTranslationsOf, EnglishNameWhoAsksAndTheTimeLeft) {
  const TranslationTexts english = ShippedTexts(ShippedTranslations() / "en.ini");

  EXPECT_THAT(english.at("_MESSAGEBOX_DA_ACKNOWLEDGMENTREQUEST_"), HasSubstr("{AdminName}"));
  EXPECT_THAT(english.at("_DIALOG_TIMELEFT_"), HasSubstr("{Time}"));
  for (const char* const key : {"_MESSAGEBOXTITLE_DEVICELOCKED_", "_ACTION_YES_", "_ACTION_NO_",
                                "_ACTION_CLOSE_", "_DIALOG_TITLE_", "_LOCK_TEXT_"}) {
    EXPECT_TRUE(english.contains(key)) << key;
  }
}

}  // namespace
