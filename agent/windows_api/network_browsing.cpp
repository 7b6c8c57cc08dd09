#include "windows_api.h"

NET_API_STATUS NetServerEnum(const WCHAR*, DWORD, uint8_t**, DWORD, DWORD*, DWORD*, DWORD,
                             const WCHAR*, DWORD*) {
  return 6118;
}

NET_API_STATUS NetApiBufferFree(void*) {
  return 0;
}
