#include "agent/libZelCore/identity.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "agent/libZelCore/agent_core.h"
#include "libZelCore.h"
#include "tests/agent/temporary_directory.h"

namespace {

namespace fs = std::filesystem;

using testing::AllOf;
using testing::HasSubstr;

constexpr const char* kUuid = "0f8fad5b-d9cb-469f-a165-70867728950e";

class DeviceIdentityTest : public testing::Test {
 protected:
  fs::path File() const { return directory_.Native() / "identity"; }
  std::string IdentityFrom(const std::string& content) const {
    WriteFile(File(), content);
    return DeviceIdentity(File());
  }
  std::string ProblemWith(const fs::path& file) const {
    try {
      return "none: " + DeviceIdentity(file);
    } catch (const std::runtime_error& error) {
      return error.what();
    }
  }

  TemporaryDirectory directory_;
};

TEST_F(DeviceIdentityTest, IsARandomUuidOfVersionFourInLowerCase) {
  const std::string identity = DeviceIdentity(File());
  ASSERT_EQ(identity.size(), 36u);
  std::string form = identity;
  for (char& c : form) {
    if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f')) c = 'x';
  }
  EXPECT_EQ(form, "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx");
  EXPECT_EQ(identity[14], '4');
  EXPECT_THAT(std::string("89ab"), HasSubstr(identity.substr(19, 1)));
  EXPECT_EQ(ReadFile(File()), identity + "\n");
  EXPECT_EQ(directory_.CountEntries(), 1u);
}

TEST_F(DeviceIdentityTest, StaysTheSameOnceItIsMade) {
  const std::string identity = DeviceIdentity(File());
  EXPECT_EQ(DeviceIdentity(File()), identity);
  EXPECT_NE(DeviceIdentity(directory_.Native() / "other"), identity);
}

TEST_F(DeviceIdentityTest, IsTakenFromAFileThatSomebodyElseWrote) {
  EXPECT_EQ(IdentityFrom(kUuid), kUuid);
  EXPECT_EQ(IdentityFrom(std::string(kUuid) + "\r\n"), kUuid);
  EXPECT_EQ(IdentityFrom("0F8FAD5B-D9CB-469F-A165-70867728950E\n"), kUuid);
}

TEST_F(DeviceIdentityTest, IsNotMadeAnewWhereTheFileHoldsNone) {
  const std::string whole = kUuid;
  for (const std::string& content :
       {std::string(), std::string("\n"), whole.substr(1), whole + "0", whole + " ", "x" + whole,
        "{" + whole + "}", whole + "\n" + whole, whole + std::string(20, '\n') + "x",
        whole.substr(0, 35) + "g", std::string("00000000-0000-0000-0000-000000000000"),
        std::string(36, '-'), std::string(36, '\0')}) {
    WriteFile(File(), content);
    EXPECT_THAT(ProblemWith(File()),
                AllOf(HasSubstr("identity holds no UUID: restore it"), HasSubstr("or delete it")))
        << content;
    EXPECT_EQ(ReadFile(File()), content);
  }
}

TEST_F(DeviceIdentityTest, IsNotMadeAnewWhereTheFileCannotBeRead) {
  fs::create_directory(File());
  EXPECT_THAT(ProblemWith(File()), HasSubstr("identity cannot be read: restore it"));
  EXPECT_TRUE(fs::is_directory(File()));
}

TEST_F(DeviceIdentityTest, IsNotToldWhereItCannotBeKept) {
  const fs::path file = directory_.Native() / "missing" / "identity";
  EXPECT_THAT(ProblemWith(file), HasSubstr("missing"));
  EXPECT_THAT(ProblemWith(file), testing::Not(testing::StartsWith("none")));
}

class AgentIdentityTest : public testing::Test {
 protected:
  AgentOptions Options(const char* home) const {
    return {directory_.Native() / home, uint16_t{0}, false};
  }
  std::string IdentityAt(const char* home) const {
    const AgentCore core(Options(home));
    ZelContainer answer;
    ZelString identity;
    EXPECT_EQ(
        ActionDbInvokeContainer(nullptr, "", "IdentityGetGUID", &answer, nullptr, ~0U, ~0U, false),
        0u);
    EXPECT_TRUE(answer.GetString("GUID", &identity, kNoIndex));
    return std::string(identity.Utf8());
  }

  TemporaryDirectory directory_;
};

TEST_F(AgentIdentityTest, IsThatOfTheHomeAtEveryStart) {
  const std::string identity = IdentityAt("one");
  EXPECT_EQ(identity.size(), 36u);
  EXPECT_EQ(IdentityAt("one"), identity);
  EXPECT_EQ(ReadFile(directory_.Native() / "one" / "data" / "identity"), identity + "\n");
  EXPECT_NE(IdentityAt("two"), identity);
}

TEST_F(AgentIdentityTest, StopsTheStartWhereItIsDamaged) {
  const std::string identity = IdentityAt("one");
  const fs::path file = directory_.Native() / "one" / "data" / "identity";
  WriteFile(file, identity.substr(0, 20));
  try {
    const AgentCore core(Options("one"));
    FAIL() << "an agent started without knowing who it is";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("identity holds no UUID"));
  }
  EXPECT_EQ(ReadFile(file), identity.substr(0, 20));

  WriteFile(file, identity);
  EXPECT_EQ(IdentityAt("one"), identity);
  fs::remove(file);
  EXPECT_NE(IdentityAt("one"), identity);
}

}  // namespace
