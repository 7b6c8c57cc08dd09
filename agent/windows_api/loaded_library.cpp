#include <dlfcn.h>

#include "windows_api.h"

FARPROC GetProcAddress(HMODULE library, const char* name) {
  return reinterpret_cast<FARPROC>(dlsym(library, name));
}
