#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "agent/libZel/proxy_connection.h"
#include "agent/libZel/proxy_session.h"
#include "agent/proxy_protocol/frame.h"
#include "libZel/proxy_client.h"
#include "tests/agent/test_proxy.h"

using namespace proxy_protocol;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using testing::HasSubstr;

namespace {

constexpr uint32_t kTimeoutMs = 10000;
constexpr seconds kLong{10};
constexpr milliseconds kShort{100};

Message Ask(Channel& channel, const Message& request) {
  EXPECT_TRUE(Send(channel, request, After(kLong)));
  const Received received = Receive(channel, After(kLong));
  EXPECT_TRUE(received.result) << received.result.reason;
  return received.message;
}

// What the proxy answers to any bytes: the reason why it ends the connection. Nothing more comes.
std::string FarewellTo(const std::string& bytes) {
  const TestProxy proxy;
  const Connected connected = Connect(proxy.Pipe(), After(kLong));
  EXPECT_TRUE(connected.channel->Write(bytes.data(), bytes.size(), After(kLong)));
  const Received received = Receive(*connected.channel, After(kLong));
  EXPECT_TRUE(received.result) << received.result.reason;
  EXPECT_EQ(received.message.name, kConnection);
  EXPECT_EQ(received.message.code, kFailed);
  EXPECT_EQ(Receive(*connected.channel, After(kLong)).result.status, Result::Status::kClosed);
  const std::string* const reason = received.message.Find(kReason);
  return reason ? *reason : "";
}

// Listens and does with each connection what it is told.
class StrangeListener {
 public:
  explicit StrangeListener(std::function<void(Channel&, const StopSignal&)> behaviour)
      : stop_(std::make_shared<StopSignal>()),
        listener_(Listen(pipe_.Name(), stop_)),
        thread_([this, behaviour] {
          for (;;) {
            const Connected connected = listener_->Accept();
            if (connected.result.status == Result::Status::kStopped) return;
            if (connected.channel) behaviour(*connected.channel, *stop_);
          }
        }) {}
  ~StrangeListener() {
    stop_->Raise();
    thread_.join();
  }
  const std::string& Pipe() const { return pipe_.Name(); }

 private:
  const TestPipe pipe_;
  const std::shared_ptr<StopSignal> stop_;
  const std::unique_ptr<Listener> listener_;
  std::thread thread_;
};

bool CanInitialise(const std::string& pipe, uint32_t timeoutMs) {
  XmlProxyClient client;
  const bool isOpen = client.Initialise(pipe, timeoutMs, XmlProxyClient::kUserSession);
  EXPECT_EQ(client.GetConnection() != nullptr, isOpen);
  return isOpen;
}

}  // namespace

TEST(Proxy, TellsItsSession) {
  const TestProxy proxy;
  XmlProxyClient client;
  ASSERT_TRUE(client.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession));
  const SessionInfo session = SessionOf(client);
  ASSERT_TRUE(session.outcome) << session.outcome.reason.Utf8();
  EXPECT_EQ(session.userName, "alice");
  EXPECT_EQ(session.sessionId, "3");
  EXPECT_EQ(session.platform, "testing");
  EXPECT_EQ(session.processId, 42u);
  EXPECT_EQ(session.startedAt, 1700000000);
}

TEST(Proxy, TellsWhyAProgramDoesNotRun) {
  const TestProxy proxy;
  XmlProxyClient client;
  ASSERT_TRUE(client.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession));
  const ProxyOutcome answer = AskToRun(client, "zel-no-such-program-anywhere");
  EXPECT_TRUE(answer.wasAsked);
  EXPECT_GT(answer.outcome.code, 0);
  EXPECT_FALSE(answer.outcome.reason.IsEmpty());
  EXPECT_FALSE(RunInSession(client, std::string("a\0b", 3)));
  EXPECT_TRUE(client.GetConnection()->Ask("session", {}).reply) << "the connection goes on";
}

TEST(Proxy, AnswersARequestThatItDoesNotKnow) {
  const TestProxy proxy;
  const Connected connected = Connect(proxy.Pipe(), After(kLong));
  ASSERT_TRUE(connected.channel) << connected.result.reason;
  const Message reply = Ask(*connected.channel, {Message::Kind::kRequest, "sing", 5, 0, {}});
  EXPECT_EQ(reply.kind, Message::Kind::kReply);
  EXPECT_EQ(reply.name, "sing");
  EXPECT_EQ(reply.id, 5u);
  EXPECT_EQ(reply.code, kFailed);
  EXPECT_THAT(*reply.Find(kReason), HasSubstr("\"sing\" is not known"));

  const Message run = Ask(*connected.channel, {Message::Kind::kRequest, "run", 6, 0, {}});
  EXPECT_THAT(*run.Find(kReason), HasSubstr("commandLine is missing"));
}

TEST(Proxy, MakesFailuresOfExceptions) {
  const TestProxy proxy([](const Message&) -> Message { throw std::runtime_error("oh no"); }, {});
  const Connected connected = Connect(proxy.Pipe(), After(kLong));
  const Message reply = Ask(*connected.channel, {Message::Kind::kRequest, "run", 1, 0, {}});
  EXPECT_EQ(reply.code, kFailed);
  EXPECT_EQ(*reply.Find(kReason), "oh no");
}

TEST(Proxy, ServesManyAtOnce) {
  const TestProxy proxy;
  std::atomic<int> good = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      XmlProxyClient client;
      if (!client.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession)) return;
      for (int j = 0; j < 20; ++j) {
        if (client.GetConnection()->Ask("session", {}).reply) ++good;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(good, 160);
}

TEST(Proxy, CarriesTheLargestMessages) {
  const TestProxy proxy(
      [](const Message& request) {
        Message reply = ReplyTo(request);
        reply.fields = request.fields;
        return reply;
      },
      {});
  const Connected connected = Connect(proxy.Pipe(), After(kLong));
  Message request{Message::Kind::kRequest, "echo", 1, 0, {{"x", ""}}};
  request.fields[0].text.assign(kMaxDocumentBytes - FormatMessage(request).size() - 20, 'x');
  EXPECT_EQ(Ask(*connected.channel, request).fields, request.fields);

  request.fields[0].text.append(100, 'x');
  EXPECT_EQ(Send(*connected.channel, request, After(kLong)).status, Result::Status::kFailed);
}

TEST(Proxy, TurnsAwayOneTooMany) {
  const TestProxy proxy(ProxyLimits{.connections = 2});
  XmlProxyClient first, second, third;
  ASSERT_TRUE(first.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession));
  ASSERT_TRUE(second.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession));
  EXPECT_FALSE(third.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession));
  EXPECT_TRUE(first.GetConnection()->Ask("session", {}).reply);
  EXPECT_TRUE(second.GetConnection()->Ask("session", {}).reply);
}

TEST(Proxy, EndsAConnectionThatMakesNoSense) {
  EXPECT_THAT(FarewellTo("GET / HTTP/1.1\r\n\r\n"), HasSubstr("too long"));
  EXPECT_THAT(FarewellTo(std::string(4, '\0')), HasSubstr("empty"));
  EXPECT_THAT(FarewellTo(FrameOf("garbage")), HasSubstr("no XML"));
  const Message reply{Message::Kind::kReply, "run", 1, 0, {}};
  EXPECT_THAT(FarewellTo(FrameOf(FormatMessage(reply))), HasSubstr("instead of a request"));
}

TEST(Proxy, DropsWhoSendsHalfAMessageOrNothing) {
  const std::pair<std::string, ProxyLimits> cases[] = {
      {"", {.idle = kShort}}, {std::string("\0\0\0\7half", 8), {.message = kShort}}};
  for (const auto& [bytes, limits] : cases) {
    const TestProxy proxy(limits);
    const Connected connected = Connect(proxy.Pipe(), After(kLong));
    ASSERT_TRUE(connected.channel->Write(bytes.data(), bytes.size(), After(kLong)));
    EXPECT_EQ(Receive(*connected.channel, After(kLong)).result.status, Result::Status::kClosed);
  }
}

TEST(Proxy, EndsWhileConnectionsAreOpen) {
  XmlProxyClient client;
  {
    const TestProxy proxy;
    ASSERT_TRUE(client.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession));
  }
  const ProxyOutcome answer = AskToRun(client, "program");
  EXPECT_FALSE(answer.wasAsked);
  EXPECT_FALSE(answer.outcome);
  EXPECT_FALSE(SessionOf(client).outcome) << "and stays broken";
}

TEST(Proxy, DoesNotListenWhereOneListens) {
  const TestProxy proxy;
  try {
    Listen(proxy.Pipe(), std::make_shared<StopSignal>());
    FAIL() << "there are two listeners";
  } catch (const std::runtime_error& error) {
    EXPECT_THAT(error.what(), HasSubstr("a proxy is running already"));
  }
  EXPECT_TRUE(CanInitialise(proxy.Pipe(), kTimeoutMs)) << "the first one is undisturbed";
}

TEST(Proxy, LeavesItsPlaceToTheNext) {
  const TestPipe pipe;
  for (int i = 0; i < 3; ++i) Listen(pipe.Name(), std::make_shared<StopSignal>());
  EXPECT_FALSE(CanInitialise(pipe.Name(), kTimeoutMs));
}

TEST(XmlProxyClient, KnowsOneTypeOfSession) {
  const TestProxy proxy;
  XmlProxyClient client;
  EXPECT_FALSE(client.Initialise(proxy.Pipe(), kTimeoutMs, XmlProxyClient::kUserSession + 1));
  EXPECT_EQ(client.GetConnection(), nullptr);
}

TEST(XmlProxyClient, FailsAtOnceWhereNobodyListens) {
  const TestPipe pipe;
  const auto start = steady_clock::now();
  EXPECT_FALSE(CanInitialise(pipe.Name(), 60000));
  EXPECT_FALSE(CanInitialise("", 60000));
  EXPECT_FALSE(CanInitialise("no pipe at all", 60000));
  EXPECT_LT(steady_clock::now() - start, seconds(20));
}

TEST(XmlProxyClient, WaitsNoLongerThanItShould) {
  // It takes the connection and says nothing, or never comes to an end.
  const StrangeListener silent(
      [](Channel&, const StopSignal& stop) { stop.Wait(Deadline::max()); });
  const StrangeListener endless([](Channel& channel, const StopSignal& stop) {
    const std::string header("\0\x0F\0\0", 4);
    channel.Write(header.data(), header.size(), After(kLong));
    while (!stop.Wait(After(milliseconds(5))) && channel.Write("x", 1, After(kLong))) {
    }
  });
  for (const std::string& pipe : {silent.Pipe(), endless.Pipe()}) {
    const auto start = steady_clock::now();
    EXPECT_FALSE(CanInitialise(pipe, 100));
    EXPECT_GE(steady_clock::now() - start, milliseconds(100));
    EXPECT_LT(steady_clock::now() - start, seconds(20));
  }
}

// The first question shares the deadline of the connecting before it.
TEST(XmlProxyClientConnection, WaitsForAQuestionsOwnDeadline) {
  const StrangeListener silent(
      [](Channel&, const StopSignal& stop) { stop.Wait(Deadline::max()); });
  for (const milliseconds time : {milliseconds(0), kShort}) {
    XmlProxyClient::Connection connection(Connect(silent.Pipe(), After(kLong)).channel, 600000);
    const auto start = steady_clock::now();
    const auto answer = connection.Ask("session", {}, After(time));
    EXPECT_FALSE(answer.reply);
    EXPECT_EQ(answer.error, "no answer in time");
    EXPECT_GE(steady_clock::now() - start, time);
    EXPECT_LT(steady_clock::now() - start, seconds(20));
  }
}

TEST(XmlProxyClient, RefusesAListenerThatIsNoProxy) {
  for (const std::string& bytes :
       {std::string("HTTP/1.1 400 Bad Request\r\n\r\n"), std::string("\0\0\0", 3), FrameOf("<x/>"),
        FrameOf(FormatMessage({Message::Kind::kRequest, "session", 1, 0, {}})),
        FrameOf(FormatMessage({Message::Kind::kReply, "session", 99, 0, {}})),
        FrameOf(FormatMessage({Message::Kind::kReply, "other", 1, 0, {}})),
        FrameOf(FormatMessage({Message::Kind::kReply, "session", 1, 3, {}}))}) {
    const StrangeListener listener([&bytes](Channel& channel, const StopSignal&) {
      ReceiveNext(channel, After(kLong), kLong);
      channel.Write(bytes.data(), bytes.size(), After(kLong));
    });
    EXPECT_FALSE(CanInitialise(listener.Pipe(), kTimeoutMs)) << bytes;
  }
}

TEST(SessionOf, FailsWithoutAConnection) {
  XmlProxyClient client;
  EXPECT_FALSE(SessionOf(client).outcome);
  EXPECT_FALSE(AskToRun(client, "program").wasAsked);
  EXPECT_FALSE(RunInSession(client, "program"));
}
