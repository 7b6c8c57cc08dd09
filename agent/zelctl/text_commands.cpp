#include "agent/zelctl/text_commands.h"

#include <utility>

#include "agent/zelctl/local_file.h"
#include "agent/zelctl/remote_text.h"
#include "agent/zelctl/terminal.h"

Result PrintText(AgentClient& agent, const std::string& path) {
  RemoteText read = ReadRemoteText(agent, path);
  return {std::move(read.text), std::move(read.body), ""};
}

Result PutText(AgentClient& agent, const std::string& local, const std::string& remote) {
  const bool isInput = local == "-";
  const std::string text =
      RequireUtf8(isInput ? ReadStandardInput() : ReadLocalFile(LocalPath(local)),
                  isInput ? "standard input" : local);
  return {"", WriteRemoteText(agent, remote, text).body, ""};
}
