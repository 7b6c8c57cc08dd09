#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <thread>

#include "agent/proxy/process.h"
#include "agent/proxy/proxy_server.h"
#include "agent/proxy/requests.h"

namespace {

using proxy_protocol::Message;

void Log(const std::string& line) {
  std::fprintf(stderr, "zelproxy: %s\n", line.c_str());
}

SessionFacts OwnSession() {
  using std::chrono::duration_cast, std::chrono::seconds, std::chrono::system_clock;
  return {UserName(), SessionId(), kPlatformName, ProcessId(),
          duration_cast<seconds>(system_clock::now().time_since_epoch()).count()};
}

void Serve(const std::string& pipe) {
  StopRequest stopRequest;  // before there are other threads
  const SessionFacts session = OwnSession();
  const auto stop = std::make_shared<proxy_protocol::StopSignal>();
  ProxyServer server(
      proxy_protocol::Listen(pipe, stop), stop,
      [&](const Message& request) { return AnswerRequest(request, session); }, Log);
  std::thread serving([&] {
    server.Run();
    stopRequest.Raise();  // where the server ended by itself
  });
  std::printf("zelproxy ready: %s\n", pipe.c_str());
  std::fflush(stdout);

  stopRequest.Wait();
  stop->Raise();
  serving.join();
}

int Main(const std::vector<std::string>& arguments) {
  std::string pipe;
  CLI::App app("The agent's helper in a user's session", "zelproxy");
  app.add_option("--pipe", pipe, "Where to listen (default: the place of this session)");
  app.set_version_flag("--version", "zelproxy " ZEL_VERSION);
  try {
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  Serve(pipe.empty() ? proxy_protocol::DefaultPipe() : pipe);
  return 0;
}

}  // namespace

int main(int count, char** values) {
  try {
    PrepareProcess();
    return Main(Arguments(count, values));
  } catch (const std::exception& failure) {
    Log(failure.what());
    return 1;
  }
}
