#include "agent/libZel/dialog_options.h"

#include <gmock/gmock.h>

#include <random>
#include <string>
#include <vector>

#include "libZel/string.h"

using testing::Optional;

namespace {

// The string as an action makes it.
struct Written {
  std::optional<uint32_t> timeout;
  std::optional<std::string> message;
  std::optional<std::string> path;
  std::optional<std::string> title;
  std::optional<uint32_t> topMost;

  std::string Text() const {
    std::string text;
    const auto add = [&text](const char* format, const auto& value) {
      ZelString option;
      if (value) text += option.Printf(format, *value).Utf8();
    };
    add(" -InformationPopupTimeOut %u", timeout);
    add(" -InformationPopup \"%S\"", message);
    add(" -ImagePath \"%S\"", path);
    add(" -n \"%S\"", title);
    add(" -TopMost %u", topMost);
    return text;
  }
  DialogOptions Meaning() const {
    return {timeout.value_or(0), path.value_or(""), title.value_or(""), topMost.value_or(0) != 0};
  }
};

std::optional<DialogOptions> Read(const std::string& options, const std::string& message = "") {
  return ReadDialogOptions(options, message);
}

// A text of pieces that could be taken for options.
class OddTexts {
 public:
  std::string Next() {
    static const std::vector<std::string> kPieces = {"\"",
                                                     " ",
                                                     "-n",
                                                     " -n \"",
                                                     "\" -n \"",
                                                     "\" -n ",
                                                     " -TopMost 1",
                                                     "\" -TopMost 1",
                                                     "-TopMost ",
                                                     " -ImagePath \"",
                                                     " -InformationPopup \"",
                                                     " -InformationPopupTimeOut 9",
                                                     "7",
                                                     "%S",
                                                     "\\",
                                                     "",
                                                     "x",
                                                     std::string(1, '\0'),
                                                     "\xC3\xA4",
                                                     "\n"};
    std::string text;
    for (size_t count = Below(6); count > 0; --count) text += kPieces[Below(kPieces.size())];
    return text;
  }
  uint32_t Number() {
    constexpr uint32_t kNumbers[] = {0, 1, 10, 4294967295};
    return kNumbers[Below(std::size(kNumbers))];
  }
  bool Toss() { return Below(2) == 1; }

 private:
  size_t Below(size_t limit) { return random_() % limit; }
  std::minstd_rand random_{4711};
};

}  // namespace

TEST(DialogOptions, MayBeNone) {
  EXPECT_THAT(Read(""), Optional(DialogOptions{}));
  EXPECT_THAT(Read("", "message"), Optional(DialogOptions{}));
}

TEST(DialogOptions, AreReadInTheirOrder) {
  const DialogOptions all{30, "C:\\logo.png", "Title", true};
  EXPECT_THAT(Read(" -InformationPopupTimeOut 30 -InformationPopup \"Hello\" -ImagePath "
                   "\"C:\\logo.png\" -n \"Title\" -TopMost 1",
                   "Hello"),
              Optional(all));
  EXPECT_EQ(Read(" -TopMost 1 -n \"Title\""), std::nullopt);
  EXPECT_EQ(Read(" -n \"Title\" -InformationPopupTimeOut 3"), std::nullopt);
}

TEST(DialogOptions, StandAlone) {
  EXPECT_THAT(Read(" -InformationPopupTimeOut 4294967295"),
              Optional(DialogOptions{4294967295, "", "", false}));
  EXPECT_THAT(Read(" -InformationPopup \"m\"", "m"), Optional(DialogOptions{}));
  EXPECT_THAT(Read(" -ImagePath \"/p\""), Optional(DialogOptions{0, "/p", "", false}));
  EXPECT_THAT(Read(" -n \"t\""), Optional(DialogOptions{0, "", "t", false}));
  EXPECT_THAT(Read(" -TopMost 0"), Optional(DialogOptions{}));
  EXPECT_THAT(Read(" -TopMost 2"), Optional(DialogOptions{0, "", "", true}));
}

TEST(DialogOptions, AreRefusedWhenTheyAreAnythingElse) {
  for (const char* const text : {" ",
                                 "x",
                                 "-TopMost 1",
                                 " -TopMost",
                                 " -TopMost ",
                                 " -TopMost 1 ",
                                 " -TopMost -1",
                                 " -TopMost 4294967296",
                                 " -TopMost  1",
                                 " -topmost 1",
                                 " -InformationPopupTimeOut",
                                 " -InformationPopupTimeOut ",
                                 " -InformationPopupTimeOut x",
                                 " -InformationPopupTimeOut +1",
                                 " -InformationPopupTimeOut 4294967296",
                                 " -InformationPopupTimeOut 99999999999999999999",
                                 " -InformationPopupTimeOut 1x",
                                 " -InformationPopupTimeOut 1 ",
                                 " -n",
                                 " -n \"",
                                 " -n \"t",
                                 " -n t",
                                 " -n \"t\" ",
                                 " -ImagePath \"",
                                 " -ImagePath \"p",
                                 " -ImagePath \"p\" ",
                                 " -InformationPopup \"other\"",
                                 " -InformationPopup \"",
                                 " -InformationPopup \"m",
                                 " -InformationPopup \"m\"x",
                                 " -InformationPopup \"m\"\"",
                                 " -Other \"x\"",
                                 "7"}) {
    EXPECT_EQ(Read(text, "m"), std::nullopt) << text;
  }
}

TEST(DialogOptions, LetNoTextBecomeAnOption) {
  OddTexts odd;
  for (int i = 0; i < 20000; ++i) {
    Written written;
    if (odd.Toss()) written.timeout = odd.Number();
    if (odd.Toss()) written.message = odd.Next();
    if (odd.Toss()) written.path = odd.Next();
    if (odd.Toss()) written.title = odd.Next();
    if (odd.Toss()) written.topMost = odd.Number();
    // The one text whose end cannot be told.
    if (written.path && written.path->find("\" -n ") != std::string::npos) continue;
    ASSERT_THAT(Read(written.Text(), written.message.value_or("")), Optional(written.Meaning()))
        << written.Text();
  }
}

TEST(DialogOptions, TakeAPathToEndWhereATitleCouldBegin) {
  EXPECT_THAT(Read(" -ImagePath \"a\" -n \"b\" -n \"c\""),
              Optional(DialogOptions{0, "a", "b\" -n \"c", false}));
  EXPECT_THAT(Read(" -ImagePath \"a\" -n b\""), Optional(DialogOptions{0, "a\" -n b", "", false}));
}
