#pragma once

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>

#include "agent/libZelCore/action_pool.h"
#include "agent/libZelCore/alias_table.h"
#include "agent/libZelCore/http_server.h"
#include "agent/libZelCore/invocation_depth.h"
#include "tests/agent/temporary_directory.h"

constexpr const char* kFleetSecret = "the secret of this fleet";

/// Another agent of the fleet: the HTTP protocol over actions of its own.
class RemotePeer {
 public:
  explicit RemotePeer(Settings settings = {})
      : settings_(std::move(settings)),
        users_(directory_.Native() / "users"),
        authenticator_(users_, kFleetSecret, std::chrono::seconds(60)),
        aliases_(directory_.Native() / "home", directory_.Native() / "data", {},
                 std::chrono::minutes(1)),
        pool_(4, 4) {
    settings_.port = 0;
    actions_.Register(
        "Double (int X)",
        [](ZelContainer* parameters) -> uint32_t {
          int32_t x = 0;
          parameters->GetInt32("X", &x, kNoIndex);
          parameters->Clear();
          parameters->SetInt32("Result", 2 * x, kNoIndex);
          return 0;
        },
        nullptr);
    actions_.Register(
        "Fail", [](ZelContainer*) -> uint32_t { return 0xFFFFFFFE; }, nullptr);
    actions_.Register(
        "Depth", [](ZelContainer*) -> uint32_t { return InvocationContext::CurrentDepth(); },
        nullptr);
    actions_.Register(
        "Wait",
        [this](ZelContainer*) -> uint32_t {
          released_.wait();
          return 0;
        },
        nullptr);
    server_ = std::make_unique<HttpServer>(settings_, authenticator_, actions_, aliases_, pool_,
                                           [this](const InvocationRecord& record) {
                                             if (!isCalled_.exchange(true))
                                               caller_.set_value(record.caller);
                                           });
    server_->Start();
  }
  ~RemotePeer() {
    Release();
    server_->Stop();
    pool_.Stop();
  }

  ActionDatabase& Actions() { return actions_; }
  std::string Url() const { return server_->Url(); }
  uint16_t Port() const { return server_->Port(); }
  /// Who made the first invocation; waits for it.
  Caller FirstCaller() { return caller_.get_future().get(); }
  void Release() {
    if (!std::exchange(isReleased_, true)) release_.set_value();
  }

 private:
  TemporaryDirectory directory_;
  Settings settings_;
  UserStore users_;
  Authenticator authenticator_;
  ActionDatabase actions_;
  AliasTable aliases_;
  ActionPool pool_;
  std::promise<void> release_;
  std::shared_future<void> released_ = release_.get_future().share();
  bool isReleased_ = false;
  std::atomic<bool> isCalled_ = false;
  std::promise<Caller> caller_;
  std::unique_ptr<HttpServer> server_;
};
