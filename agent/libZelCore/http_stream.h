#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/context.hpp>
#include <memory>
#include <string>

#include "agent/libZelCore/http_session.h"

/// Without the "::ffff:" of an IPv4 address on an IPv6 socket.
std::string AddressText(const boost::asio::ip::address& address);

/// Sessions over plain TCP and over TLS.
std::shared_ptr<HttpSession> MakePlainSession(std::shared_ptr<HttpShared> shared,
                                              boost::asio::io_context& network,
                                              boost::asio::ip::tcp::socket socket,
                                              std::string address);
std::shared_ptr<HttpSession> MakeTlsSession(std::shared_ptr<HttpShared> shared,
                                            boost::asio::io_context& network,
                                            boost::asio::ip::tcp::socket socket,
                                            std::string address,
                                            boost::asio::ssl::context& context);
