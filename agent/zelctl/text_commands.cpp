#include "agent/zelctl/text_commands.h"

#include <cstdio>
#include <utility>

#include "agent/zelctl/failure.h"
#include "agent/zelctl/local_file.h"
#include "agent/zelctl/remote_text.h"
#include "agent/zelctl/terminal.h"

namespace {

std::string ReadStandardInput() {
  std::string bytes;
  char block[65536];
  size_t count = 0;
  while ((count = std::fread(block, 1, sizeof block, stdin)) > 0) bytes.append(block, count);
  if (std::ferror(stdin) == 0) return bytes;
  throw Failure(ExitStatus::kUsage, "standard input cannot be read");
}

}  // namespace

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
