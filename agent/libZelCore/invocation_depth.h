#pragma once

#include <cstdint>
#include <string>
#include <string_view>

// Agents that invoke actions on each other in a ring (by scripts, say) would go on until every
// thread of every one of them waits. So each remote invocation says how many came before it.

/// The field of a request between agents that carries the depth.
constexpr const char kInvocationDepthField[] = "X-Invocation-Depth";

/// An invocation of this depth may not be handed on to another agent.
constexpr uint32_t kMaxInvocationDepth = 16;

/// What a field's value says; the largest depth for one that is no number.
uint32_t ParseInvocationDepth(std::string_view value);

/// While it exists, what is known about whatever runs on this thread. One in the other hides the
/// outer one.
class InvocationContext {
 public:
  /// `owner` is who invoked it: "agent/NAME", a console user's login, or empty for this agent.
  explicit InvocationContext(uint32_t depth, std::string owner = {});
  ~InvocationContext();
  InvocationContext(const InvocationContext&) = delete;
  InvocationContext& operator=(const InvocationContext&) = delete;

  /// 0 for what no other agent has asked for.
  static uint32_t CurrentDepth();
  /// Empty for what this agent does by itself. Valid while this context lasts.
  static const std::string& CurrentOwner();

 private:
  const uint32_t depth_;
  const std::string owner_;
  const InvocationContext* const before_;
};
