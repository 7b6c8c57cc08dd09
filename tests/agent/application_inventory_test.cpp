#include "agent/libZelCore/application_inventory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "tests/agent/temporary_directory.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class ApplicationInventoryTest : public testing::Test {
 protected:
  void Write(const std::string& text) { WriteFile(file_, text); }

  std::string NameOf(const char* fileName, uint32_t sizeBytes) {
    const auto found = inventory_.Find(fileName, sizeBytes);
    return found ? found->name : "none";
  }

  TemporaryDirectory directory_;
  std::filesystem::path file_ = directory_.Native() / "applications.ini";
  ApplicationInventory inventory_{file_};
};

TEST_F(ApplicationInventoryTest, PrefersAnApplicationOfTheSizeToOneOfAnySize) {
  Write(
      "[Any Editor]\nfile = edit.exe\n[Editor 2]\nfile = EDIT.exe\nsize = 200, 201\n"
      "[Editor 3]\nfile = edit.exe\nsize = 300\n");
  EXPECT_EQ(NameOf("Edit.EXE", 300), "Editor 3");
  EXPECT_EQ(NameOf("edit.exe", 200), "Editor 2");
  EXPECT_EQ(NameOf("edit.exe", 201), "Editor 2");
  EXPECT_EQ(NameOf("edit.exe", 1), "Any Editor");
  EXPECT_EQ(NameOf("edit", 300), "none");
  EXPECT_EQ(NameOf("", 300), "none");
}

TEST_F(ApplicationInventoryTest, ComparesTheLowest32BitsOfSizes) {
  Write("[Large]\nfile = large\nsize = 3221225472\n[Huge]\nfile = huge\nsize = 4294967303\n");
  EXPECT_EQ(NameOf("large", 3221225472u), "Large");
  EXPECT_EQ(NameOf("huge", 7), "Huge");
}

TEST_F(ApplicationInventoryTest, FollowsChangesOfTheFile) {
  EXPECT_EQ(NameOf("a", 1), "none");
  Write("[A]\nfile = a\n");
  EXPECT_EQ(NameOf("a", 1), "A");
  Write("[Other]\nfile = a\n");
  EXPECT_EQ(NameOf("a", 1), "Other");

  // Of the same size: only the time tells.
  const auto time = std::filesystem::last_write_time(file_);
  Write("[Third]\nfile = a\n");
  std::filesystem::last_write_time(file_, time + std::chrono::seconds(2));
  EXPECT_EQ(NameOf("a", 1), "Third");

  std::filesystem::remove(file_);
  EXPECT_EQ(NameOf("a", 1), "none");
}

TEST_F(ApplicationInventoryTest, AnswersWhatItKnows) {
  Write("[Tool]\nfile = tool.exe\nsize = 3221225472\npublisher = Ä & Co\nversion = 1.2\n");
  ZelContainer query;
  query.SetString("FileName", "TOOL.EXE", kNoIndex);
  query.SetInt32("FileSize", -1073741824, kNoIndex);
  query.SetString("FileChecksum", "ignored", kNoIndex);
  EXPECT_EQ(inventory_.Answer(&query), 0u);

  ZelContainer expected;
  expected.SetString("Name", "Tool", kNoIndex);
  expected.SetString("Publisher", "Ä & Co", kNoIndex);
  expected.SetString("Version", "1.2", kNoIndex);
  EXPECT_EQ(query, expected);
}

TEST_F(ApplicationInventoryTest, AnswersTheNameAloneWhenNothingElseIsSet) {
  Write("[Tool]\nfile = tool.exe\n");
  ZelContainer query;
  query.SetString("FileName", "tool.exe", kNoIndex);
  EXPECT_EQ(inventory_.Answer(&query), 0u);
  EXPECT_EQ(query.CountKeys(), 1u);
}

TEST_F(ApplicationInventoryTest, AnswersNothingForAFileItDoesNotKnow) {
  ZelContainer query;
  query.SetString("FileName", "tool.exe", kNoIndex);
  query.SetInt32("FileSize", 1, kNoIndex);
  EXPECT_EQ(inventory_.Answer(&query), 1u);
  EXPECT_EQ(query.CountKeys(), 0u);
}

TEST(InventoryText, WarnsOfWhatItPassesOver) {
  const InventoryText read = ParseInventory(
      "file = outside\n[Sized]\nfile = a\nsize = 12x\n[Empty]\n[Good]\nfile = b\ncolour = red\n"
      "nonsense\nfile = c\nsize = 1,,2\n[Fine]\nfile = d\nsize = 1 , 2\n");
  ASSERT_EQ(read.applications.size(), 1u);
  EXPECT_EQ(read.applications[0].name, "Fine");
  EXPECT_THAT(read.applications[0].sizes, ElementsAre(1u, 2u));
  EXPECT_THAT(read.warnings, ElementsAre(HasSubstr("line 1: "), HasSubstr("line 9: "),
                                         HasSubstr("line 10: \"file\" is set already in line 7"),
                                         HasSubstr("line 4: [Sized] size = 12x"),
                                         HasSubstr("line 8: [Good] colour = red: unknown key"),
                                         HasSubstr("line 11: [Good] size = 1,,2"),
                                         HasSubstr("[Empty] names no file")));
}

TEST(InventoryText, TakesSectionsInTheirOrder) {
  const InventoryText read = ParseInventory("[Z]\nfile = x\n[A]\nfile = x\n");
  EXPECT_THAT(read.warnings, IsEmpty());
  ASSERT_EQ(read.applications.size(), 2u);
  EXPECT_EQ(read.applications[0].name, "Z");
}

}  // namespace
