#include "agent/libZelCore/parameter_types.h"

#include <limits>

#include "agent/libZel/blanks.h"
#include "agent/libZelCore/known_actions.h"

namespace {

std::string_view TypeName(const ZelContainer::Entry& entry) {
  switch (entry.Type()) {
    case ZelValueType::kString:
      return "string";
    case ZelValueType::kInt32:
    case ZelValueType::kInt64:
      return "int";
    case ZelValueType::kBool:
      return "boolean";
    case ZelValueType::kContainer:
      return "container";
  }
  return "unknown";
}

/// Whether the value fits into 32 bits, signed or unsigned: actions read either.
bool FitsInt(int64_t value) {
  return value >= std::numeric_limits<int32_t>::min() &&
         value <= std::numeric_limits<uint32_t>::max();
}

/// The declared type of `key`, or empty.
std::string_view DeclaredType(std::string_view list, std::string_view key) {
  while (!list.empty()) {
    const size_t comma = list.find(',');
    const std::string_view item = TrimBlanks(list.substr(0, comma));
    const size_t blank = item.find(' ');
    if (blank != std::string_view::npos && TrimBlanks(item.substr(blank)) == key) {
      return item.substr(0, blank);
    }
    list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
  }
  return {};
}

bool IsKnownType(std::string_view type) {
  return type == "string" || type == "int" || type == "boolean" || type == "container";
}

std::string Describe(const ZelContainer::Entry& entry, std::string_view declared) {
  std::string given = entry.IsList() ? "a list of " : "";
  given += TypeName(entry);
  if (!entry.IsList() && given == declared) given = "an integer beyond 32 bits";
  return "the parameter \"" + std::string(entry.Key()) + "\" must be " + std::string(declared) +
         ", not " + given;
}

}  // namespace

std::string FindWrongType(std::string_view signature, const ZelContainer& parameters) {
  const size_t open = signature.find('(');
  const size_t close = signature.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return {};
  const std::string_view list = signature.substr(open + 1, close - open - 1);
  if (TrimBlanks(list).empty()) return {};

  const std::string_view action = TrimBlanks(signature.substr(0, open));
  for (size_t i = 0; i < parameters.CountKeys(); ++i) {
    const ZelContainer::Entry entry = parameters.EntryAt(i);
    if (IsTextParameter(action, entry.Key())) {
      if (entry.Type() != ZelValueType::kString) return Describe(entry, "string");
      continue;
    }
    const std::string_view declared = DeclaredType(list, entry.Key());
    if (!IsKnownType(declared)) continue;
    const bool isRight = !entry.IsList() && TypeName(entry) == declared &&
                         (declared != "int" || FitsInt(entry.IntegerAt(0)));
    if (!isRight) return Describe(entry, declared);
  }
  return {};
}
