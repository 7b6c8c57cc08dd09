#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "agent/libZelCore/failure_slowdown.h"
#include "agent/libZelCore/http_server.h"
#include "agent/libZelCore/http_upload.h"
#include "agent/libZelCore/log_throttle.h"
#include "agent/libZelCore/proof_memory.h"

class HttpSession;

/// Checks passwords one after the other on a thread of its own, so that their cost never holds up
/// the network threads. Requests that wait with the same credential from one place share one check.
class PasswordChecker {
 public:
  using Done = std::function<void(const Authenticator::Answer&)>;

  explicit PasswordChecker(Authenticator& authenticator) : authenticator_(authenticator) {}
  ~PasswordChecker() { Stop(); }

  /// `done` is called on the checker's thread; dropped when the checker stops. False when too many
  /// checks wait, altogether or from the address's place, or when the system gives no thread.
  bool Submit(const std::string& address, const std::string& header, Done done);
  void Stop();

 private:
  struct Job {
    std::string place;  ///< see PlaceOf
    std::string header;
    std::vector<Done> waiting;
  };

  bool HasThread();
  void Work();

  Authenticator& authenticator_;
  std::mutex mutex_;
  std::condition_variable wake_;
  std::deque<std::shared_ptr<Job>> jobs_;  ///< the first one is being checked
  std::thread thread_;                     ///< started with the first check
  bool lacksThread_ = false;               ///< and the log has told
  bool isStopping_ = false;
};

/// What the sessions of one server share. Sessions keep it alive: an action may still run when the
/// server is gone.
struct HttpShared {
  HttpShared(const Settings& settingsOfServer, Authenticator& authenticatorOfServer,
             const ActionDatabase& actionsOfServer, AliasTable& aliasesOfServer,
             ActionPool& poolOfServer, HttpServer::Audit auditOfServer);

  /// Whether what a stranger did, whose credentials are not known yet, may have its line in the log
  /// now. What may not is told later, in one line for all.
  bool MayLogStranger();
  void TellUntoldStrangers();

  /// A new identifier for each request, unlike any other, also after a restart.
  std::string NextRequestId();

  void Add(std::shared_ptr<HttpSession> session);
  void Remove(HttpSession* session);
  size_t CountSessions();
  std::vector<std::shared_ptr<HttpSession>> Sessions();
  /// Waits until no session is left; false when that takes longer.
  bool WaitUntilEmpty(std::chrono::milliseconds longest);

  const Settings settings;
  Authenticator& authenticator;
  const ActionDatabase& actions;
  AliasTable& aliases;
  ActionPool& pool;
  const HttpServer::Audit audit;
  FailureSlowdown slowdown;
  LogThrottle strangers;
  PasswordChecker passwordChecker;
  ProofMemory proofs;
  UploadThreads uploads;
  std::atomic<bool> isStopping{false};
  /// A reply went out, or a connection ended: its memory may go back to the system.
  void NoteFreedMemory() {
    lastFreed.store(std::chrono::steady_clock::now(), std::memory_order_relaxed);
  }

  /// When that was last and the memory has not been given back; else the epoch.
  std::atomic<std::chrono::steady_clock::time_point> lastFreed{};
  std::vector<std::unique_ptr<boost::asio::io_context>> networks;  ///< one for each network thread

 private:
  std::string requestIdPrefix_;
  std::atomic<uint64_t> requestCount_{0};
  std::mutex mutex_;
  std::condition_variable emptied_;
  std::unordered_set<std::shared_ptr<HttpSession>> sessions_;
};
