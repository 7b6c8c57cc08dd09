// Stands in for libsmbclient in a zelbrowse of its own: lists end as no browser of the tests lets
// them end. WHOLE has two computers, BREAKING breaks off after the first, and SILENT has none.

#include <libsmbclient.h>

#include <cerrno>
#include <cstddef>
#include <string_view>

namespace {

std::string_view asked;
int told = 0;
alignas(smbc_dirent) char entry[sizeof(smbc_dirent) + 16];

/// Nobody looks into contexts and directories.
template <typename Handle>
Handle* Any() {
  return reinterpret_cast<Handle*>(entry);
}

SMBCFILE* Open(SMBCCTX* /*context*/, const char* url) {
  asked = url == std::string_view("smb://BREAKING/") ? "BREAKING"
          : url == std::string_view("smb://SILENT/") ? "SILENT"
                                                     : "WHOLE";
  told = 0;
  return Any<SMBCFILE>();
}

smbc_dirent* Read(SMBCCTX* /*context*/, SMBCFILE* /*directory*/) {
  if (asked == "SILENT" || told == 2) return nullptr;
  if (asked == "BREAKING" && told == 1) {
    errno = ECONNRESET;
    return nullptr;
  }
  auto* const server = Any<smbc_dirent>();
  server->smbc_type = SMBC_SERVER;
  server->name[0] = static_cast<char>('A' + told++);
  server->name[1] = '\0';
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
