#pragma once

#include <string>
#include <system_error>

/// What the system says of one of its errors: of `errno`, on Windows of `GetLastError`.
template <typename Error>
std::string SystemErrorText(Error error) {
  return std::system_category().message(static_cast<int>(error));
}
