#include "agent/libZel/request_proof.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

constexpr const char* kSecret = "the secret of this fleet";
constexpr ProvenRequest kRequest{"PUT", "/backup1/a%20b.zip", "127.0.0.1:7460"};
// SHA-256 of "content".
constexpr const char* kDigest = "ed7002b439e9ac845f22357d822bac1444730fbdb6016d3ec9432297b9ec9f73";
// Computed with another program's HMAC-SHA256.
constexpr const char* kMac = "fb0b0ebaf31be2afea76d88f194150484ebaea27622953381660d61d6c8bd06d";

std::string KnownProof() {
  return std::string("PAC agent=agent-1,date=1700000000,nonce=00112233445566778899aabbccddeeff,") +
         "sha256=" + kDigest + ",mac=" + kMac;
}

std::string WithReplaced(std::string text, const std::string& from, const std::string& to) {
  const size_t at = text.find(from);
  EXPECT_NE(at, text.npos) << from;
  return at == text.npos ? text : text.replace(at, from.size(), to);
}

TEST(RequestProof, IsTakenApart) {
  const auto proof = ParseProof(KnownProof());
  ASSERT_TRUE(proof);
  EXPECT_EQ(proof->agentName, "agent-1");
  EXPECT_EQ(proof->dateSeconds, 1700000000);
  EXPECT_EQ(proof->nonce, "00112233445566778899aabbccddeeff");
  EXPECT_EQ(proof->bodySha256, kDigest);
  EXPECT_EQ(proof->mac, kMac);
}

TEST(RequestProof, IsOneOfTheRequestItWasMadeFor) {
  const auto proof = ParseProof(KnownProof());
  ASSERT_TRUE(proof);
  EXPECT_TRUE(IsProofOf(*proof, kRequest, kSecret));
}

TEST(RequestProof, IsNoneOfAnotherRequestOrSecret) {
  const auto proof = ParseProof(KnownProof());
  ASSERT_TRUE(proof);
  EXPECT_FALSE(IsProofOf(*proof, {"POST", kRequest.target, kRequest.host}, kSecret));
  EXPECT_FALSE(IsProofOf(*proof, {kRequest.method, "/backup1/a b.zip", kRequest.host}, kSecret));
  EXPECT_FALSE(IsProofOf(*proof, {kRequest.method, kRequest.target, "127.0.0.1:7461"}, kSecret));
  EXPECT_FALSE(IsProofOf(*proof, kRequest, "the secret of another fleet"));
  EXPECT_FALSE(IsProofOf(*proof, kRequest, ""));
}

TEST(RequestProof, IsNoneWhenAnyOfItsFieldsWasChanged) {
  const std::pair<const char*, const char*> changes[] = {{"agent-1", "agent-2"},
                                                         {"1700000000", "1700000001"},
                                                         {"nonce=0", "nonce=1"},
                                                         {"sha256=e", "sha256=f"},
                                                         {"mac=f", "mac=e"}};
  for (const auto& [from, to] : changes) {
    const auto proof = ParseProof(WithReplaced(KnownProof(), from, to));
    ASSERT_TRUE(proof) << to;
    EXPECT_FALSE(IsProofOf(*proof, kRequest, kSecret)) << to;
  }
}

TEST(RequestProof, IsMadeForNowAndWithAnotherNonceEachTime) {
  using std::chrono::system_clock;
  const PacContext context{"agent-1", kSecret};
  const int64_t before = system_clock::to_time_t(system_clock::now());
  const std::string text = MakeProof(context, kRequest, kDigest);
  const int64_t after = system_clock::to_time_t(system_clock::now());

  const auto proof = ParseProof(text);
  ASSERT_TRUE(proof) << text;
  EXPECT_TRUE(IsProofOf(*proof, kRequest, kSecret));
  EXPECT_EQ(proof->agentName, "agent-1");
  EXPECT_EQ(proof->bodySha256, kDigest);
  EXPECT_GE(proof->dateSeconds, before);
  EXPECT_LE(proof->dateSeconds, after);
  EXPECT_THAT(text, testing::Not(testing::HasSubstr(kSecret)));

  const auto next = ParseProof(MakeProof(context, kRequest, kDigest));
  ASSERT_TRUE(next);
  EXPECT_NE(next->nonce, proof->nonce);
}

TEST(RequestProof, TakesNamesUpToTheLongest) {
  EXPECT_TRUE(ParseProof(WithReplaced(KnownProof(), "agent-1", std::string(64, 'a'))));
  EXPECT_TRUE(ParseProof(WithReplaced(KnownProof(), "agent-1", "A.b-C_9")));
  EXPECT_FALSE(ParseProof(WithReplaced(KnownProof(), "agent-1", std::string(65, 'a'))));
}

TEST(RequestProof, HasOneFormOnly) {
  const std::pair<const char*, const char*> changes[] = {
      {"PAC ", "pac "},
      {"PAC ", "Basic "},
      {"PAC ", "PAC  "},
      {"PAC ", " PAC "},
      {"agent=", "Agent="},
      {"agent-1", ""},
      {"agent-1", "agent 1"},
      {"agent-1", "agent/1"},
      {"agent-1", "\xC3\xBC"},
      {"1700000000", ""},
      {"1700000000", "-1700000000"},
      {"1700000000", "+1700000000"},
      {"1700000000", "01700000000"},
      {"1700000000", "1700000000.0"},
      {"1700000000", "1234567890123"},
      {"ccddeeff", "ccddeef"},
      {"ccddeeff", "ccddeeff0"},
      {"ccddeeff", "CCDDEEFF"},
      {"ccddeeff", "ccddeefg"},
      {"sha256=e", "sha256="},
      {"sha256=e", "sha256=E"},
      {",mac=f", ",mac="},
      {",mac=f", ",mac=F"},
      {",mac=f", ""},
      {",mac=", ", mac="},
      {",mac=", ",x=y,mac="},
      {"date=1700000000,", ""},
      {"agent=agent-1,date=1700000000", "date=1700000000,agent=agent-1"},
  };
  for (const auto& [from, to] : changes)
    EXPECT_FALSE(ParseProof(WithReplaced(KnownProof(), from, to))) << from << " to " << to;
  EXPECT_FALSE(ParseProof(""));
  EXPECT_FALSE(ParseProof("PAC "));
  EXPECT_FALSE(ParseProof(KnownProof() + ","));
  EXPECT_FALSE(ParseProof(KnownProof() + " "));
  EXPECT_FALSE(ParseProof(KnownProof() + "\n"));
}

}  // namespace
