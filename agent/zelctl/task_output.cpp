#include "agent/zelctl/task_output.h"

#include <cstddef>
#include <string_view>
#include <utility>

#include "agent/zelctl/agent_actions.h"
#include "agent/zelctl/text_output.h"
#include "libZel/string.h"

namespace {

/// Characters of a text in the middle of the table: one long text must not push the others away.
constexpr size_t kLongestCell = 24;
constexpr size_t kLabelWidth = 11;

int64_t TimeOf(const ZelContainer& row, const char* key) {
  int64_t timeMs = 0;
  row.GetInt64(key, &timeMs, kNoIndex);
  return timeMs;
}

std::vector<TaskNoteRow> ReadNotes(const ZelContainer& task) {
  std::vector<TaskNoteRow> notes;
  ZelContainer note;
  for (uint32_t i = 0; task.GetContainer("_DB_ATTR_NOTES_", &note, i); ++i) {
    notes.push_back({TextOf(note, "Author"), TimeOf(note, "CreatedTime"), TextOf(note, "Text")});
  }
  return notes;
}

TaskRow ReadTaskRow(const ZelContainer& container) {
  TaskRow row;
  container.GetInt32("ObjectId", &row.id, kNoIndex);
  row.name = TextOf(container, "_DB_ATTR_NAME_");
  row.description = TextOf(container, "_DB_ATTR_DESCRIPTION_");
  row.status = TextOf(container, "_DB_ATTR_STATUS_");
  row.priority = TextOf(container, "_DB_ATTR_PRIORITY_");
  row.requester = TextOf(container, "_DB_ATTR_REQUESTEDBY_");
  row.language = TextOf(container, "Language");
  row.userEmail = TextOf(container, "UserEmail");
  row.userDomain = TextOf(container, "UserDomain");
  row.userLogin = TextOf(container, "UserLogin");
  row.agent = TextOf(container, "Agent");
  row.consoleUser = TextOf(container, "ConsoleUser");
  row.createdMs = TimeOf(container, "CreatedTime");
  row.changedMs = TimeOf(container, "ChangedTime");
  row.closedMs = TimeOf(container, "ClosedTime");
  row.notes = ReadNotes(container);
  return row;
}

bool StartsCharacter(char byte) {
  return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

std::string Shortened(const std::string& text) {
  size_t characters = 0;
  size_t end = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    if (!StartsCharacter(text[at])) continue;
    if (characters + 1 == kLongestCell) end = at;
    if (++characters > kLongestCell) return text.substr(0, end) + "…";
  }
  return text;
}

std::string FormatTime(int64_t timeMs) {
  return FormatLocalTime(timeMs / kMsPerSecond);
}

/// A person's lines, below what zelctl says: indented, whatever they look like.
std::string Block(std::string_view text, size_t indent) {
  std::string lines;
  while (!text.empty()) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    if (line.ends_with('\r')) line.remove_suffix(1);
    if (!line.empty()) lines.append(indent, ' ').append(EscapeForTerminal(line, true));
    lines += '\n';
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
  }
  return lines;
}

void AppendField(const char* label, const std::string& value, std::string* text) {
  if (value.empty()) return;
  const std::string start = std::string(label) + ":";
  text->append("  ").append(start).append(kLabelWidth - start.size(), ' ');
  text->append(EscapeForTerminal(value)).append("\n");
}

/// "DOMAIN\LOGIN", or what there is of both.
std::string AccountOf(const TaskRow& row) {
  return row.userDomain.empty() ? row.userLogin : row.userDomain + "\\" + row.userLogin;
}

std::string OriginOf(const TaskRow& row) {
  return row.consoleUser.empty() ? row.agent : row.consoleUser + " at " + row.agent;
}

std::string FormatInFull(const TaskRow& row) {
  std::string text = std::to_string(row.id) + "  " + EscapeForTerminal(row.name) + "\n";
  AppendField("status", row.status, &text);
  AppendField("priority", row.priority, &text);
  AppendField("requester", row.requester, &text);
  AppendField("opened at", OriginOf(row), &text);
  AppendField("user", AccountOf(row), &text);
  AppendField("e-mail", row.userEmail, &text);
  AppendField("language", row.language, &text);
  AppendField("created", FormatTime(row.createdMs), &text);
  AppendField("changed", FormatTime(row.changedMs), &text);
  if (row.closedMs != 0) AppendField("closed", FormatTime(row.closedMs), &text);
  if (!row.description.empty()) text += "\n" + Block(row.description, 4);
  for (const TaskNoteRow& note : row.notes) {
    text += "\n  " + FormatTime(note.createdMs) + "  " + EscapeForTerminal(note.author) + "\n" +
            Block(note.text, 4);
  }
  return text;
}

}  // namespace

std::vector<TaskRow> ReadTaskRows(const ZelContainer& listing) {
  std::vector<TaskRow> rows;
  ZelContainer row;
  for (uint32_t i = 0; listing.GetContainer("Values", &row, i); ++i)
    rows.push_back(ReadTaskRow(row));
  return rows;
}

std::string FormatTasks(const std::vector<TaskRow>& rows) {
  if (rows.empty()) return {};
  std::vector<std::vector<std::string>> cells;
  for (const TaskRow& row : rows) {
    cells.push_back({std::to_string(row.id), row.status, Shortened(row.priority),
                     FormatTime(row.createdMs), Shortened(row.requester), row.name});
  }
  return FormatTable({"ID", "STATUS", "PRIORITY", "CREATED", "REQUESTER", "NAME"}, cells);
}

std::string FormatTasksInFull(const std::vector<TaskRow>& rows) {
  std::string text;
  for (const TaskRow& row : rows) text += (text.empty() ? "" : "\n") + FormatInFull(row);
  return text;
}
