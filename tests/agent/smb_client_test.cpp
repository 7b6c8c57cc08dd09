#include "libZel/smb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <future>
#include <string>

#include "agent/libZel/smb/connection.h"
#include "tests/agent/fake_file_server.h"
#include "tests/agent/scripted_peer.h"

namespace {

using namespace std::chrono_literals;
using smb::Bytes;
using smb::Command;
using testing::HasSubstr;

constexpr int kOverNetBios = 0;
constexpr int kOnTcp = 1;
constexpr const char* kName = "*SMBSERVER";

/// Has `server` answer the client's first `count` messages.
void Serve(FakeFileServer& server, ScriptedPeer::Socket& socket, int count) {
  server.name = "127.0.0.1";
  for (int i = 0; i < count; ++i) {
    server.Write(ScriptedPeer::ReceiveFrame(socket), {});
    ScriptedPeer::Send(socket, server.TakeAnswers());
  }
}

/// Called with the number of the step that comes next.
using Notice = std::function<void(int)>;

/// The number of the step that fails, from 1; 0 when none does.
int FirstFailure(
    CsSmbClient& client, uint16_t port, const Notice& notice = [](int) {}) {
  _CsSmbTreeInfo tree{};
  const std::function<int()> steps[] = {
      [&] { return client.TcpConnect(ScriptedPeer::kAddress, port); },
      [&] { return client.NbtSessionRequest(kName); },
      [&] { return client.SmbSessionNegotiate(); },
      [&] { return client.SmbSessionSetup("ann", FakeFileServer::kPassword); },
      [&] { return client.SmbTreeConnect("docs", tree); },
      [&] { return client.SmbTreeDisconnect(tree); },
      [&] { return client.SmbSessionLogOff(); },
  };
  int number = 0;
  for (const auto& step : steps) {
    notice(++number);
    if (step() == 0) return number;
  }
  return 0;
}

/// One that waits for a moment only, from a step on.
class HastyClient : public CsSmbClient {
 public:
  HastyClient() : CsSmbClient(kOverNetBios) {}
  int FirstFailureFrom(int step, uint16_t port) {
    return FirstFailure(*this, port, [&](int next) {
      if (next == step) connection_->SetLimits({.step = 50ms});
    });
  }
};

/// How many messages of the client are answered before a step: session request, negotiate, two of
/// the log-in, tree connect, tree disconnect, log-off.
struct Broken {
  int answered;
  int failingStep;
};
constexpr Broken kBroken[] = {{0, 2}, {1, 3}, {2, 4}, {3, 4}, {4, 5}, {5, 6}, {6, 7}};

TEST(CsSmbClient, GoesAllTheWay) {
  FakeFileServer server;
  const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) { Serve(server, socket, 7); });
  CsSmbClient client(kOverNetBios);
  EXPECT_EQ(0, FirstFailure(client, peer.Port()));
}

TEST(CsSmbClient, GoesDirectlyOnTcpWithoutASessionRequest) {
  FakeFileServer server;
  const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) { Serve(server, socket, 6); });
  CsSmbClient client(kOnTcp);
  EXPECT_EQ(0, FirstFailure(client, peer.Port()));
}

TEST(CsSmbClient, ForgetsAShareThatItCloses) {
  FakeFileServer server;
  const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) { Serve(server, socket, 6); });
  CsSmbClient client(kOverNetBios);
  ASSERT_EQ(1, client.TcpConnect(ScriptedPeer::kAddress, peer.Port()));
  ASSERT_EQ(1, client.NbtSessionRequest(kName));
  ASSERT_EQ(1, client.SmbSessionNegotiate());
  ASSERT_EQ(1, client.SmbSessionSetup("ann", FakeFileServer::kPassword));
  _CsSmbTreeInfo tree{};
  ASSERT_EQ(1, client.SmbTreeConnect("docs", tree));
  EXPECT_EQ(FakeFileServer::kTreeId, tree.treeId);
  ASSERT_EQ(1, client.SmbTreeDisconnect(tree));
  EXPECT_EQ(0u, tree.treeId);
  EXPECT_EQ(0, tree.share[0]);
}

TEST(CsSmbClient, FailsWhereTheServerCloses) {
  for (const Broken& broken : kBroken) {
    FakeFileServer server;
    const ScriptedPeer peer(
        [&](ScriptedPeer::Socket& socket) { Serve(server, socket, broken.answered); });
    CsSmbClient client(kOverNetBios);
    EXPECT_EQ(broken.failingStep, FirstFailure(client, peer.Port())) << broken.answered;
  }
}

TEST(CsSmbClient, FailsInTimeWhereTheServerFallsSilent) {
  for (const Broken& broken : kBroken) {
    FakeFileServer server;
    const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) {
      Serve(server, socket, broken.answered);
      ScriptedPeer::AwaitEnd(socket);
    });
    HastyClient client;
    EXPECT_EQ(broken.failingStep, client.FirstFailureFrom(broken.failingStep, peer.Port()))
        << broken.answered;
    client.TcpDisconnect();
  }
}

TEST(CsSmbClient, FailsWhereTheServerSendsGarbage) {
  for (const Broken& broken : kBroken) {
    FakeFileServer server;
    const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) {
      Serve(server, socket, broken.answered);
      ScriptedPeer::Send(socket, FakeFileServer::Framed(Bytes(100, 0xA5)));
      ScriptedPeer::AwaitEnd(socket);
    });
    CsSmbClient client(kOverNetBios);
    EXPECT_EQ(broken.failingStep, FirstFailure(client, peer.Port())) << broken.answered;
    client.TcpDisconnect();
  }
}

TEST(CsSmbClient, FailsInTimeWhereTheServerNeverEnds) {
  for (const Broken& broken : kBroken) {
    FakeFileServer server;
    const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) {
      Serve(server, socket, broken.answered);
      // Keep-alives, which mean nothing.
      for (;;) ScriptedPeer::Send(socket, Bytes{0x85, 0, 0, 0});
    });
    HastyClient client;
    EXPECT_EQ(broken.failingStep, client.FirstFailureFrom(broken.failingStep, peer.Port()))
        << broken.answered;
    client.TcpDisconnect();
  }
}

TEST(CsSmbClient, FailsAtAServerOfTheWeb) {
  const ScriptedPeer peer([](ScriptedPeer::Socket& socket) {
    const std::string answer = "HTTP/1.1 400 Bad Request\r\nConnection: close\r\n\r\n";
    ScriptedPeer::Send(socket, Bytes(answer.begin(), answer.end()));
  });
  CsSmbClient overNetBios(kOverNetBios);
  EXPECT_EQ(2, FirstFailure(overNetBios, peer.Port()));
}

TEST(CsSmbClient, FailsWhereNobodyListens) {
  CsSmbClient client(kOverNetBios);
  EXPECT_EQ(1, FirstFailure(client, UnusedPort()));
}

TEST(CsSmbClient, DoesNothingOutOfTurn) {
  CsSmbClient client(kOverNetBios);
  _CsSmbTreeInfo tree{};
  EXPECT_EQ(0, client.SmbSessionNegotiate());
  EXPECT_EQ(0, client.SmbSessionSetup("ann", "x"));
  EXPECT_EQ(0, client.SmbTreeConnect("docs", tree));
  EXPECT_EQ(0, client.SmbTreeDisconnect(tree));
  EXPECT_EQ(0, client.SmbSessionLogOff());
  EXPECT_EQ(0, client.NbtSessionRequest(kName));
  client.NbtDisconnect();
  client.TcpDisconnect();
}

TEST(CsSmbClient, DoesNothingAfterAFailureButLogOff) {
  FakeFileServer server;
  const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) { Serve(server, socket, 6); });
  CsSmbClient client(kOverNetBios);
  _CsSmbTreeInfo tree{};
  ASSERT_EQ(1, client.TcpConnect(ScriptedPeer::kAddress, peer.Port()));
  ASSERT_EQ(1, client.NbtSessionRequest(kName));
  ASSERT_EQ(1, client.SmbSessionNegotiate());
  ASSERT_EQ(1, client.SmbSessionSetup("ann", FakeFileServer::kPassword));
  EXPECT_EQ(0, client.SmbTreeConnect("none", tree));
  EXPECT_EQ(0, client.SmbTreeConnect("docs", tree));
  EXPECT_EQ(1, client.SmbSessionLogOff());
  EXPECT_EQ(0, client.SmbSessionLogOff());
  EXPECT_EQ(Command::kLogOff, server.commands.back());
  EXPECT_EQ(5u, server.commands.size());
}

TEST(CsSmbClient, StartsAnewAfterItDisconnected) {
  CsSmbClient client(kOverNetBios);
  for (int i = 0; i < 2; ++i) {
    FakeFileServer server;
    const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) { Serve(server, socket, 7); });
    EXPECT_EQ(0, FirstFailure(client, peer.Port()));
    client.NbtDisconnect();
    client.TcpDisconnect();
  }
}

TEST(CsSmbClient, DoesNothingInASessionThatItEnded) {
  FakeFileServer server;
  const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) {
    Serve(server, socket, 1);
    ScriptedPeer::AwaitEnd(socket);
  });
  CsSmbClient client(kOverNetBios);
  ASSERT_EQ(1, client.TcpConnect(ScriptedPeer::kAddress, peer.Port()));
  ASSERT_EQ(1, client.NbtSessionRequest(kName));
  client.NbtDisconnect();
  EXPECT_EQ(0, client.SmbSessionNegotiate());
  client.TcpDisconnect();
}

TEST(CsSmbClient, ClosesWhenItGoes) {
  std::promise<void> ended;
  const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) {
    boost::system::error_code error;
    uint8_t byte = 0;
    boost::asio::read(socket, boost::asio::buffer(&byte, 1), error);
    ended.set_value();
  });
  {
    CsSmbClient client(kOverNetBios);
    ASSERT_EQ(1, client.TcpConnect(ScriptedPeer::kAddress, peer.Port()));
  }
  ended.get_future().wait();
}

}  // namespace
