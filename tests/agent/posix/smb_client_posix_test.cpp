// The client of file servers against Samba.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <iterator>
#include <memory>
#include <string>

#include "libZel/smb.h"
#include "tests/agent/library_log.h"
#include "tests/agent/samba_server.h"

namespace {

using testing::HasSubstr;
using testing::Not;

constexpr uint16_t kPort = 139;
constexpr int kOverNetBios = 0;
constexpr uint32_t kDisk = 1;
constexpr uint32_t kPipe = 2;

/// How far a log-in with a share gets.
enum class Reached { kNothing, kTcp, kSession, kDialect, kLogIn, kShare, kClosedShare, kLogOff };

struct Way {
  Reached reached = Reached::kNothing;
  bool hasLoggedOff = false;
  uint32_t shareType = 0;
};

Way Climb(const SambaServer& server, const ZelString& user, const ZelString& password,
          const ZelString& share) {
  CsSmbClient client(kOverNetBios);
  _CsSmbTreeInfo tree{};
  Way way;
  if (client.TcpConnect(server.Address(), kPort) == 0) return way;
  way.reached = Reached::kTcp;
  if (client.NbtSessionRequest("*SMBSERVER") == 0) return way;
  way.reached = Reached::kSession;
  if (client.SmbSessionNegotiate() == 0) return way;
  way.reached = Reached::kDialect;
  if (client.SmbSessionSetup(user, password) == 0) return way;
  way.reached = Reached::kLogIn;
  if (client.SmbTreeConnect(share, tree) != 0) {
    way.reached = Reached::kShare;
    way.shareType = tree.shareType;
    if (client.SmbTreeDisconnect(tree) != 0) way.reached = Reached::kClosedShare;
  }
  way.hasLoggedOff = client.SmbSessionLogOff() != 0;
  if (way.hasLoggedOff && way.reached == Reached::kClosedShare) way.reached = Reached::kLogOff;
  return way;
}

/// The user's.
Way Climb(const SambaServer& server, const ZelString& share = SambaServer::kShare) {
  return Climb(server, SambaServer::kUser, SambaServer::kPassword, share);
}

/// One server for all tests that need no settings of their own.
class CsSmbClientAtSamba : public testing::Test {
 protected:
  static void SetUpTestSuite() { server_ = std::make_unique<SambaServer>(); }
  static void TearDownTestSuite() { server_.reset(); }

  static inline std::unique_ptr<SambaServer> server_;
  LibraryLogText log_;
};

TEST_F(CsSmbClientAtSamba, OpensAShareAndLeavesNothing) {
  const Way way = Climb(*server_);
  EXPECT_EQ(Reached::kLogOff, way.reached) << log_.Text();
  EXPECT_EQ(kDisk, way.shareType);
  EXPECT_TRUE(server_->WaitForLog("opcode[SMB2_OP_TDIS]"));
  EXPECT_TRUE(server_->WaitForLog("opcode[SMB2_OP_LOGOFF]"));
}

TEST_F(CsSmbClientAtSamba, TellsAWrongPasswordFromAWrongShare) {
  EXPECT_EQ(Reached::kDialect,
            Climb(*server_, SambaServer::kUser, "secret-4711", SambaServer::kShare).reached);
  EXPECT_THAT(log_.Text(), HasSubstr("STATUS_LOGON_FAILURE"));
  const Way way = Climb(*server_, "none");
  EXPECT_EQ(Reached::kLogIn, way.reached);
  EXPECT_TRUE(way.hasLoggedOff);
  EXPECT_THAT(log_.Text(), HasSubstr("STATUS_BAD_NETWORK_NAME"));
  EXPECT_THAT(log_.Text(), Not(HasSubstr("secret-4711")));
}

TEST_F(CsSmbClientAtSamba, DoesNotKnowAnUnknownUser) {
  EXPECT_EQ(Reached::kDialect, Climb(*server_, "nobody-here", "x", SambaServer::kShare).reached);
}

TEST_F(CsSmbClientAtSamba, TakesADomainBeforeTheName) {
  EXPECT_EQ(Reached::kLogOff,
            Climb(*server_, "DOMAIN\\alice", SambaServer::kPassword, SambaServer::kShare).reached)
      << log_.Text();
}

TEST_F(CsSmbClientAtSamba, IsRefusedWhereTheUserMayNotGo) {
  EXPECT_EQ(Reached::kLogIn, Climb(*server_, SambaServer::kClosedShare).reached);
  EXPECT_THAT(log_.Text(), HasSubstr("STATUS_ACCESS_DENIED"));
}

TEST_F(CsSmbClientAtSamba, TakesNoPathForAShare) {
  EXPECT_EQ(Reached::kLogIn, Climb(*server_, ZelString(SambaServer::kShare) + "\\deeper").reached);
}

TEST_F(CsSmbClientAtSamba, OpensNamesOfAnyScript) {
  EXPECT_EQ(Reached::kLogOff, Climb(*server_, SambaServer::kUnicodeShare).reached) << log_.Text();
}

TEST_F(CsSmbClientAtSamba, EncryptsForAShareThatDemandsIt) {
  EXPECT_EQ(Reached::kLogOff, Climb(*server_, SambaServer::kSealedShare).reached) << log_.Text();
}

TEST_F(CsSmbClientAtSamba, SeesThatAShareIsAPipe) {
  EXPECT_EQ(kPipe, Climb(*server_, "IPC$").shareType);
}

TEST_F(CsSmbClientAtSamba, OpensAGuestsShareAnonymously) {
  EXPECT_EQ(Reached::kLogOff, Climb(*server_, "", "", SambaServer::kOpenShare).reached)
      << log_.Text();
  EXPECT_EQ(Reached::kLogIn, Climb(*server_, "", "", SambaServer::kShare).reached);
}

size_t OpenDescriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

TEST_F(CsSmbClientAtSamba, LeaksNothingInAHundredRuns) {
  ASSERT_EQ(Reached::kLogOff, Climb(*server_).reached);
  const size_t before = OpenDescriptors();
  for (int i = 0; i < 100; ++i) {
    const ZelString password = i % 3 == 0 ? "wrong" : SambaServer::kPassword;
    const ZelString share = i % 3 == 1 ? "none" : SambaServer::kShare;
    const Reached expected = i % 3 == 0   ? Reached::kDialect
                             : i % 3 == 1 ? Reached::kLogIn
                                          : Reached::kLogOff;
    ASSERT_EQ(expected, Climb(*server_, SambaServer::kUser, password, share).reached) << i;
  }
  EXPECT_EQ(before, OpenDescriptors());
}

TEST(CsSmbClientAtOwnSamba, OpensAShareWhereAllMustBeSigned) {
  const SambaServer server({"server signing = mandatory"});
  EXPECT_EQ(Reached::kLogOff, Climb(server).reached);
  EXPECT_EQ(Reached::kDialect, Climb(server, "", "", SambaServer::kOpenShare).reached);
}

TEST(CsSmbClientAtOwnSamba, IsAGuestWhereTheServerMakesItOne) {
  const SambaServer server({"map to guest = bad user"});
  LibraryLogText log;
  EXPECT_EQ(Reached::kLogOff, Climb(server, "nobody-here", "x", SambaServer::kOpenShare).reached);
  EXPECT_THAT(log.Text(), HasSubstr("has let the user in as a guest"));
}

TEST(CsSmbClientAtOwnSamba, FindsNoDialectWithAServerOfVersion1) {
  const SambaServer server({"server min protocol = NT1", "server max protocol = NT1"});
  EXPECT_EQ(Reached::kSession, Climb(server).reached);
}

TEST(CsSmbClientAtOwnSamba, EncryptsWhereAllMustBeEncrypted) {
  for (const char* const dialect : {"SMB3_00", "SMB3_02", "SMB3_11"}) {
    const SambaServer server(
        {"server smb encrypt = required", std::string("server max protocol = ") + dialect});
    LibraryLogText log;
    EXPECT_EQ(Reached::kLogOff, Climb(server).reached) << dialect << " " << log.Text();
    EXPECT_TRUE(server.WaitForLog("opcode[SMB2_OP_LOGOFF]"));
  }
}

TEST(CsSmbClientAtOwnSamba, EncryptsByTheCipherThatTheServerHas) {
  for (const char* const cipher : {"AES-128-CCM", "AES-128-GCM"}) {
    const SambaServer server({"server smb encrypt = required",
                              std::string("server smb3 encryption algorithms = ") + cipher});
    LibraryLogText log;
    EXPECT_EQ(Reached::kLogOff, Climb(server).reached) << cipher << " " << log.Text();
  }
}

TEST(CsSmbClientAtOwnSamba, CannotEncryptInVersion2) {
  const SambaServer server({"server max protocol = SMB2_10"});
  EXPECT_EQ(Reached::kLogIn, Climb(server, SambaServer::kSealedShare).reached);
}

class CsSmbClientByDialect : public testing::TestWithParam<const char*> {};

TEST_P(CsSmbClientByDialect, HasTheProofOfAServerThatNeedsNoSignatures) {
  const std::string name = GetParam();
  for (const char* const signing : {"default", "disabled"}) {
    const SambaServer server({std::string("server signing = ") + signing,
                              "server min protocol = " + name, "server max protocol = " + name});
    LibraryLogText log;
    EXPECT_EQ(Reached::kLogOff, Climb(server).reached) << signing << " " << log.Text();
  }
}

TEST_P(CsSmbClientByDialect, OpensAShareWithSignatures) {
  const std::string name = GetParam();
  const SambaServer server({"server signing = mandatory", "server min protocol = " + name,
                            "server max protocol = " + name});
  LibraryLogText log;
  EXPECT_EQ(Reached::kLogOff, Climb(server).reached) << log.Text();
  EXPECT_TRUE(server.WaitForLog("opcode[SMB2_OP_LOGOFF]"));
}

INSTANTIATE_TEST_SUITE_P(Samba, CsSmbClientByDialect,
                         testing::Values("SMB2_02", "SMB2_10", "SMB3_00", "SMB3_02", "SMB3_11"),
                         [](const auto& parameter) { return std::string(parameter.param); });

}  // namespace
