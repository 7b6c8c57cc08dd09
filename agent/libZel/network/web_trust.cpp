#include "agent/libZel/network/web_trust.h"

#include <mutex>

namespace {

struct Authorities {
  std::mutex mutex;
  std::filesystem::path file;
};

Authorities& TheAuthorities() {
  static Authorities authorities;
  return authorities;
}

}  // namespace

void SetWebAuthorities(const std::filesystem::path& file) {
  const std::lock_guard lock(TheAuthorities().mutex);
  TheAuthorities().file = file;
}

std::filesystem::path GetWebAuthorities() {
  const std::lock_guard lock(TheAuthorities().mutex);
  return TheAuthorities().file;
}
