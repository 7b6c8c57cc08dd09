#pragma once

#include <cstdint>

#include "libZel/string.h"

/// An address of IPv4. Nothing here throws.
class IpAddress {
 public:
  /// Takes an address as four decimal numbers with dots between them ("10.0.0.5"). False, with the
  /// address as it was, for anything else; no name is looked up.
  bool SetTo(const ZelString& text);
  /// Takes the first IPv4 address that the system finds for a host name. Waits up to 10 seconds.
  /// False, with the address as it was, when there is none by then.
  bool SetToHostName(const ZelString& name);
  /// In host byte order: 10.0.0.5 is 0x0A000005. 0 until an address was taken.
  uint32_t GetAsInt32() const { return address_; }

 private:
  uint32_t address_ = 0;
};
