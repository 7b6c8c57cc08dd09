#include "agent/libZelCore/invocation_depth.h"

#include <algorithm>
#include <utility>

#include "agent/libZel/whole_number.h"

namespace {

// A pointer, because what needs a destructor lives too long on threads of mingw's.
thread_local const InvocationContext* contextOfThread = nullptr;

}  // namespace

uint32_t ParseInvocationDepth(std::string_view value) {
  const uint32_t depth = ReadWholeNumber<uint32_t>(value).value_or(kMaxInvocationDepth);
  return std::min(depth, kMaxInvocationDepth);
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
