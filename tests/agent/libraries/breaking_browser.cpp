// Stands in for libsmbclient in a zelbrowse of its own: lists end as no browser of the tests lets
// them end. WHOLE has two computers, BREAKING breaks off after the first, and SILENT has none.
// RIGHTS names what the process may do instead of computers.

#include <libsmbclient.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr size_t kMaxName = 100;

std::vector<std::string> names;
size_t told = 0;
bool breaksOff = false;
alignas(smbc_dirent) char entry[sizeof(smbc_dirent) + kMaxName + 1];

/// Nobody looks into contexts and directories.
template <typename Handle>
Handle* Any() {
  return reinterpret_cast<Handle*>(entry);
}

std::vector<std::string> Rights() {
  std::vector<std::string> rights = {"user " + std::to_string(geteuid()),
                                     "dumpable " + std::to_string(prctl(PR_GET_DUMPABLE))};
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    const bool isRight = line.starts_with("Cap") && !line.starts_with("CapBnd");
    if (isRight || line.starts_with("NoNewPrivs")) rights.push_back(line.substr(0, kMaxName));
  }
  return rights;
}

SMBCFILE* Open(SMBCCTX* /*context*/, const char* url) {
  const std::string_view asked = url;
  told = 0;
  breaksOff = asked == "smb://BREAKING/";
  names = asked == "smb://RIGHTS/"   ? Rights()
          : asked == "smb://SILENT/" ? std::vector<std::string>()
          : breaksOff                ? std::vector<std::string>{"A"}
                                     : std::vector<std::string>{"A", "B"};
  return Any<SMBCFILE>();
}

smbc_dirent* Read(SMBCCTX* /*context*/, SMBCFILE* /*directory*/) {
  if (told == names.size()) {
    if (breaksOff) errno = ECONNRESET;
    return nullptr;
  }
  auto* const server = Any<smbc_dirent>();
  server->smbc_type = SMBC_SERVER;
  const std::string& name = names[told++];
  std::memcpy(server->name, name.c_str(), name.size() + 1);
  // Calls that succeed leave anything here.
  errno = EAGAIN;
  return server;
}

}  // namespace

SMBCCTX* smbc_new_context() {
  return Any<SMBCCTX>();
}
SMBCCTX* smbc_init_context(SMBCCTX* context) {
  return context;
}
void smbc_setDebug(SMBCCTX* /*context*/, int /*level*/) {}
void smbc_setTimeout(SMBCCTX* /*context*/, int /*milliseconds*/) {}
void smbc_setOptionDebugToStderr(SMBCCTX* /*context*/, smbc_bool /*isSet*/) {}
void smbc_setOptionUseKerberos(SMBCCTX* /*context*/, smbc_bool /*isSet*/) {}
void smbc_setFunctionAuthData(SMBCCTX* /*context*/, smbc_get_auth_data_fn /*ask*/) {}
smbc_bool smbc_setOptionProtocols(SMBCCTX* /*context*/, const char* /*least*/,
                                  const char* /*most*/) {
  return 1;
}
const char* smbc_getWorkgroup(SMBCCTX* /*context*/) {
  return "WHOLE";
}
smbc_opendir_fn smbc_getFunctionOpendir(SMBCCTX* /*context*/) {
  return Open;
}
smbc_readdir_fn smbc_getFunctionReaddir(SMBCCTX* /*context*/) {
  return Read;
}
