#include "agent/zelctl/list_command.h"

#include <algorithm>
#include <array>
#include <limits>
#include <vector>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/listing_output.h"
#include "agent/zelctl/result_code.h"
#include "libZel/string.h"

namespace {

/// A page holds what is still wanted and some more for hidden entries, within these bounds: each
/// page costs the agent a look at the whole directory, and a reply must not grow without end.
constexpr int64_t kSpareRows = 64;
constexpr int64_t kLargestPage = 50'000;

struct Order {
  const char* name;
  const char* attribute;
  bool isAscending;
};

constexpr std::array<Order, 4> kOrders = {{
    {"name", "_COLNAME_NAME_", true},
    {"size", "_COLNAME_SIZE_", false},
    {"mode", "_COLNAME_ACCESS_", true},
    {"modified", "_COLNAME_MODIFIED_", false},
}};

struct Listing {
  std::vector<ListingRow> rows;
  int64_t total = 0;  ///< of the directory, hidden entries included
  std::string body;   ///< of the last reply
};

const Order& FindOrder(const std::string& name) {
  const auto found = std::find_if(kOrders.begin(), kOrders.end(),
                                  [&name](const Order& order) { return order.name == name; });
  if (found != kOrders.end()) return *found;
  throw Failure(ExitStatus::kUsage, "there is no order by '" + name + "'");
}

ZelContainer CommonParameters(const ListOptions& options) {
  const Order& order = FindOrder(options.order);
  // Without its details a directory has no other order.
  if (options.onlyNames && options.order != "name") {
    throw Failure(ExitStatus::kUsage, "--names knows no other order than by name");
  }
  ZelContainer parameters = TextParameter("Path", options.path);
  parameters.SetString("SortAttr", order.attribute, kNoIndex);
  parameters.SetString("SortOrder", order.isAscending != options.isReversed ? "Asc" : "Desc",
                       kNoIndex);
  if (options.onlyNames) parameters.SetBool("Parameters", false, kNoIndex);
  return parameters;
}

ActionReply RequestRows(AgentClient& agent, const ListOptions& options, ZelContainer parameters,
                        int64_t offset, int64_t count) {
  if (offset > 0) parameters.SetInt32("Offset", static_cast<int32_t>(offset), kNoIndex);
  if (count > 0) parameters.SetInt32("Count", static_cast<int32_t>(count), kNoIndex);
  ActionReply reply = Invoke(agent, kGetDirList, parameters);
  RequireListing(options.path, reply);
  return reply;
}

/// Fetches pages until `options.offset` and `options.limit` are satisfied.
Listing FetchRows(AgentClient& agent, const ListOptions& options, const ZelContainer& parameters) {
  const int64_t wanted = options.limit == 0 ? std::numeric_limits<int64_t>::max()
                                            : int64_t{options.offset} + options.limit;
  Listing listing;
  int64_t visible = 0;
  int64_t smallestPage = kSpareRows;
  for (int64_t offset = 0; visible < wanted;) {
    const int64_t missing = std::min(wanted - visible, kLargestPage);
    const int64_t count = std::clamp(missing + kSpareRows, smallestPage, kLargestPage);
    const ActionReply reply = RequestRows(agent, options, parameters, offset, count);
    listing.body = reply.body;
    listing.total = RequireUnsigned(kGetDirList, reply, "Total");

    for (const ListingRow& row : ReadListingRows(reply.container)) {
      if (row.isHidden && !options.withHidden) continue;
      if (visible >= options.offset && visible < wanted) listing.rows.push_back(row);
      ++visible;
    }
    offset += count;
    if (offset >= std::min<int64_t>(listing.total, std::numeric_limits<int32_t>::max())) break;
    // A directory of little but hidden entries takes few requests all the same.
    smallestPage = std::min(count * 2, kLargestPage);
  }
  return listing;
}

}  // namespace

Result ListDirectory(AgentClient& agent, const ListOptions& options) {
  const ZelContainer parameters = CommonParameters(options);
  if (options.onlyReply) {
    return {"", RequestRows(agent, options, parameters, options.offset, options.limit).body, ""};
  }
  const Listing listing = FetchRows(agent, options, parameters);
  std::string text = options.onlyNames ? FormatNames(listing.rows) : FormatListing(listing.rows);
  if (options.limit > 0) {
    text += std::to_string(listing.rows.size()) + " of " + std::to_string(listing.total) +
            " entries" + (options.withHidden ? "" : " (hidden ones counted)") + "\n";
  }
  return {text, listing.body, ""};
}
