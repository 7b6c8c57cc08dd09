// host/libZel: the loggers.

#include <string>
#include <utility>
#include <vector>

#include "tests/fake_host/ask.h"
#include "tests/fake_host/transcript.h"

namespace {

// Loggers are constructed before main, so the list must be there as soon as it is asked for.
std::vector<std::pair<std::string, std::string>>& ConstructedLoggers() {
  static std::vector<std::pair<std::string, std::string>> loggers;
  return loggers;
}

const char* LevelName(ZelDebugLevel level) {
  switch (level) {
    case ZelDebugLevel::kError:
      return "Error";
    case ZelDebugLevel::kWarning:
      return "Warning";
    case ZelDebugLevel::kPrint:
      return "Print";
    case ZelDebugLevel::kTrace:
      return "Trace";
    case ZelDebugLevel::kDetail:
      return "Detail";
  }
  return "unknown level";
}

}  // namespace

const std::vector<std::pair<std::string, std::string>>& FakeHost::Loggers() {
  return ConstructedLoggers();
}

ZelDebug::ZelDebug(const ZelString& name, const ZelString& description)
    : name_(name), description_(description) {
  ConstructedLoggers().emplace_back(name.Utf8(), description.Utf8());
}

void ZelDebug::SetContext(ZelDebugContext* context) {
  context_ = context;
  Host().Note("ZelDebug::SetContext(" + Pointer(context) + ")");
}

bool ZelDebug::IsEnabled(ZelDebugLevel) const {
  return true;
}

void ZelDebug::Write(ZelDebugLevel level, const ZelString& text) {
  Host().Note(std::string(LevelName(level)) + " " + Quote(text));
}

void ZelDebug::WriteAudit(const ZelString& user, const ZelString& address, const ZelString& text) {
  Host().Note("Audit " + List(Quote(user), Quote(address), Quote(text)));
}
