#include "agent/libZelCore/failure_slowdown.h"

#include <algorithm>
#include <boost/asio/ip/address_v6.hpp>
#include <cstddef>

namespace {

constexpr unsigned kFreeFailures = 3;
constexpr unsigned kMostDoublings = 4;
constexpr std::chrono::milliseconds kFirstDelay{250};
constexpr size_t kLongestKey = 64;
constexpr ptrdiff_t kNetworkBytes = 8;  // of an IPv6 address

std::string AddressKey(const std::string& address) {
  return "a" + PlaceOf(address);
}

std::string LoginKey(const std::string& login) {
  return "l" + login.substr(0, kLongestKey);
}

}  // namespace

std::string PlaceOf(const std::string& address) {
  boost::system::error_code ec;
  const auto six = boost::asio::ip::make_address_v6(address, ec);
  if (ec) return address;
  auto bytes = six.to_bytes();
  std::fill(bytes.begin() + kNetworkBytes, bytes.end(), 0);
  return boost::asio::ip::address_v6(bytes).to_string() + "/64";
}

std::chrono::milliseconds FailureSlowdown::NoteFailure(const std::string& address,
                                                       const std::string& login,
                                                       Clock::time_point now) {
  std::lock_guard lock(mutex_);
  unsigned failures = Count(AddressKey(address), now);
  if (!login.empty()) failures = std::max(failures, Count(LoginKey(login), now));
  if (failures <= kFreeFailures) return std::chrono::milliseconds(0);
  return kFirstDelay * (1 << std::min(failures - kFreeFailures - 1, kMostDoublings));
}

void FailureSlowdown::NoteSuccess(const std::string& address, const std::string& login) {
  std::lock_guard lock(mutex_);
  if (places_.empty()) return;
  Forget(AddressKey(address));
  Forget(LoginKey(login));
}

unsigned FailureSlowdown::Count(std::string key, Clock::time_point now) {
  const auto found = byKey_.find(key);
  if (found == byKey_.end()) {
    if (places_.size() >= kMostPlaces) {
      byKey_.erase(places_.back().key);
      places_.pop_back();
    }
    places_.push_front({std::move(key), 0, now});
    byKey_.emplace(places_.front().key, places_.begin());
  } else {
    places_.splice(places_.begin(), places_, found->second);
  }
  Place& place = places_.front();
  if (now - place.last > kMemory) place.failures = 0;
  place.last = now;
  return ++place.failures;
}

void FailureSlowdown::Forget(const std::string& key) {
  const auto found = byKey_.find(key);
  if (found == byKey_.end()) return;
  const auto place = found->second;
  byKey_.erase(found);
  places_.erase(place);
}
