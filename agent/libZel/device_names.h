#pragma once

#include <string>
#include <string_view>

#include "agent/libZel/ascii.h"

/// Whether a file of this name would be one of Windows' devices instead. A device stays one with
/// any extension, and with blanks before that.
inline bool IsDeviceName(std::string_view name) {
  std::string stem = AsciiUpper(name.substr(0, name.find('.')));
  while (stem.ends_with(' ')) stem.pop_back();
  for (const std::string_view device :
       {"CON", "PRN", "AUX", "NUL", "CONIN$", "CONOUT$", "CLOCK$"}) {
    if (stem == device) return true;
  }
  if (!stem.starts_with("COM") && !stem.starts_with("LPT")) return false;
  const std::string_view port = std::string_view(stem).substr(3);
  const bool isDigit = port.size() == 1 && IsAsciiDigit(port[0]);
  // Superscript one, two and three count as digits of a device's name.
  return isDigit || port == "\u00B9" || port == "\u00B2" || port == "\u00B3";
}
