#include "agent/libZel/session_rules.h"

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

#include "agent/libZel/whole_number.h"

namespace {

// The smaller one is the better one.
auto RankOf(const BegunSession& one) {
  const UserSession& session = one.session;
  return std::tuple(!session.isActive, !session.isGraphical, session.isRemote, one.begunAt);
}

std::string PropertyOf(const std::map<std::string, std::string>& properties, const char* name) {
  const auto found = properties.find(name);
  return found == properties.end() ? std::string() : found->second;
}

// "tty1", not "ttyS0" or "ttyUSB0": what hangs on a serial line is no person.
bool IsTerminal(std::string_view line) {
  if (line == "console") return true;
  if (!line.starts_with("tty")) return false;
  line.remove_prefix(3);
  return !line.empty() && line.find_first_not_of("0123456789") == line.npos;
}

bool IsDisplay(std::string_view text) {
  return text.size() > 1 && text[0] == ':' && text[1] >= '0' && text[1] <= '9';
}

}  // namespace

std::vector<UserSession> InOrder(std::vector<BegunSession> sessions) {
  std::ranges::stable_sort(sessions, {}, RankOf);
  std::vector<UserSession> ordered;
  for (BegunSession& one : sessions) ordered.push_back(std::move(one.session));
  return ordered;
}

std::optional<BegunSession> SessionOfLogind(const LogindSession& listed,
                                            const std::map<std::string, std::string>& properties) {
  if (PropertyOf(properties, "Class") != "user" || PropertyOf(properties, "State") == "closing")
    return std::nullopt;
  const std::string type = PropertyOf(properties, "Type");
  const bool isGraphical = type == "x11" || type == "wayland" || type == "mir";
  if (!isGraphical && listed.seat.empty()) return std::nullopt;

  BegunSession made;
  made.session.id = listed.id;
  made.session.userName = listed.userName;
  made.session.userId = listed.userId;
  made.session.isGraphical = isGraphical;
  made.session.isActive = PropertyOf(properties, "Active") == "yes";
  made.session.isLocked = PropertyOf(properties, "LockedHint") == "yes";
  made.session.isRemote = PropertyOf(properties, "Remote") == "yes";
  made.session.display = PropertyOf(properties, "Display");
  const std::string begun = PropertyOf(properties, "Timestamp");
  made.begunAt = ReadWholeNumber<uint64_t>(begun).value_or(0);
  return made;
}

std::optional<BegunSession> SessionOfLogin(const LoginRecord& record,
                                           const std::string& activeTerminal) {
  const bool isDisplay = IsDisplay(record.line);
  if (!isDisplay && !IsTerminal(record.line)) return std::nullopt;
  const bool hasDisplay = isDisplay || IsDisplay(record.host);

  BegunSession made;
  made.session.id = record.line;
  made.session.userName = record.userName;
  made.session.userId = record.userId;
  made.session.isGraphical = hasDisplay;
  made.session.isActive = isDisplay || activeTerminal.empty() || record.line == activeTerminal;
  if (hasDisplay) made.session.display = isDisplay ? record.line : record.host;
  made.begunAt = record.begunAt;
  return made;
}
