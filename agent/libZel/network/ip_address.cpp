#include "libZel/ip_address.h"

bool IpAddress::SetTo(const ZelString&) {
  return false;
}
bool IpAddress::SetToHostName(const ZelString&) {
  return false;
}
