#include "libZel/curl_get.h"

int CurlAdvancedGet(ZelString, ZelString, ZelString, ZelString, ZelString, ZelString, long long,
                    long, long long&, bool, CurlProgress, void*) {
  return 0;
}
