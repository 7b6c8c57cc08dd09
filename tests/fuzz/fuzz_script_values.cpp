// Values on their way into a script and back: a container that becomes a table, and a container
// again, is the same but for the order of its keys and the width of its integers. The input is the
// container in JSON.

#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZelCore/json_codec.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/script_run.h"

namespace {

constexpr std::string_view kScript = R"(function main()
  local values = ParamsContainer:to_table()
  local copy = container.new(values)
  for key in pairs(values) do
    local one, is_list = copy:type(key)
    assert(one:sub(1, 3) == ParamsContainer:type(key):sub(1, 3))
    assert(copy:count(key) == ParamsContainer:count(key))
  end
  ParamsContainer:clear()
  for _, key in ipairs(copy:keys()) do ParamsContainer:set(key, values[key]) end
end)";

bool IsInteger(ZelValueType type) {
  return type == ZelValueType::kInt32 || type == ZelValueType::kInt64;
}

bool IsSame(const ZelContainer& a, const ZelContainer& b);

bool IsSame(const ZelContainer::Entry& a, const ZelContainer::Entry& b) {
  const bool isSameType = a.Type() == b.Type() || (IsInteger(a.Type()) && IsInteger(b.Type()));
  if (!isSameType || a.IsList() != b.IsList() || a.Count() != b.Count()) return false;
  for (size_t i = 0; i < a.Count(); ++i) {
    bool isSameValue = true;
    if (IsInteger(a.Type())) isSameValue = a.IntegerAt(i) == b.IntegerAt(i);
    if (a.Type() == ZelValueType::kString) isSameValue = a.StringAt(i) == b.StringAt(i);
    if (a.Type() == ZelValueType::kBool) isSameValue = a.BoolAt(i) == b.BoolAt(i);
    if (a.Type() == ZelValueType::kContainer)
      isSameValue = IsSame(a.ContainerAt(i), b.ContainerAt(i));
    if (!isSameValue) return false;
  }
  return true;
}

bool IsSame(const ZelContainer& a, const ZelContainer& b) {
  if (a.CountKeys() != b.CountKeys()) return false;
  for (size_t i = 0; i < a.CountKeys(); ++i) {
    size_t j = 0;
    while (j < b.CountKeys() && b.EntryAt(j).Key() != a.EntryAt(i).Key()) ++j;
    if (j == b.CountKeys() || !IsSame(a.EntryAt(i), b.EntryAt(j))) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const ZelContainer parameters =
      DecodeContainer({reinterpret_cast<const char*>(data), size}).container;
  if (parameters.CountKeys() == 0) return 0;
  ScriptRun run(parameters);
  if (run.Run(kScript)) {
    Require(IsSame(parameters, run.Parameters()));
    return 0;
  }
  // Limits of a script, of which containers know nothing.
  const bool isTooMuch = run.Code() == kMarlinInstructions || run.Code() == kMarlinMemory ||
                         run.Reason().find("nested too deep") != std::string::npos;
  Require(isTooMuch);
  return 0;
}
