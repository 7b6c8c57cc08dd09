#include "libZel/socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/udp.hpp>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>

#include "tests/agent/library_log.h"
#include "windows_api.h"

namespace asio = boost::asio;
using asio::ip::udp;

namespace {

using testing::HasSubstr;

constexpr int kBroadcast = 32;
constexpr std::chrono::seconds kLongestWait{20};

/// A port of the loopback interface where datagrams arrive.
class Listener {
 public:
  sockaddr_in Address() const { return AddressOf(0x7F000001, socket_.local_endpoint().port()); }

  static sockaddr_in AddressOf(uint32_t address, uint16_t port) {
    sockaddr_in result{};
    result.sin_family = AF_INET;
    result.sin_port = htons(port);
    result.sin_addr.s_addr = htonl(address);
    return result;
  }

  /// Nothing when none comes in time.
  std::optional<std::string> Receive() {
    std::optional<std::string> received;
    std::string buffer(70'000, '\0');
    socket_.async_receive(asio::buffer(buffer),
                          [&](const boost::system::error_code& error, size_t length) {
                            if (!error) received = buffer.substr(0, length);
                          });
    context_.restart();
    context_.run_for(kLongestWait);
    socket_.cancel();
    context_.restart();
    context_.run();
    return received;
  }

 private:
  asio::io_context context_;
  udp::socket socket_{context_, udp::endpoint(asio::ip::address_v4::loopback(), 0)};
};

TEST(UdpSocket, SendsEachDatagramWhole) {
  Listener listener;
  const auto socket = SocketFactory::CreateUdp();
  ASSERT_TRUE(socket);
  sockaddr_in to = listener.Address();
  for (const size_t size : {size_t{1}, size_t{102}, size_t{1500}, size_t{0}, size_t{60'000}}) {
    std::string data(size, 'x');
    if (size > 1) data[size / 2] = '\0';
    EXPECT_EQ(socket->SendTo(to, data.data(), static_cast<unsigned>(size)), static_cast<int>(size));
    const auto received = listener.Receive();
    ASSERT_TRUE(received) << size;
    EXPECT_TRUE(*received == data) << size;
  }
}

TEST(UdpSocket, KeepsItsPortBetweenDatagrams) {
  asio::io_context context;
  udp::socket receiver(context, udp::endpoint(asio::ip::address_v4::loopback(), 0));
  sockaddr_in to = Listener::AddressOf(0x7F000001, receiver.local_endpoint().port());
  const auto socket = SocketFactory::CreateUdp();
  ASSERT_TRUE(socket);
  std::array<udp::endpoint, 2> senders;
  for (udp::endpoint& sender : senders) {
    char data[] = "x";
    ASSERT_EQ(socket->SendTo(to, data, 1), 1);
    std::array<char, 8> buffer;
    receiver.receive_from(asio::buffer(buffer), sender);
  }
  EXPECT_EQ(senders[0], senders[1]);
}

TEST(UdpSocket, SendsToBroadcastAddressesOnlyAfterTheOption) {
  const auto socket = SocketFactory::CreateUdp();
  ASSERT_TRUE(socket);
  EXPECT_TRUE(socket->SetOption(kBroadcast, 1));
  EXPECT_TRUE(socket->SetOption(kBroadcast, 0));

  LibraryLogText log;
  char data[] = "x";
  sockaddr_in to = Listener::AddressOf(0x7FFFFFFF, 9);
  EXPECT_EQ(socket->SendTo(to, data, 1), -1);
  EXPECT_THAT(log.Text(), HasSubstr("A datagram was not sent: "));
  EXPECT_TRUE(socket->SetOption(kBroadcast, 1));
  EXPECT_EQ(socket->SendTo(to, data, 1), 1);
}

TEST(UdpSocket, KnowsNoOtherOption) {
  const auto socket = SocketFactory::CreateUdp();
  ASSERT_TRUE(socket);
  for (const int option : {0, 1, 2, 4, 6, 8, 33, 128, -1, 0x7FFFFFFF}) {
    EXPECT_FALSE(socket->SetOption(option, 1)) << option;
  }
}

TEST(UdpSocket, SaysWhyADatagramCannotGo) {
  LibraryLogText log;
  const auto socket = SocketFactory::CreateUdp();
  ASSERT_TRUE(socket);
  char data[] = "x";
  sockaddr_in none{};
  EXPECT_EQ(socket->SendTo(none, data, 1), -1);
  EXPECT_THAT(log.Text(), HasSubstr("the address or the length is none"));

  std::string longest(70'000, 'x');
  sockaddr_in to = Listener::AddressOf(0x7F000001, 9);
  EXPECT_EQ(socket->SendTo(to, longest.data(), 70'000), -1);
  EXPECT_EQ(socket->SendTo(to, data, 0x80000000U), -1);
}

TEST(UdpSocket, AreManyAtOnce) {
  for (int round = 0; round < 20; ++round) {
    std::array<std::unique_ptr<UdpSocket>, 50> sockets;
    for (auto& socket : sockets) {
      socket = SocketFactory::CreateUdp();
      ASSERT_TRUE(socket);
    }
  }
}

}  // namespace
