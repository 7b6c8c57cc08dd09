#include <map>
#include <string>
#include <vector>

#include "tests/contract/module_test.h"

namespace {

std::string Root(char letter) {
  return "\"" + std::string(1, letter) + ":\\\"";
}

std::string TypeQuery(char letter) {
  return "GetDriveTypeW(" + Root(letter) + ")";
}

std::string LabelQuery(char letter) {
  return "GetVolumeInformationW(" + Root(letter) + ", given, 260, null, null, null, given, 260)";
}

class GetFileSystems : public ModuleTest {
 protected:
  /// Scripts the types of the drives; the others have no root directory.
  void AnswerTypes(const std::map<char, int>& types) {
    for (char letter = 'C'; letter <= 'Z'; ++letter) {
      const auto found = types.find(letter);
      host.Answer("GetDriveTypeW", found == types.end() ? 1 : found->second);
    }
  }
};

TEST_F(GetFileSystems, AsksForEveryLetterFromCToZ) {
  AnswerTypes({{'D', 3}});
  host.AnswerBytes("GetVolumeInformationW", "data", 1);

  EXPECT_EQ(Run("CoreUtilsGetFileSystems", {}),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"D:\", DriveType: Int32 3, "
                     "VolumeName: String \"data\"}]}"}));

  std::vector<std::string> expected;
  for (char letter = 'C'; letter <= 'Z'; ++letter) {
    expected.push_back(TypeQuery(letter));
    if (letter == 'D') expected.push_back(LabelQuery(letter));
  }
  EXPECT_EQ(host.Transcript(), expected);
}

TEST_F(GetFileSystems, LeavesOutUnknownDrivesAndThoseWithoutARoot) {
  AnswerTypes({{'C', 0}, {'D', 1}});
  EXPECT_EQ(Run("CoreUtilsGetFileSystems", {}), (Outcome{kSuccess, "{}"}));
}

TEST_F(GetFileSystems, PassesEveryOtherTypeOnInTheOrderOfLetters) {
  AnswerTypes({{'C', 2}, {'E', 3}, {'M', 4}, {'X', 5}, {'Y', 6}, {'Z', 77}});
  for (const char* label : {"stick", "disk", "share", "disc", "ram", "odd"}) {
    host.AnswerBytes("GetVolumeInformationW", label, 1);
  }

  EXPECT_EQ(
      Run("CoreUtilsGetFileSystems", {}),
      (Outcome{kSuccess,
               "{Values: [{Name: String \"C:\", DriveType: Int32 2, VolumeName: String \"stick\"}, "
               "{Name: String \"E:\", DriveType: Int32 3, VolumeName: String \"disk\"}, "
               "{Name: String \"M:\", DriveType: Int32 4, VolumeName: String \"share\"}, "
               "{Name: String \"X:\", DriveType: Int32 5, VolumeName: String \"disc\"}, "
               "{Name: String \"Y:\", DriveType: Int32 6, VolumeName: String \"ram\"}, "
               "{Name: String \"Z:\", DriveType: Int32 77, VolumeName: String \"odd\"}]}"}));
}

TEST_F(GetFileSystems, ListsADriveWithoutAMediumWithoutALabel) {
  AnswerTypes({{'C', 3}, {'D', 5}, {'E', 3}});
  host.AnswerBytes("GetVolumeInformationW", "system", 1);
  host.Answer("GetVolumeInformationW", 0);
  host.AnswerBytes("GetVolumeInformationW", "", 1);

  // The label of the drive before does not stay.
  EXPECT_EQ(Run("CoreUtilsGetFileSystems", {}),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"C:\", DriveType: Int32 3, "
                     "VolumeName: String \"system\"}, {Name: String \"D:\", DriveType: Int32 5, "
                     "VolumeName: String \"\"}, {Name: String \"E:\", DriveType: Int32 3, "
                     "VolumeName: String \"\"}]}"}));
}

TEST_F(GetFileSystems, KeepsALabelThatFillsTheBuffer) {
  AnswerTypes({{'C', 3}});
  host.AnswerBytes("GetVolumeInformationW", std::string(500, 'x'), 1);

  EXPECT_EQ(Run("CoreUtilsGetFileSystems", {}),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"C:\", DriveType: Int32 3, "
                     "VolumeName: String \"" +
                         std::string(259, 'x') + "\"}]}"}));
}

TEST_F(GetFileSystems, KeepsALabelThatComesWithAFailure) {
  AnswerTypes({{'C', 3}});
  host.AnswerBytes("GetVolumeInformationW", "data", 0);

  EXPECT_EQ(Run("CoreUtilsGetFileSystems", {}),
            (Outcome{kSuccess,
                     "{Values: [{Name: String \"C:\", DriveType: Int32 3, "
                     "VolumeName: String \"data\"}]}"}));
}

TEST_F(GetFileSystems, ReplacesTheFirstRowsThatWereSentInAndKeepsTheRest) {
  AnswerTypes({{'D', 3}});
  host.AnswerBytes("GetVolumeInformationW", "data", 1);
  ZelContainer params = Texts({{"Other", "mine"}});
  for (uint32_t row = 0; row < 3; ++row) {
    params.SetContainer("Values", Texts({{"Mine", std::to_string(row).c_str()}}), row);
  }
  params.SetInt32("Total", 7, kNoIndex);

  EXPECT_EQ(Run("CoreUtilsGetFileSystems", params),
            (Outcome{kSuccess,
                     "{Other: String \"mine\", Values: [{Name: String \"D:\", "
                     "DriveType: Int32 3, VolumeName: String \"data\"}, {Mine: String \"1\"}, "
                     "{Mine: String \"2\"}], Total: Int32 7}"}));
}

TEST_F(GetFileSystems, SendsParametersBack) {
  AnswerTypes({});
  EXPECT_EQ(Run("CoreUtilsGetFileSystems", Texts({{"Other", "mine"}})),
            (Outcome{kSuccess, "{Other: String \"mine\"}"}));
}

}  // namespace
