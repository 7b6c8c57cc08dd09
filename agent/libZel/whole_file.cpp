#include "libZel/text.h"

bool LoadFileToString(const ZelString&, ZelString*) {
  return false;
}
bool SaveFileFromString(const ZelString&, const ZelString&) {
  return false;
}
