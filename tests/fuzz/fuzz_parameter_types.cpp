// Parameters that people and programs send to an action: one of another type than the action's
// signature says is named, and an integer passes for "int" exactly when 32 bits hold it. The first
// line of the input is a parameter list, the rest the parameters in JSON.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include "agent/libZelCore/json_codec.h"
#include "agent/libZelCore/parameter_types.h"
#include "tests/fuzz/require.h"

namespace {

// The same list for every key: what is wrong with one value is what its type says.
bool IsInt(const ZelContainer::Entry& entry) {
  const bool isInteger =
      entry.Type() == ZelValueType::kInt32 || entry.Type() == ZelValueType::kInt64;
  if (entry.IsList() || !isInteger) return false;
  const int64_t value = entry.IntegerAt(0);
  return value >= std::numeric_limits<int32_t>::min() &&
         value <= std::numeric_limits<uint32_t>::max();
}

bool IsPlainKey(std::string_view key) {
  return !key.empty() && std::all_of(key.begin(), key.end(), [](char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  });
}

void CheckInt(const ZelContainer& parameters) {
  if (parameters.CountKeys() == 0) return;
  const ZelContainer::Entry first = parameters.EntryAt(0);
  if (!IsPlainKey(first.Key())) return;
  const std::string signature = "Any (int " + std::string(first.Key()) + ")";
  const std::string problem = FindWrongType(signature, parameters);
  Require(problem.empty() == IsInt(first));
  if (!problem.empty()) Require(problem.find(first.Key()) != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const size_t end = std::min(input.find('\n'), size);
  const JsonDecodeResult decoded = DecodeContainer(input.substr(std::min(end + 1, size)));
  const ZelContainer& parameters = decoded.container;

  FindWrongType(input.substr(0, end), parameters);
  const std::string list = "Any (" + std::string(input.substr(0, end)) + ")";
  if (!FindWrongType(list, parameters).empty()) Require(parameters.CountKeys() > 0);
  Require(FindWrongType("Any", parameters).empty());
  Require(FindWrongType("Any ()", parameters).empty());
  CheckInt(parameters);
  return 0;
}
