#include "libZelMarlin.h"

ZelString ErrorList::GetErrorText(int) const {
  return "";
}

ZelString ErrorList::GetErrorName(int) const {
  return "";
}
