#include "agent/libZelCore/invocation_depth.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace {

// A pointer, because what needs a destructor lives too long on threads of mingw's.
thread_local const InvocationContext* contextOfThread = nullptr;

}  // namespace

uint32_t ParseInvocationDepth(std::string_view value) {
  uint32_t depth = 0;
  const char* const end = value.data() + value.size();
  const auto parsed = std::from_chars(value.data(), end, depth);
  const bool isNumber = parsed.ec == std::errc() && parsed.ptr == end;
  return isNumber ? std::min(depth, kMaxInvocationDepth) : kMaxInvocationDepth;
}

InvocationContext::InvocationContext(uint32_t depth, std::string owner)
    : depth_(depth), owner_(std::move(owner)), before_(contextOfThread) {
  contextOfThread = this;
}

InvocationContext::~InvocationContext() {
  contextOfThread = before_;
}

uint32_t InvocationContext::CurrentDepth() {
  return contextOfThread ? contextOfThread->depth_ : 0;
}

const std::string& InvocationContext::CurrentOwner() {
  static const std::string kNobody;
  return contextOfThread ? contextOfThread->owner_ : kNobody;
}
