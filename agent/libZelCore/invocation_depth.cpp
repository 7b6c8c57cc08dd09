#include "agent/libZelCore/invocation_depth.h"

#include <algorithm>
#include <charconv>

namespace {

thread_local uint32_t depthOfThread = 0;

}  // namespace

uint32_t ParseInvocationDepth(std::string_view value) {
  uint32_t depth = 0;
  const char* const end = value.data() + value.size();
  const auto parsed = std::from_chars(value.data(), end, depth);
  const bool isNumber = parsed.ec == std::errc() && parsed.ptr == end;
  return isNumber ? std::min(depth, kMaxInvocationDepth) : kMaxInvocationDepth;
}

InvocationDepth::InvocationDepth(uint32_t depth) : before_(depthOfThread) {
  depthOfThread = depth;
}

InvocationDepth::~InvocationDepth() {
  depthOfThread = before_;
}

uint32_t InvocationDepth::Current() {
  return depthOfThread;
}
