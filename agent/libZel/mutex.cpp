#include "libZel/mutex.h"

void ZelMutex::Lock() {
  mutex_.lock();
}

void ZelMutex::Unlock() {
  mutex_.unlock();
}
