#include "libZel/regex.h"

bool MatchRegex(const ZelString&, const ZelString&, int) {
  return false;
}
int PcreReplace(ZelString*, const ZelString&, const ZelString&, int) {
  return 0;
}
int FindPcre(const ZelString&, const ZelString&, ZelVector<ZelString>&, int, int, int) {
  return 0;
}
