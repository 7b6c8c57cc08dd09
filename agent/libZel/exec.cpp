#include "libZel/exec.h"

int ExecRedirect(const ZelString&, bool&, XmlProxyClient*, const ZelString&, const ZelString&,
                 const ZelString&, unsigned long, bool, bool, void*, bool, int*) {
  return 0;
}
