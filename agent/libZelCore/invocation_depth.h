#pragma once

#include <cstdint>
#include <string_view>

// Agents that invoke actions on each other in a ring (by scripts, say) would go on until every
// thread of every one of them waits. So each remote invocation says how many came before it.

/// The field of a request between agents that carries the depth.
constexpr const char kInvocationDepthField[] = "X-Invocation-Depth";

/// An invocation of this depth may not be handed on to another agent.
constexpr uint32_t kMaxInvocationDepth = 16;

/// What a field's value says; the largest depth for one that is no number.
uint32_t ParseInvocationDepth(std::string_view value);

/// While it exists, the depth of whatever runs on this thread.
class InvocationDepth {
 public:
  explicit InvocationDepth(uint32_t depth);
  ~InvocationDepth();
  InvocationDepth(const InvocationDepth&) = delete;
  InvocationDepth& operator=(const InvocationDepth&) = delete;

  /// 0 for what no other agent has asked for.
  static uint32_t Current();

 private:
  const uint32_t before_;
};
