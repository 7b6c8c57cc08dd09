#include "actions/relay/web_start.h"

#include "module/invocation.h"
#include "module/module.h"

namespace {

/// How the console reaches the master.
struct Connection {
  ZelString address;
  uint32_t port = 0;
  ZelString scheme;
  /// Value of the property "kvl-ssl".
  ZelString sslMode;
};

ZelString SslModeOf(const ZelString& security) {
  if (security == "_DB_SSL_HTTPS_SENDANDRECEIVE_") return "2";
  if (security == "_DB_SSL_HTTPS_SEND_") return "2";
  if (security == "_DB_SSL_HTTPS_SENDANDRECEIVEEXT_") return "3";
  return "0";
}

void ReadSecurity(Connection* connection) {
  ZelString security;
  ZelAgentGetSecurity(security);
  connection->sslMode = SslModeOf(security);
  connection->scheme = connection->sslMode != "0" ? "https" : "http";
}

/// The order counts: each works on what the one before has left.
void Rewrite(const Connection& connection, ZelString* text) {
  ZelString replacement;
  replacement.Printf("%S://%S:%u/", connection.scheme, connection.address, connection.port);
  PcreReplace(text, "http[s]{0,1}://.+:[0-9]{1,5}/", replacement, 0);
  replacement.Printf("<property name=\"kvl-servername\" value=\"%S\"/>", connection.address);
  PcreReplace(text, "<property name=\"kvl-servername\" value=\".+\"/>", replacement, 0);
  replacement.Printf("<property name=\"kvl-serverport\" value=\"%u\"/>", connection.port);
  PcreReplace(text, "<property name=\"kvl-serverport\" value=\".+\"/>", replacement, 0);
  replacement.Printf("<property name=\"kvl-ssl\" value=\"%S\"/>", connection.sslMode);
  PcreReplace(text, "<property name=\"kvl-ssl\" value=\".+\"/>", replacement, 0);
}

void RewriteDescriptors(const ZelString& directory, Connection connection) {
  for (const ZelString& path : DirListFiles(directory, false, true, true)) {
    if (!path.EndsWith(".jnlp", true)) continue;
    ReadSecurity(&connection);
    ZelString text;
    LoadFileToString(path, &text);
    Rewrite(connection, &text);
    SaveFileFromString(path, text);
  }
}

}  // namespace

ResultCode CoreUtilsConfigureJWS(ZelContainer* params) {
  Connection connection;
  connection.address = ReadString(*params, "MasterAddress");

  ZelContainer work;
  if (InvokeHere("HttpProtocolGetValues", &work) != 0) return kSuccess;

  ZelContainer values;
  work.GetContainer(kValues, &values, kNoIndex);
  values.GetInt32("Port", &connection.port, kNoIndex);
  if (connection.port == 0) {
    Logger().ErrorWithNL("Failed to configure JWS...");
    return kSuccess;
  }

  ZelString directory;
  directory.Printf("%S/../../ui/console/jws/jnlp", ModuleDataDirectory());
  directory = CompletePath(directory);
  if (DirExists(directory)) RewriteDescriptors(directory, connection);
  return kSuccess;
}

ResultCode CoreUtilsGetMasterAttachmentsPath(ZelContainer* params) {
  ZelString path;
  ZelAgentGetDataDir(path);
  path += "TarnDatabase";
  path += "\\";
  path += "attachments";
  path += "\\";
  path += "temp";
  params->SetString("Path", path, kNoIndex);
  return kSuccess;
}
