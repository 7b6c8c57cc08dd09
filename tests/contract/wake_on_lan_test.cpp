#include <cstdint>
#include <initializer_list>
#include <string>
#include <vector>

#include "tests/contract/module_test.h"
#include "tests/fake_host/transcript.h"

namespace {

constexpr uint32_t kAddress = 0xC0A80114;
constexpr uint32_t kMask = 0xFFFFFF00;
constexpr const char* kMac = "00A0C9141A2B";
constexpr int kSent = 102;

constexpr const char* kMakesSocket = "CreateUdp()";
constexpr const char* kAllowsBroadcasts = "SetOption(32, 1)";
constexpr const char* kReleasesSocket = "~NetworkSocket";
constexpr const char* kTracesSent = "Trace \"WakeUp: Packet sent\"";
constexpr const char* kLogsNotSent = "Error \"WakeUp: Failed to send packet\"";

ZelContainer Target(uint32_t address, uint32_t mask, const std::string& mac) {
  ZelContainer params;
  params.SetInt32("IpAddress", static_cast<int32_t>(address), kNoIndex);
  params.SetInt32("NetworkMask", static_cast<int32_t>(mask), kNoIndex);
  params.SetString("MacAddress", mac, kNoIndex);
  return params;
}

ZelContainer Target() {
  return Target(kAddress, kMask, kMac);
}

ZelContainer Without(const char* key) {
  ZelContainer params = Target();
  params.Remove(key);
  return params;
}

/// Parameters of which one is nothing that the action takes: absent, a list, of another type.
std::vector<ZelContainer> Unusable(const char* key, bool isText) {
  std::vector<ZelContainer> variants(6, Without(key));
  variants[1].SetBool(key, true, kNoIndex);
  variants[2].SetContainer(key, Texts({{key, kMac}}), kNoIndex);
  variants[3].SetString(key, kMac, 0);
  variants[3].SetString(key, kMac, 1);
  variants[4].SetInt32(key, 1, 0);
  variants[4].SetInt32(key, 2, 1);
  if (isText) {
    variants[5].SetInt32(key, 1, kNoIndex);
    variants.push_back(Without(key));
    variants.back().SetInt64(key, 1, kNoIndex);
  } else {
    variants[5].SetString(key, "3232235796", kNoIndex);
    for (const int64_t number : {int64_t{1} << 32, -(int64_t{1} << 31) - 1}) {
      variants.push_back(Without(key));
      variants.back().SetInt64(key, number, kNoIndex);
    }
  }
  return variants;
}

/// Bytes of a network card, as a test writes them.
std::string Bytes(std::initializer_list<int> bytes) {
  std::string text;
  for (const int byte : bytes) text += static_cast<char>(byte);
  return text;
}

/// The one datagram: six times 255, sixteen times the address of the card.
std::string SendsTo(const std::string& address, const std::string& card) {
  std::string packet(6, '\xFF');
  for (int i = 0; i < 16; ++i) packet += card;
  return "SendTo({2, 7, " + address + "}, " + QuoteBytes(packet) + ", 102)";
}

const std::string kCard = Bytes({0x00, 0xA0, 0xC9, 0x14, 0x1A, 0x2B});
/// 192.168.1.255.
const std::string kSubnet = "3232236031";

class WakeUp : public ModuleTest {
 protected:
  void AnswerSocket(int sent = kSent) {
    host.Answer("CreateUdp", 1);
    host.Answer("SetOption", 1);
    host.Answer("SendTo", sent);
  }
  /// Expects the action to send this and nothing else, and to leave the container alone.
  void ExpectSent(const ZelContainer& params, const std::string& sending) {
    host.ForgetTranscript();
    AnswerSocket();
    EXPECT_EQ(Run("CoreUtilsWakeUp", params), (Outcome{kSuccess, Describe(params)}));
    EXPECT_THAT(host.Transcript(),
                ElementsAre(kMakesSocket, kAllowsBroadcasts, sending, kTracesSent, kReleasesSocket))
        << Describe(params);
  }
  void ExpectCard(const std::string& mac, std::initializer_list<int> card) {
    ExpectSent(Target(kAddress, kMask, mac), SendsTo(kSubnet, Bytes(card)));
  }
  /// Expects a refusal with one line in the log, and nothing to be sent.
  void ExpectRefusal(const ZelContainer& params, const std::string& line) {
    host.ForgetTranscript();
    EXPECT_EQ(Run("CoreUtilsWakeUp", params), (Outcome{kBadParameter, Describe(params)}));
    EXPECT_THAT(host.Transcript(), ElementsAre(line)) << Describe(params);
  }
};

TEST_F(WakeUp, SendsOnePacketToTheSubnet) {
  ExpectSent(Target(), SendsTo(kSubnet, kCard));
}

TEST_F(WakeUp, SendsTo102BytesToPort7) {
  AnswerSocket();
  Run("CoreUtilsWakeUp", Target(0x0A000005, 0xFF000000, "010203040506"));

  ASSERT_EQ(host.Transcript().size(), 5u);
  std::string packet = "\\xff\\xff\\xff\\xff\\xff\\xff";
  for (int i = 0; i < 16; ++i) packet += "\\x01\\x02\\x03\\x04\\x05\\x06";
  EXPECT_EQ(host.Transcript()[2], "SendTo({2, 7, 184549375}, \"" + packet + "\", 102)");
}

TEST_F(WakeUp, SetsTheHostBitsOfTheAddress) {
  const struct {
    uint32_t address, mask, target;
  } cases[] = {
      {kAddress, 0xFFFFFFFF, kAddress},
      {kAddress, 0, 0xFFFFFFFF},
      {kAddress, kMask, 0xC0A801FF},
      {0xC0A801FF, kMask, 0xC0A801FF},
      {0xC0A80100, kMask, 0xC0A801FF},
      {0x0A0B0C0D, 0xFFFF0000, 0x0A0BFFFF},
      {0x0A0B0C0D, 0xFFFFFFFC, 0x0A0B0C0F},
      {0, 0xFFFFFFFF, 0},
      {0, 0, 0xFFFFFFFF},
      {0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF},
      {0x7F000001, 0x80000000, 0x7FFFFFFF},
      {0x0A0B0C0D, 0xFF00FF00, 0x0AFF0CFF},
  };
  for (const auto& test : cases) {
    ExpectSent(Target(test.address, test.mask, kMac), SendsTo(std::to_string(test.target), kCard));
  }
}

TEST_F(WakeUp, TakesLargeNumbersWhateverTheirSign) {
  for (const int64_t address : {int64_t{3232235796}, int64_t{-1062731500}}) {
    for (const int64_t mask : {int64_t{4294967040}, int64_t{-256}}) {
      ZelContainer params = Target();
      params.SetInt64("IpAddress", address, kNoIndex);
      params.SetInt64("NetworkMask", mask, kNoIndex);
      ExpectSent(params, SendsTo(kSubnet, kCard));
    }
  }
}

TEST_F(WakeUp, TakesDigitsOfEitherCase) {
  for (const char* mac : {"00a0c9141a2b", "00A0C9141A2B", "00a0C9141A2b"}) {
    ExpectSent(Target(kAddress, kMask, mac), SendsTo(kSubnet, kCard));
  }
  ExpectCard("ffFFfFFfabCD", {255, 255, 255, 255, 0xAB, 0xCD});
}

TEST_F(WakeUp, SkipsNoSeparators) {
  ExpectCard("00:A0:C9:14:1A:2B", {0x00, 0, 0, 0xC9, 0, 0x04});
  ExpectCard("00-A0-C9-14-1A-2B", {0x00, 0xF6, 0, 0xC9, 0xFF, 0x04});
  ExpectCard("00A0.C914.1A2B", {0x00, 0xA0, 0, 0x91, 0x04, 0x1A});
}

TEST_F(WakeUp, TakesPairsThatAreNoNumbersForZero) {
  ExpectCard("zzzzzzzzzzzz", {0, 0, 0, 0, 0, 0});
  ExpectCard("0x0X0x0X0x0X", {0, 0, 0, 0, 0, 0});
  ExpectCard("g1z2--++  \t\n", {0, 0, 0, 0, 0, 0});
  ExpectCard(
      "\xC3\xA4\xC3\xB6\xE2\x82\xAC"
      "12345",
      {0, 0, 0, 0, 0x23, 0x45});
}

TEST_F(WakeUp, TakesPairsThatBeginWithANumber) {
  ExpectCard("1z2g3:4.5 6-", {1, 2, 3, 4, 5, 6});
}

TEST_F(WakeUp, TakesBlanksAndSignsBeforeADigit) {
  ExpectCard(" 1\t2\n3-1+2-f", {1, 2, 3, 0xFF, 2, 0xF1});
}

TEST_F(WakeUp, TakesWhatATextIsTooShortForForZero) {
  ExpectCard("", {0, 0, 0, 0, 0, 0});
  ExpectCard("0", {0, 0, 0, 0, 0, 0});
  ExpectCard("7", {7, 0, 0, 0, 0, 0});
  ExpectCard("ab", {0xAB, 0, 0, 0, 0, 0});
  ExpectCard("abc", {0xAB, 0x0C, 0, 0, 0, 0});
  ExpectCard("00A0C9141A", {0x00, 0xA0, 0xC9, 0x14, 0x1A, 0});
  ExpectCard("00A0C9141A2", {0x00, 0xA0, 0xC9, 0x14, 0x1A, 0x02});
}

TEST_F(WakeUp, LeavesOutWhatFollowsTwelveCharacters) {
  ExpectCard("00A0C9141A2B3", {0x00, 0xA0, 0xC9, 0x14, 0x1A, 0x2B});
  ExpectCard("00A0C9141A2B and more", {0x00, 0xA0, 0xC9, 0x14, 0x1A, 0x2B});
}

TEST_F(WakeUp, TakesPairsWithATerminatorAsFarAsItGoes) {
  ExpectCard(std::string("1\0002\0AB\0\0CDEF", 12), {1, 2, 0xAB, 0, 0xCD, 0xEF});
}

TEST_F(WakeUp, WantsAnAddress) {
  for (const ZelContainer& params : Unusable("IpAddress", false)) {
    ExpectRefusal(params, "Error \"WakeUp: Missing IP address\"");
  }
}

TEST_F(WakeUp, WantsAMask) {
  for (const ZelContainer& params : Unusable("NetworkMask", false)) {
    ExpectRefusal(params, "Error \"WakeUp: Missing network mask\"");
  }
}

TEST_F(WakeUp, WantsTheAddressOfTheCard) {
  for (const ZelContainer& params : Unusable("MacAddress", true)) {
    ExpectRefusal(params, "Error \"WakeUp: Missing MAC address\"");
  }
}

TEST_F(WakeUp, NamesTheFirstThatIsMissing) {
  ExpectRefusal({}, "Error \"WakeUp: Missing IP address\"");
  ZelContainer params;
  params.SetInt32("IpAddress", 1, kNoIndex);
  ExpectRefusal(params, "Error \"WakeUp: Missing network mask\"");
  ExpectRefusal(Texts({{"MacAddress", kMac}}), "Error \"WakeUp: Missing IP address\"");
}

TEST_F(WakeUp, ReadsKeysByTheirExactNames) {
  ZelContainer params = Target();
  params.Remove("IpAddress");
  params.SetInt32("IPAddress", 1, kNoIndex);
  ExpectRefusal(params, "Error \"WakeUp: Missing IP address\"");
}

TEST_F(WakeUp, OnlyLogsThatThereIsNoSocket) {
  host.Answer("CreateUdp", 0);

  EXPECT_EQ(Run("CoreUtilsWakeUp", Target()), (Outcome{kSuccess, Describe(Target())}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kMakesSocket, "Error \"WakeUp: Failed to create UDP socket\""));
}

TEST_F(WakeUp, OnlyLogsThatBroadcastsAreNotAllowed) {
  host.Answer("CreateUdp", 1);
  host.Answer("SetOption", 0);

  EXPECT_EQ(Run("CoreUtilsWakeUp", Target()), (Outcome{kSuccess, Describe(Target())}));

  EXPECT_THAT(host.Transcript(),
              ElementsAre(kMakesSocket, kAllowsBroadcasts,
                          "Error \"WakeUp: Failed to enable broadcast\"", kReleasesSocket));
}

TEST_F(WakeUp, OnlyLogsThatThePacketWasNotSent) {
  for (const int sent : {-1, 0, 1, 101, 103, 204}) {
    host.ForgetTranscript();
    AnswerSocket(sent);

    EXPECT_EQ(Run("CoreUtilsWakeUp", Target()), (Outcome{kSuccess, Describe(Target())}));

    EXPECT_THAT(host.Transcript(),
                ElementsAre(kMakesSocket, kAllowsBroadcasts, SendsTo(kSubnet, kCard), kLogsNotSent,
                            kReleasesSocket))
        << sent;
  }
}

TEST_F(WakeUp, LeavesEverythingElseInTheContainer) {
  ZelContainer params = Target();
  params.SetString("Other", "x", kNoIndex);
  params.SetString("Result", "mine", 0);
  ExpectSent(params, SendsTo(kSubnet, kCard));
}

TEST_F(WakeUp, KeepsNothingFromOneCallToTheNext) {
  ExpectCard("ffffffffffff", {255, 255, 255, 255, 255, 255});
  ExpectCard("1", {1, 0, 0, 0, 0, 0});
  ExpectRefusal(Without("MacAddress"), "Error \"WakeUp: Missing MAC address\"");
}

}  // namespace
