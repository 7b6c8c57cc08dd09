#include "agent/libZelCore/master_tunnel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "agent/libZelCore/agent_core.h"
#include "agent/libZelCore/calling_user.h"
#include "agent/libZelCore/credentials.h"
#include "agent/libZelCore/http_call.h"
#include "agent/libZelCore/invocation_depth.h"
#include "libZelCore.h"
#include "tests/agent/remote_peer.h"
#include "tests/agent/temporary_directory.h"
#include "tests/agent/test_certificates.h"
#include "tests/agent/test_http_server.h"

namespace {

namespace asio = boost::asio;
namespace fs = std::filesystem;

using asio::ip::tcp;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t kConfiguredTime = ~0U;

uint32_t AskMaster(const ZelString& action, ZelContainer* parameters,
                   uint32_t timeoutMs = kConfiguredTime) {
  return InvokeContainerToMasterWithTempTunnel(action, *parameters, nullptr, nullptr, timeoutMs,
                                               ~0U);
}

ZelContainer Parameters() {
  ZelContainer parameters;
  parameters.SetInt32("X", 21, kNoIndex);
  parameters.SetString("UserPass", "s3cret", kNoIndex);
  return parameters;
}

ZelContainer Said(const char* login, bool isAdministrator) {
  ZelContainer said;
  said.SetString("Login", login, kNoIndex);
  said.SetBool("Administrator", isAdministrator, kNoIndex);
  return said;
}

std::string Text(const ZelContainer& container, const char* key) {
  ZelString text;
  EXPECT_TRUE(container.GetString(key, &text, kNoIndex)) << key;
  return std::string(text.Utf8());
}

/// What a master's action gets to know: answers with whom it was asked for, and with the request.
uint32_t Who(ZelContainer* parameters) {
  ZelContainer answer, said;
  if (parameters->GetContainer(kCallingUserKey, &said, kNoIndex))
    answer.SetContainer("Said", said, kNoIndex);
  const CallingUser user = TakeCallingUser(parameters);
  answer.SetString("Agent", ZelString(user.agent), kNoIndex);
  answer.SetString("Login", ZelString(user.login), kNoIndex);
  answer.SetBool("Administrator", user.isAdministrator, kNoIndex);
  answer.SetContainer("Request", *parameters, kNoIndex);
  *parameters = answer;
  return 0;
}

uint32_t Refuse(ZelContainer* parameters) {
  ZelString problem = "no";
  parameters->GetString("Problem", &problem, kNoIndex);
  parameters->Clear();
  parameters->SetString("Error", problem, kNoIndex);
  return 0;
}

void RegisterOnMaster(ActionDatabase& actions, const ActionDatabase::Owner* owner) {
  actions.Register("Who", Who, owner);
  actions.Register("Refuse", Refuse, owner);
  actions.Register(
      "Leave", [](ZelContainer*) -> uint32_t { return 9; }, owner);
  actions.Register(
      "Throw", [](ZelContainer*) -> uint32_t { throw std::runtime_error("broken"); }, owner);
  actions.Register(
      "UnknownToo", [](ZelContainer*) -> uint32_t { return kInvokeUnknownAction; }, owner);
}

/// An agent of this process, with a fleet, a master that a test chooses and two console users.
class MasterTunnelTest : public testing::Test {
 protected:
  void Start(const std::string& master, const std::string& more = {}) {
    const fs::path config = Home() / "config";
    fs::create_directories(config);
    WriteFile(config / "secret", kFleetSecret);
    WriteFile(config / "zelagent.ini", "[agent]\nname = pc-1\n[fleet]\nsecret_file = secret\n" +
                                           more + "[master]\n" + master + "\n");
    UserStore users(config / "users");
    if (users.Logins().empty()) {
      users.Add("boss", kAdministrator, "a password");
      users.Add("ann", "helpdesk", "a password");
    }
    core_.reset();
    core_ = std::make_unique<AgentCore>(AgentOptions{Home(), uint16_t{0}});
  }
  void StartAsItsOwnMaster() {
    Start("enabled = yes");
    RegisterOnMaster(core_->Actions(), core_->Actions().AddOwner("master"));
  }

  fs::path Home() const { return directory_.Native() / "home"; }
  /// What is in the log until now, without what was there at the last call.
  std::string NewLog() {
    const std::string log = ReadFile(Home() / "log" / "zelagent.log");
    return log.substr(std::exchange(seen_, log.size()));
  }

  /// Asks in vain: the code, and parameters that are as they were. The new lines of the log.
  std::string ExpectNotRun(uint32_t code, const char* action = "Who",
                           uint32_t timeoutMs = kConfiguredTime) {
    NewLog();
    ZelContainer parameters = Parameters();
    EXPECT_EQ(AskMaster(action, &parameters, timeoutMs), code);
    EXPECT_EQ(parameters, Parameters());
    const std::string log = NewLog();
    EXPECT_THAT(log, AllOf(HasSubstr("warning [libZelCore] Action " + std::string(action) +
                                     " on the master: "),
                           Not(HasSubstr("s3cret"))));
    return log;
  }

  static ZelContainer AskAs(const std::string& owner, const char* action = "Who",
                            ZelContainer parameters = Parameters()) {
    const InvocationContext context(0, owner);
    EXPECT_EQ(AskMaster(action, &parameters), 0u);
    return parameters;
  }
  static void ExpectCaller(const ZelContainer& answer, const char* login, bool isAdministrator) {
    EXPECT_EQ(Text(answer, "Agent"), "pc-1");
    EXPECT_EQ(Text(answer, "Login"), login);
    bool flag = !isAdministrator;
    EXPECT_TRUE(answer.GetBool("Administrator", &flag, kNoIndex));
    EXPECT_EQ(flag, isAdministrator);
    ZelContainer request;
    EXPECT_TRUE(answer.GetContainer("Request", &request, kNoIndex));
    EXPECT_EQ(request, Parameters()) << "the action sees what was asked and no more";
  }
  /// Whom a master believes, however it is reached.
  static void ExpectVouching() {
    ExpectCaller(AskAs("boss"), "boss", true);
    ExpectCaller(AskAs("ann"), "ann", false);
    ExpectCaller(AskAs(""), "", true);
    const ZelContainer forAnother = AskAs("agent/pc-2");
    ExpectCaller(forAnother, "", false);
    EXPECT_EQ(forAnother.CountValues("Said"), 0);

    ZelContainer forged = Parameters();
    forged.SetContainer(kCallingUserKey, Said("boss", true), kNoIndex);
    ExpectCaller(AskAs("ann", "Who", forged), "ann", false);
    ExpectCaller(AskAs("agent/pc-2", "Who", forged), "", false);
  }

  TemporaryDirectory directory_;
  std::unique_ptr<AgentCore> core_;
  size_t seen_ = 0;
};

TEST_F(MasterTunnelTest, SaysThatNoMasterIsConfigured) {
  Start("");
  EXPECT_THAT(ExpectNotRun(kInvokeNotConfigured),
              HasSubstr("no master is configured ([master] address)"));
}

TEST_F(MasterTunnelTest, SaysWhatTheConnectionLacks) {
  RemotePeer master;
  Start("address = https://127.0.0.1:" + std::to_string(master.Port()));
  EXPECT_THAT(ExpectNotRun(kInvokeNotConfigured),
              HasSubstr("the connection to the master is not configured (https://127.0.0.1:" +
                        std::to_string(master.Port()) + "): [fleet] ca is not set"));
}

TEST_F(MasterTunnelTest, BringsTheMastersAnswer) {
  RemotePeer master;
  RegisterOnMaster(master.Actions(), nullptr);
  Start("address = " + master.Url());
  ZelContainer parameters = Parameters();
  EXPECT_EQ(AskMaster("Double", &parameters), 0u);
  int32_t result = 0;
  EXPECT_TRUE(parameters.GetInt32("Result", &result, kNoIndex));
  EXPECT_EQ(result, 42);
  EXPECT_EQ(parameters.CountKeys(), 1u);
  const Caller caller = master.FirstCaller();
  EXPECT_EQ(OwnerText(caller), "agent/pc-1");
}

TEST_F(MasterTunnelTest, VouchesForItsConsoleUsersAlone) {
  RemotePeer master;
  RegisterOnMaster(master.Actions(), nullptr);
  Start("address = " + master.Url());
  ExpectVouching();
}

TEST_F(MasterTunnelTest, BringsTheCodeOfAnActionThatRanAndWhatItLeft) {
  RemotePeer master;
  RegisterOnMaster(master.Actions(), nullptr);
  Start("address = " + master.Url());
  NewLog();
  ZelContainer parameters = Parameters();
  EXPECT_EQ(AskMaster("Leave", &parameters), 9u);
  EXPECT_EQ(parameters, Parameters());
  EXPECT_EQ(AskMaster("Throw", &parameters), kInvokeFailed);
  EXPECT_EQ(parameters.CountKeys(), 0u);
  EXPECT_THAT(NewLog(),
              AllOf(HasSubstr("Action Leave on the master: it failed with code 9\n"),
                    HasSubstr("Action Throw on the master: it failed with code 2147483650\n")));
}

TEST_F(MasterTunnelTest, SaysThatTheMasterHasNoSuchAction) {
  RemotePeer master;
  Start("address = " + master.Url());
  EXPECT_THAT(ExpectNotRun(kInvokeUnknownAction), HasSubstr("the master has no such action"));
}

TEST_F(MasterTunnelTest, SaysThatTheMasterRefusesThisAgent) {
  RemotePeer master;
  Start("address = " + master.Url());
  WriteFile(Home() / "config" / "other-secret", "the secret of another fleet");
  WriteFile(Home() / "config" / "zelagent.ini",
            "[agent]\nname = pc-1\n[fleet]\nsecret_file = other-secret\n[master]\naddress = " +
                master.Url() + "\n");
  core_.reset();
  core_ = std::make_unique<AgentCore>(AgentOptions{Home(), uint16_t{0}});
  EXPECT_THAT(ExpectNotRun(kInvokeRefused),
              AllOf(HasSubstr("the connection was refused"), HasSubstr("credentials"),
                    Not(HasSubstr("secret of"))));
}

TEST_F(MasterTunnelTest, SaysThatNobodyListensAtTheMastersAddress) {
  std::string url;
  {
    const RemotePeer gone;
    url = gone.Url();
  }
  Start("address = " + url);
  EXPECT_THAT(ExpectNotRun(kInvokeUnreachable),
              HasSubstr("the master is not reachable (" + url + ")"));
}

TEST_F(MasterTunnelTest, WaitsForASilentMasterAsLongAsConfiguredOrAsked) {
  asio::io_context context;
  // Connections are taken by the system, and nobody looks at them.
  const tcp::acceptor silent(context, tcp::endpoint(asio::ip::address_v4::loopback(), 0));
  const std::string address =
      "address = http://127.0.0.1:" + std::to_string(silent.local_endpoint().port());
  const auto secondsOf = [&](uint32_t timeoutMs) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT(ExpectNotRun(kInvokeUnreachable, "Who", timeoutMs),
                HasSubstr("the master is not reachable"));
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  };
  Start(address + "\ntimeout_ms = 300");
  const double configured = secondsOf(kConfiguredTime);
  EXPECT_GE(configured, 0.25);
  EXPECT_LT(configured, 20);
  Start(address + "\ntimeout_ms = 80000000");
  EXPECT_LT(secondsOf(200), 20);
}

TEST_F(MasterTunnelTest, SaysWhatIsWrongWithAReply) {
  const auto replyOf = [&](const TestHttpAnswer& answer, uint32_t code) {
    TestHttpServer master([&](const TestHttpRequest&) { return answer; });
    Start("address = " + master.Url(""));
    return ExpectNotRun(code);
  };
  EXPECT_THAT(replyOf({200, {}, "garbage", 0}, kInvokeBadReply),
              AllOf(HasSubstr("the invocation failed"), HasSubstr("malformed")));
  EXPECT_THAT(replyOf({500, {}, "", 0}, kInvokeBadReply),
              AllOf(HasSubstr("the invocation failed"), HasSubstr("HTTP status 500")));
  EXPECT_THAT(replyOf({200, {}, "{\"code\":0,\"container\":{}}", 10}, kInvokeUnreachable),
              HasSubstr("the master is not reachable"));
}

TEST_F(MasterTunnelTest, SaysThatTheMasterClosedTheConnectionInTheMiddle) {
  TestHttpBehaviour behaviour;
  behaviour.body = TestHttpBehaviour::Body::kCut;
  TestHttpServer master([](const TestHttpRequest&) { return TestHttpAnswer{}; }, behaviour);
  Start("address = " + master.Url(""));
  EXPECT_THAT(ExpectNotRun(kInvokeUnreachable), HasSubstr("the master is not reachable"));
}

TEST_F(MasterTunnelTest, LogsWhatTheMasterSaysWasWrong) {
  RemotePeer master;
  RegisterOnMaster(master.Actions(), nullptr);
  Start("address = " + master.Url());
  const auto logOf = [&](const std::string& problem) {
    NewLog();
    ZelContainer parameters;
    parameters.SetString("Problem", ZelString(problem), kNoIndex);
    EXPECT_EQ(AskMaster("Refuse", &parameters), 0u);
    EXPECT_EQ(Text(parameters, "Error"), problem);
    return NewLog();
  };
  EXPECT_THAT(logOf("the name is empty"),
              HasSubstr("warning [libZelCore] Action Refuse on the master: it answered with code "
                        "0: the name is empty\n"));
  EXPECT_EQ(logOf(""), "");

  const std::string hostile = logOf("first\n2026-01-01 error [forged] line\r\x1b[2J");
  EXPECT_EQ(std::count(hostile.begin(), hostile.end(), '\n'), 1);
  EXPECT_THAT(hostile, HasSubstr("first\\x0a2026"));

  std::string longText;
  for (int i = 0; i < 100000; ++i) longText += "\xC3\xA4";
  const std::string log = logOf("x" + longText);
  EXPECT_LT(log.size(), 600u);
  EXPECT_THAT(log, testing::EndsWith("\xC3\xA4...\n"));
}

/// Counts connections, answers one request on each without closing it, and waits for the other
/// side to do that.
class KeepingServer {
 public:
  KeepingServer() : acceptor_(context_, tcp::endpoint(asio::ip::address_v4::loopback(), 0)) {}

  std::string Url() const {
    return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
  }
  /// Whether the other side closed the connection after its answer.
  bool ServeOne() {
    tcp::socket socket = acceptor_.accept();
    std::string data;
    const size_t header = asio::read_until(socket, asio::dynamic_buffer(data), "\r\n\r\n");
    const size_t field = data.find("Content-Length: ");
    const size_t size = std::stoul(data.substr(field + 16));
    if (data.size() < header + size)
      asio::read(socket, asio::dynamic_buffer(data),
                 asio::transfer_exactly(header + size - data.size()));
    asio::write(socket, asio::buffer(std::string(
                            "HTTP/1.1 200 OK\r\nConnection: keep-alive\r\nContent-Length: 25\r\n"
                            "\r\n{\"code\":0,\"container\":{}}")));
    char more;
    boost::system::error_code error;
    return socket.read_some(asio::buffer(&more, 1), error) == 0 && error == asio::error::eof;
  }

 private:
  asio::io_context context_;
  tcp::acceptor acceptor_;
};

TEST_F(MasterTunnelTest, MakesAConnectionForEachCallAndClosesItAfterwards) {
  KeepingServer master;
  Start("address = " + master.Url() + "\ntimeout_ms = 20000");
  for (int i = 0; i < 3; ++i) {
    bool isClosed = false;
    std::thread server([&] { isClosed = master.ServeOne(); });
    ZelContainer parameters = Parameters();
    EXPECT_EQ(AskMaster("Who", &parameters), 0u);
    // The server's wait ends with the connection, while this agent goes on.
    server.join();
    EXPECT_TRUE(isClosed);
    EXPECT_EQ(parameters.CountKeys(), 0u);
  }
}

TEST_F(MasterTunnelTest, IsAskedByManyThreadsAtOnce) {
  RemotePeer master;
  RegisterOnMaster(master.Actions(), nullptr);
  Start("address = " + master.Url());
  std::vector<std::thread> threads;
  for (const char* login : {"boss", "ann", "", "boss"})
    threads.emplace_back([=] {
      for (int i = 0; i < 5; ++i) ExpectCaller(AskAs(login), login, std::string(login) != "ann");
    });
  for (std::thread& thread : threads) thread.join();
}

class MasterTunnelTlsTest : public MasterTunnelTest {
 protected:
  Settings MasterSettings(const TestAuthority& authority, const char* name) {
    Settings settings;
    settings.tls = true;
    settings.certificateFile = directory_.Native() / "master.pem";
    settings.privateKeyFile = directory_.Native() / "master.key";
    authority.Issue(name, settings.certificateFile, settings.privateKeyFile);
    return settings;
  }
  void StartTrusting(const TestAuthority& authority, const std::string& url) {
    authority.WriteCertificate(directory_.Native() / "ca.pem");
    Start("address = " + url, "ca = " + std::string((directory_ / "ca.pem").Utf8()) + "\n");
  }

  TestAuthority fleet_{"Fleet"};
  TestAuthority other_{"Other"};
};

TEST_F(MasterTunnelTlsTest, SpeaksTls) {
  RemotePeer master(MasterSettings(fleet_, "IP:127.0.0.1"));
  RegisterOnMaster(master.Actions(), nullptr);
  StartTrusting(fleet_, master.Url());
  ASSERT_THAT(master.Url(), testing::StartsWith("https://"));
  ExpectCaller(AskAs("ann"), "ann", false);
}

TEST_F(MasterTunnelTlsTest, RefusesAMasterOfAnotherAuthorityOrName) {
  {
    const RemotePeer master(MasterSettings(other_, "IP:127.0.0.1"));
    StartTrusting(fleet_, master.Url());
    EXPECT_THAT(ExpectNotRun(kInvokeRefused), HasSubstr("the connection was refused"));
  }
  const RemotePeer master(MasterSettings(fleet_, "DNS:elsewhere.example"));
  StartTrusting(fleet_, master.Url());
  EXPECT_THAT(ExpectNotRun(kInvokeRefused), HasSubstr("the connection was refused"));
}

TEST_F(MasterTunnelTest, AsksItselfWhereThisAgentIsTheMaster) {
  StartAsItsOwnMaster();
  ExpectVouching();
  EXPECT_EQ(InvocationContext::CurrentOwner(), "");
}

TEST_F(MasterTunnelTest, AsksItselfLikeAnother) {
  StartAsItsOwnMaster();
  EXPECT_THAT(ExpectNotRun(kInvokeUnknownAction, "Nothing"),
              HasSubstr("the master has no such action (this agent)"));
  ZelContainer parameters = Parameters();
  EXPECT_EQ(AskMaster("Leave", &parameters), 9u);
  EXPECT_EQ(parameters, Parameters());
  EXPECT_EQ(AskMaster("UnknownToo", &parameters), kInvokeUnknownAction);
  EXPECT_EQ(parameters, Parameters());
  NewLog();
  EXPECT_EQ(AskMaster("Throw", &parameters), kInvokeFailed);
  EXPECT_EQ(parameters.CountKeys(), 0u);
  EXPECT_THAT(NewLog(), HasSubstr("Action Throw on the master: it failed with code 2147483650\n"));
  EXPECT_EQ(AskMaster("Refuse", &parameters), 0u);
  EXPECT_THAT(NewLog(), HasSubstr("Action Refuse on the master: it answered with code 0: no\n"));
}

TEST_F(MasterTunnelTest, EndsAskingItselfInARing) {
  StartAsItsOwnMaster();
  static uint32_t runs;
  runs = 0;
  core_->Actions().Register(
      "Ring",
      [](ZelContainer* parameters) -> uint32_t {
        ++runs;
        return AskMaster("Ring", parameters);
      },
      core_->Actions().AddOwner("ring"));
  NewLog();
  ZelContainer parameters;
  EXPECT_EQ(AskMaster("Ring", &parameters), kInvokeRefused);
  EXPECT_EQ(runs, kMaxInvocationDepth);
  EXPECT_THAT(NewLog(), HasSubstr("too often"));
}

TEST_F(MasterTunnelTest, AsksAnotherMasterEvenWhereThisAgentCouldBeOne) {
  RemotePeer master;
  RegisterOnMaster(master.Actions(), nullptr);
  Start("enabled = yes\naddress = " + master.Url());
  ExpectCaller(AskAs("boss"), "boss", true);
}

TEST(HttpCall, TakesVouchingOutOfWhatConsoleUsersSend) {
  const std::string body =
      "{\"AgentCallingUser\":{\"Login\":\"boss\",\"Administrator\":true},\"X\":1}";
  ZelContainer parameters;
  EXPECT_FALSE(DecodeParameters(body, {Caller::Kind::kConsoleUser, "ann", "helpdesk", "::1"}, "A",
                                &parameters));
  EXPECT_EQ(parameters.CountValues(kCallingUserKey), 0);
  EXPECT_EQ(parameters.CountValues("X"), 1);
  EXPECT_FALSE(DecodeParameters(body, {Caller::Kind::kAgent, "pc-1", "", "::1"}, "A", &parameters));
  EXPECT_EQ(parameters.CountValues(kCallingUserKey), 1);
}

}  // namespace
