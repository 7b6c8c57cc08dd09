#include "agent/libZelCore/core_log.h"

ZelDebug& CoreLog() {
  static ZelDebug log("libZelCore", "Agent core");
  return log;
}
