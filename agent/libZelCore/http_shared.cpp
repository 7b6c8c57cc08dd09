#include "agent/libZelCore/http_shared.h"

#include <openssl/rand.h>

#include <algorithm>
#include <charconv>
#include <system_error>
#include <utility>

#include "agent/libZelCore/core_log.h"
#include "agent/libZelCore/core_platform.h"

namespace {

constexpr size_t kMostChecks = 64;
constexpr ptrdiff_t kMostChecksOfPlace = 8;

std::string MakeRequestIdPrefix() {
  uint64_t random = 0;
  RAND_bytes(reinterpret_cast<unsigned char*>(&random), sizeof random);
  char digits[17];
  const auto end = std::to_chars(digits, digits + sizeof digits, random, 16).ptr;
  return std::string(digits, end) + "-";
}

}  // namespace

bool PasswordChecker::Submit(const std::string& address, const std::string& header, Done done) {
  std::string place = PlaceOf(address);
  std::lock_guard lock(mutex_);
  if (isStopping_) return false;
  const auto same = std::find_if(jobs_.begin(), jobs_.end(), [&](const auto& job) {
    return job->header == header && job->place == place;
  });
  if (same != jobs_.end()) {
    (*same)->waiting.push_back(std::move(done));
    return true;
  }
  const auto fromPlace = std::count_if(jobs_.begin(), jobs_.end(),
                                       [&](const auto& job) { return job->place == place; });
  if (jobs_.size() >= kMostChecks || fromPlace >= kMostChecksOfPlace) return false;

  if (!HasThread()) return false;

  auto job = std::make_shared<Job>(Job{std::move(place), header, {}});
  job->waiting.push_back(std::move(done));
  jobs_.push_back(std::move(job));
  wake_.notify_one();
  return true;
}

/// Called with the mutex held, before a check is queued: one that nobody takes would be waited for
/// without end. False when the system gives no thread, which the log tells once.
bool PasswordChecker::HasThread() {
  if (thread_.joinable()) return true;
  try {
    thread_ = std::thread(&PasswordChecker::Work, this);
  } catch (const std::system_error& error) {
    if (!std::exchange(lacksThread_, true))
      CoreLog().ErrorWithNL("No password can be checked, for lack of a thread: %s", error.what());
    return false;
  }
  lacksThread_ = false;
  return true;
}

void PasswordChecker::Stop() {
  std::deque<std::shared_ptr<Job>> dropped;
  {
    std::lock_guard lock(mutex_);
    isStopping_ = true;
    dropped.swap(jobs_);
    wake_.notify_one();
  }
  if (thread_.joinable()) thread_.join();
}

void PasswordChecker::Work() {
  std::unique_lock lock(mutex_);
  for (;;) {
    wake_.wait(lock, [this] { return isStopping_ || !jobs_.empty(); });
    if (isStopping_) return;
    const std::shared_ptr<Job> job = jobs_.front();

    lock.unlock();
    Authenticator::Answer answer;
    try {
      answer = authenticator_.CheckSlowly(job->header);
    } catch (const std::exception& error) {
      CoreLog().ErrorWithNL("A password could not be checked: %s", error.what());
    }
    lock.lock();

    if (isStopping_) return;
    jobs_.pop_front();
    const bool isLast = jobs_.empty();
    const std::vector<Done> waiting = std::move(job->waiting);
    lock.unlock();
    // A check takes 16 MiB, and a busy agent would keep them. The next one would only fetch them
    // again.
    if (isLast) core_platform::ReturnFreeMemory();
    for (const Done& done : waiting) done(answer);
    lock.lock();
  }
}

HttpShared::HttpShared(const Settings& settingsOfServer, Authenticator& authenticatorOfServer,
                       const ActionDatabase& actionsOfServer, AliasTable& aliasesOfServer,
                       ActionPool& poolOfServer, HttpServer::Audit auditOfServer)
    : settings(settingsOfServer),
      authenticator(authenticatorOfServer),
      actions(actionsOfServer),
      aliases(aliasesOfServer),
      pool(poolOfServer),
      audit(std::move(auditOfServer)),
      passwordChecker(authenticatorOfServer),
      proofs(std::chrono::milliseconds(settingsOfServer.pacWindowMs)),
      uploads(settingsOfServer.maxUploads),
      requestIdPrefix_(MakeRequestIdPrefix()) {}

bool HttpShared::MayLogStranger() {
  TellUntoldStrangers();
  return strangers.Admit(LogThrottle::Clock::now());
}

void HttpShared::TellUntoldStrangers() {
  const uint64_t count = strangers.TakeUntold(LogThrottle::Clock::now());
  if (count == 0) return;
  CoreLog().WarningWithNL("And %s more were refused who had not logged in",
                          std::to_string(count).c_str());
}

std::string HttpShared::NextRequestId() {
  char digits[24];
  const uint64_t number = requestCount_.fetch_add(1, std::memory_order_relaxed) + 1;
  const auto end = std::to_chars(digits, digits + sizeof digits, number).ptr;
  std::string id = requestIdPrefix_;
  id.append(digits, end);
  return id;
}

void HttpShared::Add(std::shared_ptr<HttpSession> session) {
  std::lock_guard lock(mutex_);
  sessions_.insert(std::move(session));
}

void HttpShared::Remove(HttpSession* session) {
  // The set may hold the last reference, and a session must not end under the lock.
  std::shared_ptr<HttpSession> kept;
  std::lock_guard lock(mutex_);
  const std::shared_ptr<HttpSession> key(std::shared_ptr<void>(), session);
  const auto found = sessions_.find(key);
  if (found == sessions_.end()) return;
  kept = *found;
  sessions_.erase(found);
  if (sessions_.empty()) emptied_.notify_all();
}

size_t HttpShared::CountSessions() {
  std::lock_guard lock(mutex_);
  return sessions_.size();
}

std::vector<std::shared_ptr<HttpSession>> HttpShared::Sessions() {
  std::lock_guard lock(mutex_);
  return {sessions_.begin(), sessions_.end()};
}

bool HttpShared::WaitUntilEmpty(std::chrono::milliseconds longest) {
  std::unique_lock lock(mutex_);
  return emptied_.wait_for(lock, longest, [this] { return sessions_.empty(); });
}
