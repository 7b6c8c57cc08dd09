#include "agent/zelctl/network_commands.h"

#include <algorithm>
#include <bit>
#include <charconv>
#include <system_error>

#include "agent/libZel/network/name_lookup.h"
#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/result_code.h"
#include "agent/zelctl/text_output.h"
#include "libZel/container.h"
#include "libZel/string.h"

namespace {

constexpr size_t kMacDigits = 12;
constexpr uint32_t kAddressBits = 32;

// What CoreUtilsCheckSMBShare finds.
constexpr uint32_t kOpened = 0;
constexpr uint32_t kNotConnected = 1;
constexpr uint32_t kNotLoggedIn = 2;
constexpr uint32_t kNotOpened = 3;
constexpr uint32_t kNoAddress = 4;

// What CoreUtilsCheckHTTPConnection answers.
constexpr uint32_t kNotFetched = 0;
constexpr uint32_t kFetched = 1;

/// Words for a code that says that something could not be done.
Failure Explained(const char* action, const ActionReply& reply, const std::string& words) {
  return {ExitStatus::kActionFailed, words + " (" + action + ": " + DescribeCode(reply.code) + ")",
          reply.body};
}

/// The number of ones in a mask, in decimal and without needless zeros.
std::optional<uint32_t> ParseMaskLength(std::string_view text) {
  if (text.size() > 1 && text.starts_with('0')) return std::nullopt;
  uint32_t length = 0;
  const char* const end = text.data() + text.size();
  const std::from_chars_result parsed = std::from_chars(text.data(), end, length);
  if (parsed.ec != std::errc() || parsed.ptr != end || length > kAddressBits) return std::nullopt;
  return length;
}

/// The digits of a hardware address whose groups have `groupLength` digits.
std::optional<std::string> ParseGroups(std::string_view text, size_t groupLength) {
  if (text.size() != kMacDigits + kMacDigits / groupLength - 1) return std::nullopt;
  std::string digits;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool isSeparator = i % (groupLength + 1) == groupLength;
    const char* const allowed = isSeparator ? ":-." : "0123456789ABCDEFabcdef";
    if (std::string_view(allowed).find(text[i]) == std::string_view::npos) return std::nullopt;
    if (isSeparator && text[i] != text[groupLength]) return std::nullopt;
    if (!isSeparator) digits += text[i];
  }
  return digits;
}

std::string FormatAddress(uint32_t address) {
  std::string text;
  for (int shift = 24; shift >= 0; shift -= 8) {
    text += std::to_string((address >> shift) & 0xFF);
    if (shift > 0) text += '.';
  }
  return text;
}

/// The value of an option; throws `Failure` (kUsage) that names it when it has none.
template <typename Value>
Value Require(const std::optional<Value>& value, const std::string& text, const char* what) {
  if (value) return *value;
  throw Failure(ExitStatus::kUsage, "'" + text + "' is no " + what);
}

/// `Values` of the reply, one on a line.
std::string FormatNames(const char* action, const ActionReply& reply) {
  std::string text;
  const int count = reply.container.CountValues("Values");
  for (int i = 0; i < count; ++i) {
    ZelString name;
    if (!reply.container.GetString("Values", &name, static_cast<uint32_t>(i))) {
      throw UnknownAnswer(action, reply);
    }
    text += EscapeForTerminal(name.Utf8()) + "\n";
  }
  return text;
}

Result ListNames(const char* action, const ActionReply& reply, const std::string& failureText,
                 const char* emptyRemark) {
  if (reply.code == kFailureCode) throw Explained(action, reply, failureText);
  RequireSuccess(action, reply);
  Result result{FormatNames(action, reply), reply.body, ""};
  if (result.text.empty()) result.remark = emptyRemark;
  return result;
}

ZelContainer ShareParameters(const ShareCheckOptions& options) {
  std::string path = options.path;
  std::replace(path.begin(), path.end(), '/', '\\');
  ZelContainer parameters = TextParameter("SmbPathShare", path);
  parameters.SetString("SmbUser", ZelString(std::string_view(options.user)), kNoIndex);
  parameters.SetString("SmbPassword", ZelString(std::string_view(options.password)), kNoIndex);
  return parameters;
}

/// Whether the reply says how far the check came. What fails inside the agent ends with code 1 too,
/// but leaves no results.
bool TellsStep(const ActionReply& reply) {
  if (reply.code == kFailureCode) return reply.container.CountKeys() > 0;
  return reply.code == kSuccess || reply.code == kSmbStepFailed;
}

/// What is said of the step at which the check of a share ended.
std::string ShareFailureText(const std::string& host, const std::string& share,
                             const std::string& user, uint32_t step) {
  switch (step) {
    case kNotConnected:
      return host + " offers no usable file service on port 139";
    case kNotLoggedIn:
      return "logging in to " + host + (user.empty() ? " anonymously" : " as " + user) + " failed";
    case kNotOpened:
      return "opening " + share + " on " + host + " failed";
    case kNoAddress:
      return "no IPv4 address of " + host + " was found";
    default:
      return {};
  }
}

}  // namespace

std::optional<std::string> ParseMac(std::string_view text) {
  for (const size_t groupLength : {kMacDigits, size_t{4}, size_t{2}}) {
    const std::optional<std::string> digits = ParseGroups(text, groupLength);
    if (digits) return digits;
  }
  return std::nullopt;
}

std::optional<uint32_t> ParseMask(std::string_view text) {
  if (text.starts_with('/')) {
    const std::optional<uint32_t> length = ParseMaskLength(text.substr(1));
    if (!length) return std::nullopt;
    return *length == 0 ? 0 : ~0U << (kAddressBits - *length);
  }
  const std::optional<uint32_t> mask = ParseIpv4(text);
  if (!mask || std::countl_one(*mask) != std::popcount(*mask)) return std::nullopt;
  return mask;
}

Result PingHost(AgentClient& agent, const std::string& host) {
  const ActionReply reply = Invoke(agent, kPingIcmp, TextParameter("PingAddr", host));
  RequireSuccess(kPingIcmp, reply);
  bool isAnswered = false;
  if (!reply.container.GetBool("Result", &isAnswered, kNoIndex)) {
    throw UnknownAnswer(kPingIcmp, reply);
  }
  if (!isAnswered) return {"", reply.body, host + " does not answer; the agent's log says why"};
  return {EscapeForTerminal(host) + " answers.\n", reply.body, ""};
}

Result CheckShare(AgentClient& agent, const ShareCheckOptions& options) {
  const ActionReply reply = Invoke(agent, kCheckSmbShare, ShareParameters(options));
  if (reply.code == kBadParameter) {
    throw Explained(kCheckSmbShare, reply, options.path + R"( has not the form \\host\share)");
  }
  if (!TellsStep(reply)) throw ActionFailure(kCheckSmbShare, reply);

  const std::string host = RequireText(kCheckSmbShare, reply, "TargetHost");
  const std::string share = RequireText(kCheckSmbShare, reply, "TargetShare");
  const uint32_t step = RequireUnsigned(kCheckSmbShare, reply, "ConnectionResult");
  if (step == kOpened && reply.code == kSuccess) {
    return {"The share " + EscapeForTerminal(share) + " of " + EscapeForTerminal(host) +
                " can be opened.\n",
            reply.body, ""};
  }
  const std::string words = ShareFailureText(host, share, options.user, step);
  if (words.empty() || reply.code == kSuccess) throw UnknownAnswer(kCheckSmbShare, reply);
  throw Explained(kCheckSmbShare, reply, words + "; the agent's log says why");
}

Result CheckUrl(AgentClient& agent, const std::string& url) {
  const ActionReply reply = Invoke(agent, kCheckHttpConnection, TextParameter("HTTPCheckURL", url));
  RequireSuccess(kCheckHttpConnection, reply);
  switch (RequireUnsigned(kCheckHttpConnection, reply, "HTTPCheckUrlResult")) {
    case kFetched:
      return {"The URL can be fetched.\n", reply.body, ""};
    case kNotFetched:
      return {"", reply.body, "the URL cannot be fetched; the agent's log says why"};
    default:
      throw UnknownAnswer(kCheckHttpConnection, reply);
  }
}

Result WakeComputer(AgentClient& agent, const WakeOptions& options) {
  const std::string mac =
      Require(ParseMac(options.mac), options.mac, "MAC address: 12 hexadecimal digits");
  const uint32_t address =
      Require(ParseIpv4(options.address), options.address, "IPv4 address such as 192.168.1.20");
  const uint32_t mask =
      Require(ParseMask(options.mask), options.mask, "network mask such as 255.255.255.0 or /24");

  ZelContainer parameters = TextParameter("MacAddress", mac);
  parameters.SetInt32("IpAddress", static_cast<int32_t>(address), kNoIndex);
  parameters.SetInt32("NetworkMask", static_cast<int32_t>(mask), kNoIndex);
  const ActionReply reply = Invoke(agent, kWakeUp, parameters);
  RequireSuccess(kWakeUp, reply);
  return {"The packet for " + FormatAddress((address & mask) | ~mask) +
              " was handed over; if it could not be sent, the agent's log\n"
              "says so. Nothing tells whether the computer wakes up.\n",
          reply.body, ""};
}

Result ListDomains(AgentClient& agent) {
  return ListNames(kListDomains, Invoke(agent, kListDomains, ZelContainer()),
                   "no browser of the network answered; the agent's log says why",
                   "the network's browsers know no domains");
}

Result ListServers(AgentClient& agent, const std::string& domain) {
  const ZelContainer parameters =
      domain.empty() ? ZelContainer() : TextParameter("DomainName", domain);
  const std::string unknown = domain.empty() ? "" : ", or none knows the domain " + domain;
  return ListNames(kListServers, Invoke(agent, kListServers, parameters),
                   "no browser of the network answered" + unknown + "; the agent's log says why",
                   "the network's browsers know no computers there");
}
