#include "agent/zelctl/result_code.h"

#include <algorithm>
#include <iterator>

#include "libZelCore.h"

namespace {

struct Meaning {
  uint32_t code;
  const char* text;
};

constexpr Meaning kMeanings[] = {
    {0, "success"},
    {1, "failure"},
    {12, "refused by the privacy check"},
    {13, "missing or malformed parameter"},
    {20, "an SMB connection step failed"},
    {14001, "the named file does not exist"},
    {32003, "the master could not be invoked"},
    {kInvokeUnknownAction, "no action of that name is registered"},
    {kInvokeFailed, "the action failed inside the agent; its log says why"},
    {kInvokeNotConfigured, "no address or credentials of the other agent are configured"},
    {kInvokeUnreachable, "the other agent could not be reached"},
    {kInvokeRefused, "the other agent's certificate or this agent's credentials were refused"},
    {kInvokeBadReply, "the other agent did not answer in the agents' protocol"},
};

}  // namespace

std::string DescribeCode(uint32_t code) {
  const std::string number = "code " + std::to_string(code);
  const auto found = std::find_if(std::begin(kMeanings), std::end(kMeanings),
                                  [code](const Meaning& meaning) { return meaning.code == code; });
  return found == std::end(kMeanings) ? number : number + ": " + found->text;
}
