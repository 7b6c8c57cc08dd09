#include "agent/libZelCore/core_log.h"

#include "agent/libZel/native_path.h"

ZelDebug& CoreLog() {
  static ZelDebug log("libZelCore", "Agent core");
  return log;
}

std::string FileText(const std::filesystem::path& file) {
  return std::string(FromNativePath(file).Utf8());
}
