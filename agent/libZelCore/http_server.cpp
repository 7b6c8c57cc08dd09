#include "agent/libZelCore/http_server.h"

#include <algorithm>
#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <future>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"
#include "agent/libZelCore/http_session.h"
#include "agent/libZelCore/http_shared.h"
#include "agent/libZelCore/http_stream.h"
#include "agent/libZelCore/listen_options.h"

namespace asio = boost::asio;
using asio::ip::tcp;
using ErrorCode = boost::system::error_code;
using Clock = HttpSession::Clock;

namespace {

constexpr std::chrono::seconds kStopPatience{5};
constexpr std::chrono::milliseconds kLongestSweepInterval{250};
constexpr std::chrono::milliseconds kMemoryIdleTime{500};
constexpr std::chrono::seconds kLongestMemoryTime{10};
constexpr std::chrono::milliseconds kAcceptRetryInterval{50};
constexpr uint64_t kFilesShare = 4;    // of the handles, for other things than connections
constexpr size_t kDroppedShare = 100;  // of the connections, when a new one finds no room

constexpr std::string_view kFullReply =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nRetry-After: 1\r\n"
    "Connection: close\r\nContent-Length: 70\r\n\r\n"
    R"({"error":{"code":"at_capacity","message":"too many connections busy"}})";
static_assert(kFullReply.substr(kFullReply.find('{')).size() == 70);

/// OpenSSL takes file names in UTF-8 on every platform.
std::string Utf8Name(const std::filesystem::path& file) {
  const std::u8string name = file.u8string();
  return {reinterpret_cast<const char*>(name.data()), name.size()};
}

std::string EndpointText(const tcp::endpoint& endpoint) {
  const std::string address = AddressText(endpoint.address());
  const std::string host = endpoint.address().is_v6() ? "[" + address + "]" : address;
  return host + ":" + std::to_string(endpoint.port());
}

}  // namespace

struct HttpServer::Implementation {
  Implementation(const Settings& settings, Authenticator& authenticator,
                 const ActionDatabase& actions, AliasTable& aliases, ActionPool& pool, Audit audit)
      : shared(std::make_shared<HttpShared>(settings, authenticator, actions, aliases, pool,
                                            std::move(audit))) {}

  tcp::endpoint Endpoint();
  void LoadCertificate();
  void AskForCertificates();
  void LimitConnections();
  void Listen(const tcp::endpoint& endpoint);
  void StartThreads();
  void Accept();
  void OnAccepted(const ErrorCode& ec, tcp::socket socket, asio::io_context& network);
  void RetryAcceptLater();
  bool MakeRoom();
  void ScheduleSweep();
  void Sweep();
  void ReturnMemory(Clock::time_point now);
  void CloseAcceptor();
  void CloseSessions(bool onlyIdle);
  void Stop();

  using WorkGuard = asio::executor_work_guard<asio::io_context::executor_type>;

  const std::shared_ptr<HttpShared> shared;
  std::optional<asio::ssl::context> tls;
  std::optional<tcp::acceptor> acceptor;
  std::optional<asio::steady_timer> acceptTimer;
  std::optional<asio::steady_timer> sweepTimer;
  bool isSweeping = false;
  Clock::time_point memoryReturned;
  size_t nextNetwork = 0;
  uint32_t maxConnections = 0;
  tcp::endpoint bound;
  std::vector<WorkGuard> guards;
  std::vector<std::thread> threads;
};

HttpServer::HttpServer(const Settings& settings, Authenticator& authenticator,
                       const ActionDatabase& actions, AliasTable& aliases, ActionPool& pool,
                       Audit audit)
    : implementation_(std::make_unique<Implementation>(settings, authenticator, actions, aliases,
                                                       pool, std::move(audit))) {}

HttpServer::~HttpServer() {
  Stop();
}

tcp::endpoint HttpServer::Implementation::Endpoint() {
  const Settings& settings = shared->settings;
  ErrorCode ec;
  const asio::ip::address address = asio::ip::make_address(settings.bindAddress, ec);
  if (ec)
    throw std::runtime_error(settings.bindAddress + " is no address that could be listened on");
  if (!address.is_loopback() && !settings.tls && !settings.allowPlainRemote) {
    throw std::runtime_error("refusing to listen on " + address.to_string() +
                             " without TLS: passwords would cross the network in clear; configure "
                             "TLS, or allow it explicitly");
  }
  return {address, settings.port};
}

void HttpServer::Implementation::LoadCertificate() {
  const Settings& settings = shared->settings;
  tls.emplace(asio::ssl::context::tls_server);
  SSL_CTX_set_min_proto_version(tls->native_handle(), TLS1_2_VERSION);
  SSL_CTX_set_mode(tls->native_handle(), SSL_MODE_RELEASE_BUFFERS);
  const auto fail = [](const char* what, const std::filesystem::path& file, const ErrorCode& ec) {
    throw std::runtime_error(std::string("cannot use the ") + what + " " + Utf8Name(file) + ": " +
                             ec.message());
  };
  ErrorCode ec;
  tls->use_certificate_chain_file(Utf8Name(settings.certificateFile), ec);
  if (ec) fail("certificate chain", settings.certificateFile, ec);
  tls->use_private_key_file(Utf8Name(settings.privateKeyFile), asio::ssl::context::pem, ec);
  if (ec) fail("private key", settings.privateKeyFile, ec);
  if (settings.ssl == SslUse::kSendAndReceiveExt) AskForCertificates();
}

/// Asks every client for a certificate of the fleet. Those without one get as far as console users
/// do.
void HttpServer::Implementation::AskForCertificates() {
  const std::string file = Utf8Name(shared->settings.fleetCaFile);
  ErrorCode ec;
  tls->load_verify_file(file, ec);
  if (ec) {
    throw std::runtime_error("cannot use the certificates of the fleet's authority " + file + ": " +
                             ec.message());
  }
  tls->set_verify_mode(asio::ssl::verify_peer);
  SSL_CTX_set_client_CA_list(tls->native_handle(), SSL_load_client_CA_file(file.c_str()));
  // Without it OpenSSL resumes no session of a client that was asked.
  constexpr unsigned char kContext[] = {'z', 'e', 'l'};
  SSL_CTX_set_session_id_context(tls->native_handle(), kContext, sizeof kContext);
}

/// Connections must leave room for what actions open.
void HttpServer::Implementation::LimitConnections() {
  const uint32_t wanted = shared->settings.maxConnections;
  const uint64_t files = RaiseOpenFileLimit();
  maxConnections = static_cast<uint32_t>(std::min<uint64_t>(wanted, files - files / kFilesShare));
  if (maxConnections == wanted) return;
  CoreLog().WarningWithNL(
      "The system lets the agent open %u files at once: it takes %u connections, "
      "not %u",
      static_cast<uint32_t>(files), maxConnections, wanted);
}

void HttpServer::Implementation::Listen(const tcp::endpoint& endpoint) {
  acceptor.emplace(*shared->networks.front());
  ErrorCode ec;
  const auto check = [&](const char* step) {
    if (!ec) return;
    throw std::runtime_error("cannot listen on " + EndpointText(endpoint) + " (" + step +
                             "): " + ec.message());
  };
  acceptor->open(endpoint.protocol(), ec);
  check("open");
  ReserveListenAddress(static_cast<uintptr_t>(acceptor->native_handle()));
  if (endpoint.address().is_v6()) acceptor->set_option(asio::ip::v6_only(false), ec);
  acceptor->bind(endpoint, ec);
  check("bind");
  acceptor->listen(asio::socket_base::max_listen_connections, ec);
  check("listen");
  bound = acceptor->local_endpoint();
}

void HttpServer::Implementation::StartThreads() {
  const auto serve = [keep = shared](asio::io_context& io) {
    for (;;) {
      try {
        io.run();
        return;
      } catch (const std::exception& error) {
        CoreLog().ErrorWithNL("A network thread caught: %s", error.what());
      }
    }
  };
  for (const auto& network : shared->networks) {
    guards.emplace_back(network->get_executor());
    try {
      threads.emplace_back(serve, std::ref(*network));
    } catch (const std::system_error& error) {
      throw std::runtime_error(std::string("cannot start a network thread: ") + error.what());
    }
  }
}

void HttpServer::Implementation::Accept() {
  asio::io_context& network = *shared->networks[nextNetwork++ % shared->networks.size()];
  acceptor->async_accept(network, [this, &network](const ErrorCode& ec, tcp::socket socket) {
    try {
      OnAccepted(ec, std::move(socket), network);
    } catch (const std::exception& error) {
      CoreLog().ErrorWithNL("A connection could not be accepted: %s", error.what());
    }
    if (!acceptor->is_open()) return;
    const bool isShortOfMemory = ec == asio::error::no_descriptors ||
                                 ec == asio::error::no_memory || ec == asio::error::no_buffer_space;
    isShortOfMemory ? RetryAcceptLater() : Accept();
  });
}

void HttpServer::Implementation::OnAccepted(const ErrorCode& ec, tcp::socket socket,
                                            asio::io_context& network) {
  if (ec == asio::error::operation_aborted) return;
  if (ec) {
    CoreLog().WarningWithNL("A connection could not be accepted: %s", ec.message().c_str());
    MakeRoom();
    return;
  }
  ErrorCode ignored;
  socket.set_option(tcp::no_delay(true), ignored);
  if (shared->CountSessions() >= maxConnections && !MakeRoom()) {
    if (shared->MayLogStranger())
      CoreLog().WarningWithNL("A connection was refused: %u are busy", maxConnections);
    socket.non_blocking(true, ignored);
    if (!tls) socket.write_some(asio::buffer(kFullReply), ignored);
    return;
  }
  ErrorCode addressError;
  const tcp::endpoint peer = socket.remote_endpoint(addressError);
  if (addressError) return;  // gone already
  std::string address = AddressText(peer.address());
  std::shared_ptr<HttpSession> session =
      tls ? MakeTlsSession(shared, network, std::move(socket), std::move(address), *tls)
          : MakePlainSession(shared, network, std::move(socket), std::move(address));
  shared->Add(session);
  asio::dispatch(network, [session] { session->Start(); });
  if (!isSweeping) ScheduleSweep();
}

void HttpServer::Implementation::RetryAcceptLater() {
  acceptTimer->expires_after(kAcceptRetryInterval);
  acceptTimer->async_wait([this](const ErrorCode& ec) {
    if (!ec && acceptor->is_open()) Accept();
  });
}

/// Drops the connections that have done nothing for longest, a few at a time so that a flood of new
/// ones does not search the whole set for each. False when all are busy.
bool HttpServer::Implementation::MakeRoom() {
  std::vector<std::pair<Clock::time_point, std::shared_ptr<HttpSession>>> idle;
  for (auto& session : shared->Sessions()) {
    if (session->IsDroppable()) idle.emplace_back(session->LastActivity(), session);
  }
  if (idle.empty()) return false;
  const size_t count = std::max<size_t>(1, idle.size() / kDroppedShare);
  std::nth_element(idle.begin(), idle.begin() + static_cast<ptrdiff_t>(count - 1), idle.end());
  idle.resize(count);
  for (auto& [lastActivity, session] : idle) {
    asio::dispatch(session->Network(), [session = session] {
      if (session->IsDroppable()) session->Close();
    });
  }
  return true;
}

/// One timer for all sessions: a timer of each one's own would cost system calls for every request.
void HttpServer::Implementation::ScheduleSweep() {
  const uint32_t shortestMs =
      std::min(shared->settings.requestTimeoutMs, shared->settings.idleTimeoutMs);
  const auto interval = std::clamp(std::chrono::milliseconds(shortestMs / 4),
                                   std::chrono::milliseconds(10), kLongestSweepInterval);
  isSweeping = true;
  sweepTimer->expires_after(interval);
  sweepTimer->async_wait([this](const ErrorCode& ec) {
    if (!ec) Sweep();
  });
}

void HttpServer::Implementation::Sweep() {
  const auto now = Clock::now();
  const auto sessions = shared->Sessions();
  for (const auto& session : sessions) {
    if (!session->HasExpired(now)) continue;
    asio::dispatch(session->Network(), [session] {
      if (session->HasExpired(Clock::now())) session->Close();
    });
  }
  ReturnMemory(now);
  shared->TellUntoldStrangers();
  isSweeping = false;
  const bool keepsMemory = shared->lastFreed.load() != Clock::time_point();
  const bool hasMoreToDo = keepsMemory || shared->strangers.HasUntold();
  if (!sessions.empty() || (hasMoreToDo && !shared->isStopping)) ScheduleSweep();
}

/// Large answers take many times their memory to make, and many connections take much together. It
/// serves the next ones, and goes back to the system when there are none for a while. An agent that
/// is never idle would keep the most that it ever needed at once: what it does not need it gives
/// back now and then.
void HttpServer::Implementation::ReturnMemory(Clock::time_point now) {
  Clock::time_point last = shared->lastFreed.load();
  if (last == Clock::time_point()) return;
  if (now - last < kMemoryIdleTime && now - memoryReturned < kLongestMemoryTime) return;
  // A reply that goes out meanwhile is noted once more.
  shared->lastFreed.compare_exchange_strong(last, Clock::time_point());
  core_platform::ReturnFreeMemory();
  memoryReturned = now;
}

void HttpServer::Implementation::CloseAcceptor() {
  std::promise<void> closed;
  asio::post(*shared->networks.front(), [&] {
    ErrorCode ignored;
    acceptor->close(ignored);
    acceptTimer->cancel();
    closed.set_value();
  });
  closed.get_future().wait();
}

void HttpServer::Implementation::CloseSessions(bool onlyIdle) {
  for (const auto& session : shared->Sessions()) {
    asio::post(session->Network(), [session, onlyIdle] {
      if (!onlyIdle || session->IsDroppable()) session->Close();
    });
  }
}

void HttpServer::Implementation::Stop() {
  if (shared->isStopping.exchange(true) || threads.empty()) return;
  CloseAcceptor();
  CloseSessions(true);
  if (!shared->WaitUntilEmpty(kStopPatience)) {
    CloseSessions(false);
    shared->WaitUntilEmpty(kStopPatience);
  }
  shared->uploads.Stop();
  shared->passwordChecker.Stop();
  asio::post(*shared->networks.front(), [this] { sweepTimer->cancel(); });
  guards.clear();
  for (std::thread& thread : threads) thread.join();
}

void HttpServer::Start() {
  core_platform::KeepFreeMemory();
  Implementation& server = *implementation_;
  const bool isSmallMachine = std::thread::hardware_concurrency() <= 2;
  const size_t networkThreads = isSmallMachine ? 1 : 2;
  for (size_t i = 0; i < networkThreads; ++i) {
    server.shared->networks.push_back(std::make_unique<asio::io_context>(1));
  }
  const tcp::endpoint endpoint = server.Endpoint();
  if (server.shared->settings.tls) server.LoadCertificate();
  server.LimitConnections();
  server.Listen(endpoint);
  server.acceptTimer.emplace(*server.shared->networks.front());
  server.sweepTimer.emplace(*server.shared->networks.front());
  server.Accept();
  server.StartThreads();
}

void HttpServer::Stop() {
  implementation_->Stop();
}

uint16_t HttpServer::Port() const {
  return implementation_->bound.port();
}

std::string HttpServer::Url() const {
  tcp::endpoint endpoint = implementation_->bound;
  if (endpoint.address().is_unspecified()) {
    endpoint.address(endpoint.address().is_v6()
                         ? asio::ip::address(asio::ip::address_v6::loopback())
                         : asio::ip::address_v4::loopback());
  }
  return (implementation_->shared->settings.tls ? "https://" : "http://") + EndpointText(endpoint);
}
