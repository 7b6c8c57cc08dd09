#include "tests/contract/fault_sweep_cases.h"

namespace {

ZelContainer SleepingComputer() {
  ZelContainer params = Texts({{"MacAddress", "00A0C9141A2B and what needs memory"}});
  params.SetInt32("IpAddress", 0x0A000005, kNoIndex);
  params.SetInt32("NetworkMask", 0x7F000000, kNoIndex);
  return params;
}

void AnswerSocket(FakeHost& host) {
  host.Answer("CreateUdp", 1);
  host.Answer("SetOption", 1);
  host.Answer("SendTo", 102);
}

void AnswerLadder(FakeHost& host) {
  host.Answer("IpAddress::SetTo", -1);
  host.Answer("IpAddress::SetToHostName", 0x0A000005);
  for (const char* step : {"TcpConnect", "NbtSessionRequest", "SmbSessionNegotiate",
                           "SmbSessionSetup", "SmbTreeConnect"}) {
    host.Answer(step, 1);
  }
}

}  // namespace

std::vector<Case> CasesOfNetworkActions() {
  return {
      {.name = "wake up",
       .action = "CoreUtilsWakeUp",
       .params = SleepingComputer(),
       .script = AnswerSocket,
       .resultKeys = {"IpAddress", "NetworkMask", "MacAddress"}},
      {.name = "ping",
       .action = "CoreUtilsPingICMP",
       .params = Texts({{"PingAddr", kText}}),
       .script = [](FakeHost& host) { host.Answer("PingICMP", 1); },
       .resultKeys = {"Result"}},
      {.name = "check a share",
       .action = "CoreUtilsCheckSMBShare",
       .params = Texts({{"SmbPathShare", "a host that needs memory\\a share that needs memory"},
                        {"SmbUser", kText},
                        {"SmbPassword", kText}}),
       .script = AnswerLadder,
       .resultKeys = {"TargetHost", "TargetShare", "ConnectionResult"},
       // The search for host and share finds nothing then.
       .bearsLackOfMemory = true},
      {.name = "fetch a URL",
       .action = "CoreUtilsCheckHTTPConnection",
       .params = Texts({{"HTTPCheckURL", kText}}),
       .script = [](FakeHost& host) { host.Answer("CurlAdvancedGet", 1); },
       .resultKeys = {"HTTPCheckURL", "HTTPCheckUrlResult"}},
  };
}
