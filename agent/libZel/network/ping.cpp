#include "libZel/ping.h"

bool PingICMP(ZelString) {
  return false;
}
