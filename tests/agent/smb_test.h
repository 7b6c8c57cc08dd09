#pragma once

#include <stdexcept>
#include <string>

#include "agent/libZel/network/byte_stream.h"
#include "agent/libZel/smb/signing.h"

// What the tests of the client of file servers share.

inline const Deadline kNever = Deadline::max();

/// That of the example in Microsoft's description of the keys of SMB 3.
inline const smb::Key kSessionKey = {0x7C, 0xD4, 0x51, 0x82, 0x5D, 0x04, 0x50, 0xD2,
                                     0x35, 0x42, 0x4E, 0x44, 0xBA, 0x6E, 0x78, 0xCC};
inline const smb::Key kCounted = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};

/// What the operation says when it fails.
template <typename Operation>
std::string FailureOf(Operation operation) {
  try {
    operation();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "none";
}
