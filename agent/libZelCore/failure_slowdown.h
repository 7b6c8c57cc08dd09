#pragma once

#include <chrono>
#include <cstddef>
#include <list>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

/// Whose an address is, as far as limits go: one IPv6 customer owns a whole /64 (RFC 6177).
std::string PlaceOf(const std::string& address);

/// Remembers refused credentials by place (see PlaceOf) and by login, and says how long the next
/// refusal is to be held back. Accepted credentials are never held back, so failures from elsewhere
/// lock nobody out. The memory is bounded: the places that failed longest ago are forgotten first.
///
/// Threads: any number may ask at once.
class FailureSlowdown {
 public:
  using Clock = std::chrono::steady_clock;

  /// Notes a failure of `login` (may be empty) from `address`; how long to hold back the refusal: 0
  /// for the first three, then 250 ms doubling to 4 s.
  std::chrono::milliseconds NoteFailure(const std::string& address, const std::string& login,
                                        Clock::time_point now);
  /// Forgets the failures of an address and a login that now got it right.
  void NoteSuccess(const std::string& address, const std::string& login);

  static constexpr size_t kMostPlaces = 4096;
  static constexpr std::chrono::minutes kMemory{15};

 private:
  struct Place {
    std::string key;
    unsigned failures = 0;
    Clock::time_point last{};
  };
  using Places = std::list<Place>;  ///< the most recent failure first

  unsigned Count(std::string key, Clock::time_point now);
  void Forget(const std::string& key);

  std::mutex mutex_;
  Places places_;
  std::unordered_map<std::string_view, Places::iterator> byKey_;  ///< views into places_
};
