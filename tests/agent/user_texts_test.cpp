#include "agent/libZelCore/user_texts.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/libZelCore/core_log.h"
#include "tests/agent/temporary_directory.h"

namespace {

using testing::ElementsAre;

class TheUsersTexts : public testing::Test {
 protected:
  UserTexts Texts(const std::string& language = {}) {
    WriteFile(directory_.Native() / "en.ini", "A = hello\n");
    WriteFile(directory_.Native() / "de.ini", "A = hallo\n");
    return {{directory_.Native()}, language, [this](const std::string& pipe) {
              asked_.push_back(pipe);
              return answer_;
            }};
  }

  TemporaryDirectory directory_;
  std::vector<std::string> asked_;
  std::string answer_ = "de-AT";
};

TEST_F(TheUsersTexts, AreInTheLanguageThatTheProxyTells) {
  UserTexts texts = Texts();

  EXPECT_EQ(texts.Find("A", texts.LanguageAt("pipe")), "hallo");
}

TEST_F(TheUsersTexts, CostOneQuestionForEachPipe) {
  UserTexts texts = Texts();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(texts.LanguageAt("one"), "de-AT");
    EXPECT_EQ(texts.LanguageAt("two"), "de-AT");
  }

  EXPECT_THAT(asked_, ElementsAre("one", "two"));
}

TEST_F(TheUsersTexts, CostOneQuestionAlsoWhenTheProxyDoesNotTell) {
  answer_.clear();
  UserTexts texts = Texts("fr");

  EXPECT_EQ(texts.LanguageAt("pipe"), "fr");
  EXPECT_EQ(texts.LanguageAt("pipe"), "fr");
  EXPECT_THAT(asked_, ElementsAre("pipe"));
}

TEST_F(TheUsersTexts, AreInTheConfiguredLanguageWithoutAProxy) {
  UserTexts texts = Texts("de");

  EXPECT_EQ(texts.Find("A", texts.LanguageAt("")), "hallo");
  EXPECT_THAT(asked_, ElementsAre());
}

TEST_F(TheUsersTexts, AreTheKeyWhereThereIsNone) {
  UserTexts texts = Texts();

  EXPECT_EQ(texts.Find("_NO_SUCH_", "de"), "_NO_SUCH_");
  EXPECT_EQ(texts.Find("", "de"), "");
}

TEST_F(TheUsersTexts, AreMissedOnceInTheLog) {
  const std::filesystem::path log = directory_.Native() / "log";
  {
    ZelDebugContext context({.logFile = log});
    CoreLog().SetContext(&context);
    UserTexts texts = Texts();
    for (const char* language : {"de", "en", "de"}) {
      texts.Find("_MISSED_", language);
      texts.Find("_MISSED_TOO_", language);
      texts.Find("A", language);
    }
    CoreLog().SetContext(nullptr);
  }

  std::vector<std::string> missed;
  std::istringstream lines(ReadFile(log));
  const std::string text = "There is no text for the key ";
  for (std::string line; std::getline(lines, line);) {
    if (const size_t at = line.find(text); at != std::string::npos)
      missed.push_back(line.substr(at + text.size()));
  }
  EXPECT_THAT(missed, ElementsAre("\"_MISSED_\"", "\"_MISSED_TOO_\""));
}

}  // namespace
