#include "agent/libZel/smb/session.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "agent/libZel/smb/nt_status.h"
#include "tests/agent/fake_file_server.h"
#include "tests/agent/library_log.h"
#include "tests/agent/smb_test.h"

namespace {

using namespace smb;
using testing::ElementsAre;
using testing::HasSubstr;

/// A client of a file server without a network.
struct SmbSession : testing::Test {
  FakeFileServer server;
  NetbiosSession transport{server, false};
  Session session{transport, "server"};
  _CsSmbTreeInfo tree{};

  void LogInAs(const char* user, const char* password = FakeFileServer::kPassword) {
    session.Negotiate(kNever);
    session.LogIn(user, password, kNever);
  }
  void OpenAs(const char* user) {
    LogInAs(user);
    session.OpenShare("docs", tree, kNever);
  }
  void Climb(const char* user = "ann") {
    OpenAs(user);
    session.CloseShare(tree, kNever);
    session.LogOff(kNever);
  }
  /// What the whole way says when it fails.
  std::string FailureOfAll(const char* user = "ann") {
    return FailureOf([&] { Climb(user); });
  }
  /// Sets the status of the answers to `command`.
  void AnswerWith(Command command, uint32_t status) {
    server.change = [=](Command asked, Bytes& answer) {
      if (asked != command) return;
      for (size_t i = 0; i < 4; ++i) answer[8 + i] = static_cast<uint8_t>(status >> (8 * i));
    };
  }
  /// Flips a bit of the answers to `command`.
  void Spoil(Command command, size_t offset) {
    server.tamper = [=](Command asked, Bytes& answer) {
      if (asked == command) answer.at(offset) ^= 0x10;
    };
  }
};

class EachDialect : public SmbSession, public testing::WithParamInterface<Dialect> {};

TEST_P(EachDialect, SignsAllThatComesAfterTheLogIn) {
  server.dialect = GetParam();
  server.securityMode = kSigningEnabled | kSigningRequired;
  Climb();
  EXPECT_THAT(server.commands,
              ElementsAre(Command::kNegotiate, Command::kSessionSetup, Command::kSessionSetup,
                          Command::kTreeConnect, Command::kTreeDisconnect, Command::kLogOff));
  EXPECT_THAT(server.wereSigned, ElementsAre(false, false, false, true, true, true));
}

TEST_P(EachDialect, RefusesAnAnswerWithAWrongSignature) {
  server.dialect = GetParam();
  Spoil(Command::kTreeConnect, kSignatureOffset);
  EXPECT_EQ("the signature of the server's answer is wrong", FailureOfAll());
}

TEST_P(EachDialect, RefusesAnAnswerThatWasChanged) {
  server.dialect = GetParam();
  Spoil(Command::kTreeConnect, kHeaderBytes + 2);
  EXPECT_EQ("the signature of the server's answer is wrong", FailureOfAll());
}

TEST_P(EachDialect, RefusesASuccessWithoutASignature) {
  server.dialect = GetParam();
  server.tamper = [](Command command, Bytes& answer) {
    if (command == Command::kTreeConnect)
      answer[kFlagsOffset] &= static_cast<uint8_t>(~kFlagSigned);
  };
  EXPECT_EQ("the server's answer is not signed", FailureOfAll());
}

TEST_P(EachDialect, RefusesAServerThatDoesNotKnowThePassword) {
  server.dialect = GetParam();
  server.tamper = [round = 0](Command command, Bytes& answer) mutable {
    if (command == Command::kSessionSetup && ++round == 2) answer[kSignatureOffset] ^= 1;
  };
  EXPECT_EQ("the server does not prove that it knows the password", FailureOfAll());
}

TEST_P(EachDialect, RefusesALogInThatEndsWithoutASignature) {
  server.dialect = GetParam();
  server.tamper = [](Command command, Bytes& answer) {
    if (command == Command::kSessionSetup)
      answer[kFlagsOffset] &= static_cast<uint8_t>(~kFlagSigned);
  };
  EXPECT_EQ("the server does not prove that it knows the password", FailureOfAll());
  EXPECT_EQ(3u, server.commands.size());
}

INSTANTIATE_TEST_SUITE_P(SmbSession, EachDialect,
                         testing::Values(Dialect::k202, Dialect::k210, Dialect::k300, Dialect::k302,
                                         Dialect::k311),
                         [](const auto& parameter) {
                           std::string name = NameOf(parameter.param);
                           std::erase(name, '.');
                           return name;
                         });

TEST_F(SmbSession, NotesTheShare) {
  OpenAs("ann");
  EXPECT_EQ(u"ann", server.user);
  EXPECT_EQ(u"\\\\server\\docs", server.path);
  EXPECT_EQ(FakeFileServer::kTreeId, tree.treeId);
  EXPECT_EQ(1u, tree.shareType);
  EXPECT_EQ(ZelString("docs"), ZelString(tree.share));
}

TEST_F(SmbSession, GivesAShareAsItIs) {
  LogInAs("ann");
  EXPECT_THROW(session.OpenShare("docs\\deeper", tree, kNever), Refusal);
  EXPECT_EQ(u"\\\\server\\docs\\deeper", server.path);
  EXPECT_EQ(0u, tree.treeId);
  EXPECT_THROW(session.OpenShare("Gr\u00f6\u00dfe", tree, kNever), Refusal);
  EXPECT_EQ(u"\\\\server\\Gr\u00f6\u00dfe", server.path);
}

TEST_F(SmbSession, CutsALongNameInTheNote) {
  const std::string longName(300, 'x');
  AnswerWith(Command::kTreeConnect, kStatusSuccess);
  LogInAs("ann");
  session.OpenShare(longName, tree, kNever);
  EXPECT_EQ(ZelString(std::string(255, 'x')), ZelString(tree.share));
}

TEST_F(SmbSession, SaysThatThePasswordIsWrong) {
  try {
    LogInAs("ann", "password");
    FAIL() << "logged in";
  } catch (const Refusal& refusal) {
    EXPECT_STREQ("the server answers STATUS_LOGON_FAILURE", refusal.what());
  }
  EXPECT_EQ(3u, server.commands.size());
}

TEST_F(SmbSession, GoesOnAfterARefusal) {
  LogInAs("ann");
  EXPECT_THROW(session.OpenShare("none", tree, kNever), Refusal);
  session.LogOff(kNever);
  EXPECT_EQ(Command::kLogOff, server.commands.back());
}

TEST_F(SmbSession, SignsNothingOfAnAnonymousSession) {
  Climb("");
  EXPECT_THAT(server.wereSigned, testing::Each(false));
}

TEST_F(SmbSession, SignsNothingOfAGuestsSession) {
  server.sessionFlags = kSessionGuest;
  Climb();
  EXPECT_THAT(server.wereSigned, testing::Each(false));
}

TEST_F(SmbSession, DemandsSignaturesForUsersOnly) {
  LogInAs("ann");
  EXPECT_EQ(kSigningRequired, server.demandedSigning);
  FakeFileServer other;
  NetbiosSession otherTransport(other, false);
  Session otherSession(otherTransport, "server");
  otherSession.Negotiate(kNever);
  otherSession.LogIn("", "", kNever);
  EXPECT_EQ(kSigningEnabled, other.demandedSigning);
}

TEST_F(SmbSession, TellsTheLogOfAUserWhoIsAGuest) {
  LibraryLogText log;
  server.sessionFlags = kSessionGuest;
  LogInAs("ann");
  EXPECT_THAT(log.Text(), HasSubstr("the file server server has let the user in as a guest: the "
                                    "password was not checked"));
}

TEST_F(SmbSession, TellsTheLogNothingOfAnAnonymousGuest) {
  LibraryLogText log;
  server.sessionFlags = kSessionGuest;
  LogInAs("");
  EXPECT_THAT(log.Text(), testing::Not(HasSubstr("as a guest")));
}

TEST_F(SmbSession, TakesAGuestThatIsFlaggedAsAnonymousAsWell) {
  server.sessionFlags = kSessionGuest | kSessionAnonymous;
  EXPECT_EQ("none", FailureOfAll());
  EXPECT_THAT(server.wereSigned, testing::Each(false));
}

TEST_F(SmbSession, DoesNotTakeAnAnonymousSessionForThatOfAUser) {
  server.sessionFlags = kSessionAnonymous;
  EXPECT_EQ("the server has logged in nobody instead of the user", FailureOfAll());
  EXPECT_EQ(3u, server.commands.size());
}

TEST_F(SmbSession, DoesNotGoOnUnsignedWhereSignaturesAreDemanded) {
  server.securityMode = kSigningEnabled | kSigningRequired;
  EXPECT_THAT(FailureOfAll(""), HasSubstr("demands signatures"));
}

TEST_F(SmbSession, DoesNotLogInWithoutAChallenge) {
  AnswerWith(Command::kSessionSetup, kStatusSuccess);
  EXPECT_THAT(FailureOfAll(), HasSubstr("no proof of the log-in"));
}

TEST_F(SmbSession, DoesNotLogInWithoutAnEnd) {
  AnswerWith(Command::kSessionSetup, kStatusMoreProcessing);
  EXPECT_THAT(FailureOfAll(), HasSubstr("come to an end"));
}

TEST_F(SmbSession, NeedsASessionWithANumber) {
  server.change = [](Command command, Bytes& answer) {
    if (command == Command::kSessionSetup) std::fill_n(answer.begin() + 40, 8, uint8_t{0});
  };
  EXPECT_THAT(FailureOfAll(), HasSubstr("has no number"));
}

/// That an answer will take its time, so many times.
Bytes InterimAnswers(const Bytes& answer, int count) {
  Bytes interim(answer.begin(), answer.begin() + kHeaderBytes);
  interim[8] = 0x03;
  interim[9] = 0x01;
  interim[10] = interim[11] = 0;
  interim[kFlagsOffset] = kFlagResponse | kFlagAsync;
  const Bytes framed = FakeFileServer::Framed(interim);
  Bytes all;
  for (int i = 0; i < count; ++i) all.insert(all.end(), framed.begin(), framed.end());
  return all;
}

Bytes KeepAlives(int count) {
  Bytes all(4 * static_cast<size_t>(count));
  for (size_t i = 0; i < all.size(); i += 4) all[i] = 0x85;
  return all;
}

TEST_F(SmbSession, WaitsForTheFinalAnswer) {
  server.before = [](Command, const Bytes& answer) { return InterimAnswers(answer, 16); };
  EXPECT_EQ("none", FailureOfAll());
}

TEST_F(SmbSession, WaitsForNoAnswerThatIsPutOffForEver) {
  server.before = [](Command command, const Bytes& answer) {
    return InterimAnswers(answer, command == Command::kTreeConnect ? 17 : 0);
  };
  EXPECT_EQ("the server puts off its answer without an end", FailureOfAll());
}

TEST_F(SmbSession, NeedsTheNumberOfAShare) {
  server.change = [](Command command, Bytes& answer) {
    if (command == Command::kTreeConnect) answer[kFlagsOffset] |= kFlagAsync;
  };
  EXPECT_EQ("the server's share has no number", FailureOfAll());
  EXPECT_EQ(0u, tree.treeId);
}

TEST_F(SmbSession, SkipsKeepAlives) {
  server.before = [](Command, const Bytes&) { return KeepAlives(16); };
  EXPECT_EQ("none", FailureOfAll());
}

TEST_F(SmbSession, CountsKeepAlivesBetweenInterimAnswersAsWell) {
  server.before = [](Command, const Bytes& answer) {
    Bytes all = KeepAlives(10);
    const Bytes interim = InterimAnswers(answer, 1);
    all.insert(all.end(), interim.begin(), interim.end());
    const Bytes more = KeepAlives(10);
    all.insert(all.end(), more.begin(), more.end());
    return all;
  };
  EXPECT_EQ("the server sends keep-alives without an end", FailureOfAll());
}

TEST_F(SmbSession, TakesOnlyTheAnswerToItsRequest) {
  for (const size_t offset : {kCommandOffset, kMessageIdOffset, size_t{40}}) {
    FakeFileServer other;
    NetbiosSession otherTransport(other, false);
    Session otherSession(otherTransport, "server");
    other.change = [=](Command command, Bytes& answer) {
      if (command == Command::kTreeConnect) answer[offset] ^= 0x10;
    };
    otherSession.Negotiate(kNever);
    otherSession.LogIn("ann", FakeFileServer::kPassword, kNever);
    try {
      otherSession.OpenShare("docs", tree, kNever);
      ADD_FAILURE() << "took it: " << offset;
    } catch (const std::runtime_error& error) {
      EXPECT_STREQ("the server answers another request", error.what());
    }
  }
}

TEST_F(SmbSession, SendsNoMoreThanTheServerGrants) {
  server.credits = 0;
  EXPECT_EQ("the server grants no further request", FailureOfAll());
  EXPECT_EQ(1u, server.commands.size());
}

TEST_F(SmbSession, SaysThatAServerSpeaksVersion1Only) {
  server.tamper = [](Command, Bytes& answer) { answer = {0xFF, 'S', 'M', 'B', 0x72, 0, 0, 0}; };
  EXPECT_EQ("the server speaks version 1 of SMB only", FailureOfAll());
}

TEST_F(SmbSession, RefusesEveryAnswerThatIsCutOff) {
  for (const Command cut : {Command::kNegotiate, Command::kSessionSetup, Command::kTreeConnect,
                            Command::kTreeDisconnect, Command::kLogOff}) {
    for (size_t size = 1; size < kHeaderBytes + 4; size += 3) {
      FakeFileServer other;
      NetbiosSession otherTransport(other, false);
      Session otherSession(otherTransport, "server");
      other.tamper = [=](Command command, Bytes& answer) {
        if (command == cut) answer.resize(size);
      };
      EXPECT_THROW(
          {
            otherSession.Negotiate(kNever);
            otherSession.LogIn("", "", kNever);
            otherSession.OpenShare("docs", tree, kNever);
            otherSession.CloseShare(tree, kNever);
            otherSession.LogOff(kNever);
          },
          std::runtime_error)
          << static_cast<int>(cut) << " " << size;
    }
  }
}

}  // namespace
