// pipe_talk PIPE: carries messages from its standard input to a proxy's pipe, and the reply to each
// to its standard output. A message is its length in four bytes, the highest first, and its bytes.

#include <windows.h>

#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

bool ReadAll(HANDLE from, unsigned char* place, size_t size) {
  while (size > 0) {
    DWORD got = 0;
    if (!ReadFile(from, place, static_cast<DWORD>(size), &got, nullptr) || got == 0) return false;
    place += got;
    size -= got;
  }
  return true;
}

bool Carry(HANDLE from, HANDLE to) {
  Bytes message(4);
  if (!ReadAll(from, message.data(), 4)) return false;
  size_t size = 0;
  for (const unsigned char byte : message) size = size << 8 | byte;
  message.resize(4 + size);
  if (!ReadAll(from, message.data() + 4, size)) return false;
  DWORD written = 0;
  return WriteFile(to, message.data(), static_cast<DWORD>(message.size()), &written, nullptr) &&
         written == message.size();
}

}  // namespace

int wmain(int count, wchar_t** values) {
  if (count != 2) return 2;
  const HANDLE pipe =
      CreateFileW(values[1], GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
  if (pipe == INVALID_HANDLE_VALUE) return 1;
  const HANDLE in = GetStdHandle(STD_INPUT_HANDLE);
  const HANDLE out = GetStdHandle(STD_OUTPUT_HANDLE);
  while (Carry(in, pipe) && Carry(pipe, out)) {
  }
  return 0;
}
