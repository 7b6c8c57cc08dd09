#include <exception>
#include <string>

#include "libZelCore.h"
#include "module/module.h"
#include "module/registry.h"
#include "module/startup_scripts.h"

namespace {

constexpr uint32_t kDone = 1;
constexpr uint32_t kUnknownCommand = 5;

constexpr const char* kName = "ZelCoreUtils";
constexpr const char* kDescription =
    "CoreUtils module for common functions like FileCopy (CoreUtilsModule)";

constexpr uint32_t kVersionMajor = 11;
constexpr uint32_t kVersionMinor = 5;
constexpr const char* kBuildNumber = "0";
constexpr const char* kBuildTag = "121004r";
constexpr const char* kBuildDate = "Oct  4 2012";
constexpr const char* kBuildTime = "17:35:35";

// What all actions share and outlives a call stands here, in one translation unit, so that the
// order of construction and destruction is the order of these lines.
ZelDebug moduleLogger(kName, kDescription);
ZelString moduleDataDirectory;
ZelString moduleIniPath;

ZelString ConfigDirectory() {
  ZelString directory;
  ZelAgentGetConfigDir(directory);
  return directory;
}

void CopyWithTerminator(const ZelString& text, TCHAR* buffer) {
  const TCHAR* wide = text.GetTCHAR();
  const size_t length = std::char_traits<TCHAR>::length(wide);
  std::char_traits<TCHAR>::copy(buffer, wide, length + 1);
}

void Register(void* registrationContext) {
  moduleLogger.SetContext(ZelAgentGetDebugContext());
  moduleLogger.TraceWithNL("Module Register starting");

  RegisterActions(registrationContext);
}

void Unregister(uint16_t /*argument*/) {
  moduleLogger.TraceWithNL("Module Unregister starting");
}

void Initialise() {
  moduleLogger.TraceWithNL("Module Initialise starting");

  // Both directories end in a separator already.
  ZelAgentGetDataDir(moduleDataDirectory);
  moduleDataDirectory += kName;
  PathCreate(moduleDataDirectory);

  moduleIniPath = ConfigDirectory() + kName + ".ini";
  moduleLogger.PrintWithNL("Module config file is %S", moduleIniPath);

  // Programs and scripts started later find the agent's own programs through this variable.
  const ZelString binDirectory = CompletePath(ConfigDirectory() + "../bin");
  SetEnvVariable(ZelString("QOVA_AGENT").GetTCHAR(), binDirectory.GetTCHAR());
}

void Activate() {
  moduleLogger.TraceWithNL("Module Activate starting");

  RunStartupScripts();
}

void Cleanup(uint16_t /*argument*/) {
  moduleLogger.TraceWithNL("Module Cleanup starting");
}

void DoNothing() {}

void CopyVersion(TCHAR* buffer) {
  ZelString version;
  version.Printf("%u.%u.%s.%s - %s - %s", kVersionMajor, kVersionMinor, kBuildNumber, kBuildTag,
                 kBuildDate, kBuildTime);
  CopyWithTerminator(version, buffer);
}

uint32_t RunCommand(uint32_t command, uint32_t argument, TCHAR* buffer) {
  switch (command) {
    case 1:
      Register(buffer);
      return kDone;
    case 2:
      Unregister(static_cast<uint16_t>(argument));
      return kDone;
    case 3:
      Initialise();
      return kDone;
    case 4:
      Activate();
      return kDone;
    case 5:
      Cleanup(static_cast<uint16_t>(argument));
      return kDone;
    case 6:
      CopyWithTerminator(kDescription, buffer);
      return kDone;
    case 7:
      CopyVersion(buffer);
      return kDone;
    case 8:
      return kDone;
    case 9:
      DoNothing();
      return kDone;
    default:
      return kUnknownCommand;
  }
}

}  // namespace

ZelDebug& Logger() {
  return moduleLogger;
}

const ZelString& ModuleDataDirectory() {
  return moduleDataDirectory;
}

const ZelString& ModuleIniPath() {
  return moduleIniPath;
}

void LogCurrentException(std::string_view what) noexcept {
  try {
    try {
      throw;
    } catch (const std::exception& error) {
      moduleLogger.ErrorWithNL("%S failed: %s", ZelString(what), error.what());
    } catch (...) {
      moduleLogger.ErrorWithNL("%S failed", ZelString(what));
    }
  } catch (...) {
    // The log itself failed (no memory, say): there is nowhere left to tell it.
  }
}

extern "C" uint32_t ModuleMain(uint32_t command, uint32_t argument, TCHAR* buffer) {
  try {
    return RunCommand(command, argument, buffer);
  } catch (...) {
    // Only known commands do anything that can fail, and those always answer that they are done.
    LogCurrentException("Module command");
    return kDone;
  }
}
