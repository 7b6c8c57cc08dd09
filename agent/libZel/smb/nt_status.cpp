#include "agent/libZel/smb/nt_status.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace smb {

namespace {

struct NamedStatus {
  uint32_t status;
  const char* name;
};

// What servers answer to a negotiation, a log-in or the opening of a share.
constexpr NamedStatus kNames[] = {
    {0xC0000001, "STATUS_UNSUCCESSFUL"},           {0xC0000002, "STATUS_NOT_IMPLEMENTED"},
    {0xC000000D, "STATUS_INVALID_PARAMETER"},      {0xC0000016, "STATUS_MORE_PROCESSING_REQUIRED"},
    {0xC0000022, "STATUS_ACCESS_DENIED"},          {0xC0000034, "STATUS_OBJECT_NAME_NOT_FOUND"},
    {0xC000005E, "STATUS_NO_LOGON_SERVERS"},       {0xC0000064, "STATUS_NO_SUCH_USER"},
    {0xC000006A, "STATUS_WRONG_PASSWORD"},         {0xC000006D, "STATUS_LOGON_FAILURE"},
    {0xC000006E, "STATUS_ACCOUNT_RESTRICTION"},    {0xC000006F, "STATUS_INVALID_LOGON_HOURS"},
    {0xC0000070, "STATUS_INVALID_WORKSTATION"},    {0xC0000071, "STATUS_PASSWORD_EXPIRED"},
    {0xC0000072, "STATUS_ACCOUNT_DISABLED"},       {0xC000009A, "STATUS_INSUFFICIENT_RESOURCES"},
    {0xC00000AC, "STATUS_PIPE_NOT_AVAILABLE"},     {0xC00000BB, "STATUS_NOT_SUPPORTED"},
    {0xC00000BE, "STATUS_BAD_NETWORK_PATH"},       {0xC00000C9, "STATUS_NETWORK_NAME_DELETED"},
    {0xC00000CA, "STATUS_NETWORK_ACCESS_DENIED"},  {0xC00000CB, "STATUS_BAD_DEVICE_TYPE"},
    {0xC00000CC, "STATUS_BAD_NETWORK_NAME"},       {0xC00000D0, "STATUS_REQUEST_NOT_ACCEPTED"},
    {0xC000015B, "STATUS_LOGON_TYPE_NOT_GRANTED"}, {0xC0000193, "STATUS_ACCOUNT_EXPIRED"},
    {0xC0000203, "STATUS_USER_SESSION_DELETED"},   {0xC0000224, "STATUS_PASSWORD_MUST_CHANGE"},
    {0xC0000234, "STATUS_ACCOUNT_LOCKED_OUT"},     {0xC000035C, "STATUS_NETWORK_SESSION_EXPIRED"},
    {0xC0000388, "STATUS_DOWNGRADE_DETECTED"},     {0xC000A000, "STATUS_INVALID_SIGNATURE"},
};

}  // namespace

std::string DescribeStatus(uint32_t status) {
  const auto* const named =
      std::find_if(std::begin(kNames), std::end(kNames),
                   [status](const NamedStatus& entry) { return entry.status == status; });
  if (named != std::end(kNames)) return named->name;
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), "status 0x%08X", status);
  return text.data();
}

}  // namespace smb
