#include "agent/proxy/proxy_server.h"

#include <exception>
#include <utility>

#include "agent/proxy/connection.h"

using namespace proxy_protocol;

namespace {

// Where the system has no connection to give, asking again at once would only keep it busy.
constexpr std::chrono::milliseconds kPause{100};

}  // namespace

ProxyServer::ProxyServer(std::unique_ptr<Listener> listener, std::shared_ptr<StopSignal> stop,
                         CallerFactory makeCaller, Log log, const ProxyLimits& limits)
    : listener_(std::move(listener)),
      stop_(std::move(stop)),
      makeCaller_(std::move(makeCaller)),
      log_(std::move(log)),
      limits_(limits) {}

ProxyServer::~ProxyServer() = default;

void ProxyServer::Run() {
  while (ServeNext()) continue;
  // Their channels watch the same signal.
  for (Connection& connection : connections_) connection.thread.join();
  connections_.clear();
}

bool ProxyServer::ServeNext() {
  try {
    Connected connected = listener_->Accept();
    if (connected.result.status == Result::Status::kStopped) return false;
    ForgetEnded();
    if (connected.channel) {
      Take(std::move(connected.channel));
      return true;
    }
    log_(connected.result.reason);
    if (connected.result.status == Result::Status::kClosed) stop_->Raise();
  } catch (const std::exception&) {
    // Without memory or handles this caller is lost; the next one may be served.
  }
  return !stop_->Wait(After(kPause));
}

void ProxyServer::Take(std::unique_ptr<Channel> channel) {
  if (connections_.size() >= limits_.connections) {
    TurnAway(*channel, "there are too many connections");
    return log_("a caller was turned away: there are too many connections");
  }
  Connection& connection = connections_.emplace_back();
  connection.channel = std::move(channel);
  try {
    connection.thread = std::thread([this, &connection] {
      Serve(*connection.channel);
      connection.channel.reset();
      connection.hasEnded = true;
    });
  } catch (const std::exception& error) {
    connections_.pop_back();
    log_(std::string("a connection was dropped: ") + error.what());
  }
}

void ProxyServer::ForgetEnded() {
  connections_.remove_if([](Connection& connection) {
    if (!connection.hasEnded) return false;
    connection.thread.join();
    return true;
  });
}

void ProxyServer::Serve(Channel& channel) const {
  try {
    ServeConnection(channel, makeCaller_, limits_);
  } catch (const std::exception&) {
    // Without memory or threads this connection ends and the proxy goes on.
  }
}
