#include <array>

#include "libZelMarlin.h"

namespace {

struct ErrorEntry {
  MarlinError code;
  const char* name;
  const char* text;
};

constexpr std::array kErrors{
    ErrorEntry{kMarlinOk, "MARLIN_OK", "There is no error"},
    ErrorEntry{kMarlinNotReadable, "MARLIN_ERROR_NOT_READABLE",
               "The script cannot be read or is too large"},
    ErrorEntry{kMarlinNotText, "MARLIN_ERROR_NOT_TEXT",
               "The script is compiled code or in an encoding that is not supported"},
    ErrorEntry{kMarlinSyntax, "MARLIN_ERROR_SYNTAX", "The script is not well-formed"},
    ErrorEntry{kMarlinNoProcedure, "MARLIN_ERROR_NO_PROCEDURE",
               "The script has no procedure of that name"},
    ErrorEntry{kMarlinRuntime, "MARLIN_ERROR_RUNTIME", "An error was raised by the script"},
    ErrorEntry{kMarlinMemory, "MARLIN_ERROR_MEMORY",
               "The script needs more memory than it may have"},
    ErrorEntry{kMarlinInstructions, "MARLIN_ERROR_INSTRUCTIONS",
               "The script has run for more instructions than it may"},
    ErrorEntry{kMarlinDepth, "MARLIN_ERROR_DEPTH", "Scripts run by scripts are nested too deep"},
    ErrorEntry{kMarlinExit, "MARLIN_ERROR_EXIT", "The script has ended itself with a failure"},
    ErrorEntry{kMarlinInternal, "MARLIN_ERROR_INTERNAL", "The script engine has failed"},
    ErrorEntry{kMarlinInterrupted, "MARLIN_ERROR_INTERRUPTED",
               "The script was ended because the agent stops"},
};
constexpr ErrorEntry kUnknown{kMarlinInternal, "MARLIN_ERROR_UNKNOWN",
                              "The script engine knows no such error"};

const ErrorEntry& Find(int code) {
  for (const ErrorEntry& entry : kErrors) {
    if (entry.code == code) return entry;
  }
  return kUnknown;
}

}  // namespace

ZelString ErrorList::GetErrorText(int code) const {
  return Find(code).text;
}

ZelString ErrorList::GetErrorName(int code) const {
  return Find(code).name;
}
