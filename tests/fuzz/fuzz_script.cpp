// Script files of any content: whatever a script does within its limits, it ends with a documented
// code and, where that is a failure, a sentence. What could touch files or other programs is taken
// from it first, and so are patterns, whose work is not limited.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>

#include "agent/libZelCore/json_codec.h"
#include "tests/fuzz/require.h"
#include "tests/fuzz/script_run.h"

namespace {

// One line, so that a script's lines keep their numbers but for this one.
constexpr std::string_view kTakenAway =
    "for _, n in ipairs{'io','os','require','package','dofile','loadfile','debug'} do _G[n] = nil "
    "end for _, n in ipairs{'find','match','gmatch','gsub'} do string[n] = nil end\n";

ZelContainer Parameters() {
  return DecodeContainer(R"({"Text":"x","Number":7,"Flag":true,"List":["a","b"],"Rows":[{"K":1}]})")
      .container;
}

void Check(std::string_view text) {
  ScriptRun run(Parameters());
  const bool isDone = run.Run(text);
  const auto lines =
      std::count(text.begin(), text.end(), '\n') + std::count(text.begin(), text.end(), '\r');
  Require(run.Line() >= 0 && run.Line() <= lines + 1);
  if (isDone) return Require(run.Code() == kMarlinOk);
  Require(run.Code() > kMarlinOk && run.Code() <= kMarlinInterrupted);
  Require(run.Code() != kMarlinInternal && !run.Reason().empty());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  Check(std::string(kTakenAway) + std::string(text));
  // As it stands it is only compiled, for nothing calls this function.
  ScriptRun compiled(ZelContainer{});
  compiled.Run("local function unused()\n" + std::string(text) + "\nend function main() end");
  return 0;
}
