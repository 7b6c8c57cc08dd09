#include "module/direct_access.h"

#include "tests/contract/module_test.h"

namespace {

TEST(PrivacyCheck, AsksWhetherTheUserMayRead) {
  FakeHost host;
  AnswerVerdict(host, kReadable);

  EXPECT_TRUE(IsAccessAllowed("C:\\a\\b.txt", "maria", true));

  EXPECT_THAT(host.Transcript(),
              ElementsAre("ActionDbInvokeContainer(null, \"\", \"PrivacyCheck\", "
                          "{Class: String \"File System\", Name: String \"C:\\a\\b.txt\", "
                          "Login: String \"maria\", Access: String \"Read\"}, "
                          "null, ~0, ~0, false)"));
}

TEST(PrivacyCheck, AsksWhetherTheUserMayWrite) {
  FakeHost host;
  AnswerVerdict(host, kWritable);

  EXPECT_TRUE(IsAccessAllowed("C:\\a\\b.txt", "maria", false));

  EXPECT_THAT(host.Transcript(), ElementsAre(PrivacyCheck("C:\\a\\b.txt", "maria", "Write")));
}

TEST(PrivacyCheck, AsksForAnEmptyLoginToo) {
  FakeHost host;
  AnswerVerdict(host, kReadable);

  EXPECT_TRUE(MayRead("C:/a", ""));

  EXPECT_THAT(host.Transcript(), ElementsAre(PrivacyCheck("C:/a", "", "Read")));
}

TEST(PrivacyCheck, VerdictsOneAndTwoAllowReading) {
  for (const int32_t verdict : {-1, 0, 1, 2, 3, 4, 5, 257}) {
    FakeHost host;
    AnswerVerdict(host, verdict);
    EXPECT_EQ(MayRead("C:/a", "maria"), verdict == 1 || verdict == 2) << verdict;
  }
}

TEST(PrivacyCheck, VerdictsThreeAndFourAllowWriting) {
  for (const int32_t verdict : {-1, 0, 1, 2, 3, 4, 5, 259}) {
    FakeHost host;
    AnswerVerdict(host, verdict);
    EXPECT_EQ(MayWrite("C:/a", "maria"), verdict == 3 || verdict == 4) << verdict;
  }
}

TEST(PrivacyCheck, RefusesWhenThePolicyCannotBeAsked) {
  for (const uint32_t code : {kFailure, kInvokeUnknownAction, kInvokeFailed, ~0U}) {
    for (const int32_t verdict : {1, 2, 3, 4}) {
      FakeHost host;
      const auto change = [verdict](ZelContainer& request) {
        request.SetInt32("Result", verdict, kNoIndex);
      };
      host.AnswerInvocation(code, change);
      EXPECT_FALSE(MayRead("C:/a", "maria")) << code << " " << verdict;
      host.AnswerInvocation(code, change);
      EXPECT_FALSE(MayWrite("C:/a", "maria")) << code << " " << verdict;
    }
  }
}

TEST(PrivacyCheck, RefusesWithoutAVerdict) {
  FakeHost host;
  host.AnswerInvocation(0);
  EXPECT_FALSE(MayRead("C:/a", "maria"));
  host.AnswerInvocation(0);
  EXPECT_FALSE(MayWrite("C:/a", "maria"));
}

TEST(PrivacyCheck, RefusesAVerdictThatIsNoNumber) {
  FakeHost host;
  host.AnswerInvocation(0,
                        [](ZelContainer& request) { request.SetString("Result", "1", kNoIndex); });
  EXPECT_FALSE(MayRead("C:/a", "maria"));
  host.AnswerInvocation(0,
                        [](ZelContainer& request) { request.SetBool("Result", true, kNoIndex); });
  EXPECT_FALSE(MayRead("C:/a", "maria"));
}

TEST(PrivacyCheck, RefusesAVerdictInAList) {
  FakeHost host;
  host.AnswerInvocation(0, [](ZelContainer& request) { request.SetInt32("Result", 1, 0); });

  EXPECT_FALSE(MayRead("C:/a", "maria"));
}

TEST(PrivacyCheck, AllowsUrlsWithoutAsking) {
  FakeHost host;

  EXPECT_TRUE(MayRead("http://files.example/a.txt", "maria"));
  EXPECT_TRUE(MayWrite("https://files.example/a.txt", "maria"));
  EXPECT_TRUE(MayRead("HTTP://Files.example/a.txt", ""));

  EXPECT_THAT(host.Transcript(), IsEmpty());
}

TEST(PrivacyCheck, AsksForWhatOnlyLooksLikeAUrl) {
  for (const char* path : {"ftp://files.example/a.txt", "http:", "http://", "httpdocs/a.txt",
                           "file:///etc/passwd", "C:/http://files.example", ""}) {
    FakeHost host;
    AnswerVerdict(host, kForbidden);

    EXPECT_FALSE(MayRead(path, "maria")) << path;

    EXPECT_THAT(host.Transcript(), ElementsAre(PrivacyCheck(path, "maria", "Read")));
  }
}

TEST(AuditLine, TellsWhoFromWhereAndWhat) {
  FakeHost host;

  AuditDirectAccess(Texts({{"HttpProtocolRequestAddress", "192.0.2.7"}}), "maria",
                    "Connection accepted");

  EXPECT_THAT(host.Transcript(), ElementsAre("Audit \"maria\", \"192.0.2.7\", "
                                             "\"Connection accepted, class Direct Access\""));
}

TEST(AuditLine, LeavesAnUnknownAddressEmpty) {
  FakeHost host;

  AuditDirectAccess(ZelContainer(), "", "Connection refused");

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Audit \"\", \"\", \"Connection refused, class Direct Access\""));
}

TEST(AuditLine, LeavesAnAddressInAListOrOfAnotherTypeEmpty) {
  ZelContainer list;
  list.SetString("HttpProtocolRequestAddress", "192.0.2.7", 0);
  ZelContainer number;
  number.SetInt32("HttpProtocolRequestAddress", 7, kNoIndex);
  for (const ZelContainer& requestInfo : {list, number}) {
    FakeHost host;

    AuditDirectAccess(requestInfo, "maria", "Connection accepted");

    EXPECT_THAT(host.Transcript(),
                ElementsAre("Audit \"maria\", \"\", \"Connection accepted, class Direct Access\""));
  }
}

TEST(AuditLine, TakesWideTexts) {
  FakeHost host;
  const TCHAR event[] = {'G', 'r', 0xfc, 0xdf, 'e', 0};

  AuditDirectAccess(ZelContainer(), "maria", event);

  EXPECT_THAT(host.Transcript(), ElementsAre("Audit \"maria\", \"\", "
                                             "\"Gr\xc3\xbc\xc3\x9f"
                                             "e, class Direct Access\""));
}

TEST(AuditLine, TakesPercentSignsAsText) {
  FakeHost host;

  AuditDirectAccess(Texts({{"HttpProtocolRequestAddress", "%S"}}), "%u", "100%% %S done %d");

  EXPECT_THAT(host.Transcript(),
              ElementsAre("Audit \"%u\", \"%S\", \"100%% %S done %d, class Direct Access\""));
}

}  // namespace
