#include "agent/libZel/network/tcp_stream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <stdexcept>
#include <string>

#include "tests/agent/scripted_peer.h"
#include "tests/agent/smb_test.h"

namespace {

using namespace std::chrono_literals;
using smb::Bytes;
using testing::HasSubstr;

Deadline In(std::chrono::milliseconds time) {
  return std::chrono::steady_clock::now() + time;
}
Deadline Soon() {
  return In(50ms);
}
Deadline Late() {
  return In(30s);
}

/// An open stream to the peer.
struct Connected {
  explicit Connected(const ScriptedPeer& peer) {
    stream.Connect(ScriptedPeer::kAddress, peer.Port(), Late());
  }
  TcpStream stream;
};

TEST(TcpStream, SendsAndReceives) {
  const ScriptedPeer peer([](ScriptedPeer::Socket& socket) {
    Bytes bytes = ScriptedPeer::Receive(socket, 3);
    std::reverse(bytes.begin(), bytes.end());
    ScriptedPeer::Send(socket, bytes);
  });
  Connected connected(peer);
  EXPECT_TRUE(connected.stream.IsOpen());
  connected.stream.Write(Bytes{1, 2, 3}, Late());
  Bytes answer(3);
  connected.stream.Read(answer, Late());
  EXPECT_EQ(Bytes({3, 2, 1}), answer);
}

TEST(TcpStream, FillsAllOfWhatIsReadFromManyPieces) {
  const ScriptedPeer peer([](ScriptedPeer::Socket& socket) {
    for (uint8_t i = 0; i < 200; ++i) ScriptedPeer::Send(socket, Bytes{i});
    ScriptedPeer::AwaitEnd(socket);
  });
  Connected connected(peer);
  Bytes answer(200);
  connected.stream.Read(answer, Late());
  for (size_t i = 0; i < answer.size(); ++i) EXPECT_EQ(i, answer[i]);
}

TEST(TcpStream, SaysThatNobodyListens) {
  TcpStream stream;
  const uint16_t port = UnusedPort();
  const std::string failure =
      FailureOf([&] { stream.Connect(ScriptedPeer::kAddress, port, Late()); });
  EXPECT_THAT(failure, HasSubstr("connecting: "));
  EXPECT_FALSE(stream.IsOpen());
}

TEST(TcpStream, DoesNotConnectAfterItsTime) {
  const ScriptedPeer peer([](ScriptedPeer::Socket&) {});
  TcpStream stream;
  EXPECT_EQ("connecting: no answer in time",
            FailureOf([&] { stream.Connect(ScriptedPeer::kAddress, peer.Port(), In(-1ms)); }));
  EXPECT_FALSE(stream.IsOpen());
}

TEST(TcpStream, StopsWaitingForASilentPeer) {
  const ScriptedPeer peer(ScriptedPeer::AwaitEnd);
  Connected connected(peer);
  Bytes answer(1);
  EXPECT_EQ("receiving: no answer in time",
            FailureOf([&] { connected.stream.Read(answer, Soon()); }));
  EXPECT_FALSE(connected.stream.IsOpen());
}

TEST(TcpStream, StopsWaitingForAPeerThatAnswersByteByByte) {
  const ScriptedPeer peer([](ScriptedPeer::Socket& socket) {
    for (;;) ScriptedPeer::Send(socket, Bytes{0});
  });
  Connected connected(peer);
  Bytes answer(size_t{1} << 28);
  EXPECT_EQ("receiving: no answer in time",
            FailureOf([&] { connected.stream.Read(answer, Soon()); }));
}

TEST(TcpStream, StopsSendingToAPeerThatDoesNotRead) {
  std::promise<void> end;
  const ScriptedPeer peer([&](ScriptedPeer::Socket&) { end.get_future().wait(); });
  Connected connected(peer);
  const Bytes more(size_t{1} << 26);
  EXPECT_EQ("sending: no answer in time", FailureOf([&] { connected.stream.Write(more, Soon()); }));
  end.set_value();
}

TEST(TcpStream, NoticesThatThePeerCloses) {
  const ScriptedPeer peer(
      [](ScriptedPeer::Socket& socket) { ScriptedPeer::Send(socket, Bytes{1}); });
  Connected connected(peer);
  Bytes answer(2);
  EXPECT_EQ("receiving: the other side closed the connection",
            FailureOf([&] { connected.stream.Read(answer, Late()); }));
  EXPECT_FALSE(connected.stream.IsOpen());
}

TEST(TcpStream, TellsThePeerThatItCloses) {
  std::promise<bool> sawEnd;
  const ScriptedPeer peer([&](ScriptedPeer::Socket& socket) {
    boost::system::error_code error;
    uint8_t byte = 0;
    boost::asio::read(socket, boost::asio::buffer(&byte, 1), error);
    sawEnd.set_value(error == boost::asio::error::eof);
  });
  Connected connected(peer);
  connected.stream.Close();
  EXPECT_TRUE(sawEnd.get_future().get());
  EXPECT_FALSE(connected.stream.IsOpen());
}

TEST(TcpStream, ClosesAsOftenAsOneLikes) {
  TcpStream stream;
  stream.Close();
  const ScriptedPeer peer(ScriptedPeer::AwaitEnd);
  stream.Connect(ScriptedPeer::kAddress, peer.Port(), Late());
  stream.Close();
  stream.Close();
  EXPECT_FALSE(stream.IsOpen());
}

TEST(TcpStream, NeedsAConnection) {
  TcpStream stream;
  Bytes bytes(1);
  EXPECT_EQ("sending: not connected", FailureOf([&] { stream.Write(bytes, Late()); }));
  EXPECT_EQ("receiving: not connected", FailureOf([&] { stream.Read(bytes, Late()); }));
}

TEST(TcpStream, ConnectsAgainAfterAFailure) {
  TcpStream stream;
  Bytes answer(1);
  const ScriptedPeer closing([](ScriptedPeer::Socket&) {});
  stream.Connect(ScriptedPeer::kAddress, closing.Port(), Late());
  EXPECT_THROW(stream.Read(answer, Late()), std::runtime_error);

  const ScriptedPeer sending(
      [](ScriptedPeer::Socket& socket) { ScriptedPeer::Send(socket, Bytes{5}); });
  stream.Connect(ScriptedPeer::kAddress, sending.Port(), Late());
  stream.Read(answer, Late());
  EXPECT_EQ(Bytes{5}, answer);
}

}  // namespace
