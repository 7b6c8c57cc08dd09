#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "agent/windows_api/browse_program.h"
#include "windows_api.h"

// Browsing is done by a program of its own, zelbrowse, which links libsmbclient:
// docs/decisions/0024-browsing-through-libsmbclient.md tells why.

namespace {

constexpr NET_API_STATUS kNotEnoughMemory = 8;
constexpr NET_API_STATUS kInvalidParameter = 87;

constexpr std::chrono::seconds kBrowseTime{30};
/// The longest that fits a NetBIOS name beside the byte that tells its kind.
constexpr size_t kMaxDomainCharacters = 15;
/// The platform of all that is not older than Windows NT; browsers tell nothing better.
constexpr DWORD kPlatformNt = 500;

BrowseAnswer RunZelbrowse(const std::vector<std::string>& arguments) {
  constexpr char kSelf[] = "/proc/self/exe";
  std::error_code error;
  const std::filesystem::path agent = std::filesystem::read_symlink(kSelf, error);
  // No other place will do, least of all the working directory.
  if (error) return {kNoBrowserFound, {}, ZelString(kSelf + (": " + error.message()))};
  return RunBrowseProgram(agent.parent_path() / "zelbrowse", arguments, kBrowseTime);
}

bool IsNoDomainCharacter(WCHAR character) {
  return character < 0x20 ||
         std::basic_string_view<WCHAR>(u"\\/:*?\"<>|.").find(character) != std::string_view::npos;
}

/// Whether a domain can be called `name`. Dots are for the names and addresses of servers, which
/// would be connected to otherwise.
bool IsDomainName(std::basic_string_view<WCHAR> name) {
  if (name.empty() || name.size() > kMaxDomainCharacters) return false;
  for (const WCHAR character : name) {
    if (IsNoDomainCharacter(character)) return false;
  }
  return true;
}

BrowseAnswer Browse(DWORD serverType, const WCHAR* domain) {
  std::vector<std::string> arguments;
  if (serverType == SV_TYPE_DOMAIN_ENUM) {
    arguments = {"domains"};
  } else if (domain == nullptr) {
    arguments = {"servers"};
  } else if (IsDomainName(domain)) {
    arguments = {"servers", ZelString(domain).GetString(kEncodingUtf8)};
  } else {
    return {kNoSuchDomain, {}, "no domain can have this name"};
  }
  return RunZelbrowse(arguments);
}

/// The records and, behind them, their names, in one piece of memory; null without the memory.
uint8_t* Pack(const std::vector<ZelString>& names) {
  size_t size = names.size() * sizeof(SERVER_INFO_100);
  for (const ZelString& name : names) size += name.GetSize(kEncodingUtf16) + sizeof(WCHAR);
  auto* const buffer = static_cast<uint8_t*>(std::malloc(size));
  if (buffer == nullptr) return nullptr;

  auto* const records = reinterpret_cast<SERVER_INFO_100*>(buffer);
  auto* text = reinterpret_cast<WCHAR*>(records + names.size());
  for (size_t i = 0; i < names.size(); ++i) {
    const size_t characters = names[i].GetSize(kEncodingUtf16) / sizeof(WCHAR) + 1;
    std::memcpy(text, names[i].GetTCHAR(), characters * sizeof(WCHAR));
    new (&records[i]) SERVER_INFO_100{kPlatformNt, text};
    text += characters;
  }
  return buffer;
}

NET_API_STATUS List(DWORD serverType, const WCHAR* domain, uint8_t** buffer, DWORD* entriesRead,
                    DWORD* totalEntries) {
  const BrowseAnswer answer = Browse(serverType, domain);
  if (answer.status != 0) {
    LibraryLog().PrintWithNL("the network is not browsed: %S", answer.reason);
    return answer.status;
  }
  uint8_t* const packed = Pack(answer.names);
  if (packed == nullptr) return kNotEnoughMemory;
  *buffer = packed;
  *entriesRead = static_cast<DWORD>(answer.names.size());
  *totalEntries = *entriesRead;
  return 0;
}

}  // namespace

NET_API_STATUS NetServerEnum(const WCHAR* server, DWORD level, uint8_t** buffer,
                             DWORD preferredBytes, DWORD* entriesRead, DWORD* totalEntries,
                             DWORD serverType, const WCHAR* domain, DWORD* resume) {
  const bool isKnown =
      serverType == SV_TYPE_ALL || (serverType == SV_TYPE_DOMAIN_ENUM && domain == nullptr);
  if (server != nullptr || level != 100 || buffer == nullptr ||
      preferredBytes != MAX_PREFERRED_LENGTH || entriesRead == nullptr || totalEntries == nullptr ||
      !isKnown || resume != nullptr) {
    LibraryLog().PrintWithNL("the network is not browsed: invalid arguments");
    return kInvalidParameter;
  }
  try {
    return List(serverType, domain, buffer, entriesRead, totalEntries);
  } catch (const std::bad_alloc&) {
    return kNotEnoughMemory;
  }
}

NET_API_STATUS NetApiBufferFree(void* buffer) {
  std::free(buffer);
  return 0;
}
