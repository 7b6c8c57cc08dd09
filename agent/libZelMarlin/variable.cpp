#include "libZelMarlin.h"

VarHandle::VarHandle(const ZelString& typeName, const ZelString& varName, int /*flags*/)
    : Variable(varName), typeName_(typeName) {}

int32_t VarHandle::GetIntegerValue() const {
  return integer_;
}
