// What zelctl shows of an agent's reply: nothing of it acts on the terminal, whatever the agent, or
// the person whose text it is, put into it. The input is the reply's container in JSON, or a list
// of parameters, one a line.

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agent/libZelCore/json_codec.h"
#include "agent/zelctl/agent_client.h"
#include "agent/zelctl/commands.h"
#include "agent/zelctl/failure.h"
#include "agent/zelctl/listing_output.h"
#include "agent/zelctl/name_match.h"
#include "agent/zelctl/process_output.h"
#include "agent/zelctl/task_output.h"
#include "agent/zelctl/text_output.h"
#include "libZel/string.h"
#include "tests/fuzz/require.h"

namespace {

// Lines of UTF-8 in which nothing is left to escape.
void RequireHarmless(const std::string& text) {
  Require(ZelString::IsTextUTF8(text.data(), static_cast<uint32_t>(text.size())));
  Require(EscapeForTerminal(text, true) == text);
}

void ShowProcesses(const ZelContainer& reply) {
  std::vector<ProcessRow> rows = ReadProcessRows(reply);
  const size_t count = rows.size();
  for (const char* order : {"cpu", "memory", "time", "name", "owner", "id"})
    SortProcesses(order, count % 2 == 0, &rows);
  rows = ArrangeAsTree(std::move(rows));
  Require(rows.size() == count);
  for (const ProcessRow& row : rows) Require(row.depth < count);
  const std::string table = FormatProcesses(rows, true);
  RequireHarmless(table);
  const auto lines = std::count(table.begin(), table.end(), '\n');
  Require(static_cast<size_t>(lines) == (count == 0 ? 0 : count + 1));
}

void ShowListing(const ZelContainer& reply) {
  const std::vector<ListingRow> rows = ReadListingRows(reply);
  for (const std::string& text : {FormatListing(rows), FormatNames(rows)}) {
    RequireHarmless(text);
    Require(static_cast<size_t>(std::count(text.begin(), text.end(), '\n')) == rows.size());
  }
}

void ShowTasks(const ZelContainer& reply) {
  const std::vector<TaskRow> rows = ReadTaskRows(reply);
  const std::string table = FormatTasks(rows);
  RequireHarmless(table);
  const size_t lines = rows.empty() ? 0 : rows.size() + 1;
  Require(static_cast<size_t>(std::count(table.begin(), table.end(), '\n')) == lines);
  RequireHarmless(FormatTasksInFull(rows));
}

void ShowActions(const std::string& body) {
  try {
    std::vector<std::string> names;
    for (const ActionDescription& action : ParseActionList(body)) names.push_back(action.name);
    const std::string nearest = NearestName("CoreUtilsCopyFile", names);
    Require(nearest.empty() || std::find(names.begin(), names.end(), nearest) != names.end());
  } catch (const Failure& failure) {
    Require(failure.Status() == ExitStatus::kAgentRefused && failure.what()[0] != '\0');
  }
}

// What the parameters of a call become is one object with a value for each of them.
void CheckParameters(std::string_view input) {
  std::vector<std::string> arguments;
  while (!input.empty()) {
    const size_t end = std::min(input.find('\n'), input.size());
    arguments.emplace_back(input.substr(0, end));
    input.remove_prefix(std::min(end + 1, input.size()));
  }
  try {
    const JsonDecodeResult decoded = DecodeContainer(ParametersToJson(arguments));
    Require(decoded.error.empty() && decoded.container.CountKeys() <= arguments.size());
  } catch (const Failure& failure) {
    Require(failure.Status() == ExitStatus::kUsage && failure.what()[0] != '\0');
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(reinterpret_cast<const char*>(data), size);
  const std::string escaped = EscapeForTerminal(input);
  RequireHarmless(escaped);
  Require(escaped.find_first_of("\n\t\x1B") == std::string::npos);

  const ZelContainer reply = DecodeContainer(input).container;
  RequireHarmless(FormatContainer(reply));
  ShowListing(reply);
  ShowProcesses(reply);
  ShowTasks(reply);
  ShowActions(input);
  CheckParameters(input);
  return 0;
}
