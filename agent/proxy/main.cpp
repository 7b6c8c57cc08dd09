#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "agent/proxy/desktop.h"
#include "agent/proxy/process.h"
#include "agent/proxy/proxy_server.h"
#include "agent/proxy/requests.h"
#include "agent/proxy/words.h"

namespace {

void Log(const std::string& line) {
  std::fprintf(stderr, "zelproxy: %s\n", line.c_str());
}

SessionFacts OwnSession(const std::string& language) {
  using std::chrono::duration_cast, std::chrono::seconds, std::chrono::system_clock;
  return {UserName(),
          SessionId(),
          kPlatformName,
          ProcessId(),
          duration_cast<seconds>(system_clock::now().time_since_epoch()).count(),
          language};
}

// Waits on a thread of its own for the end that somebody asks for, and brings it about: the server
// first, which leaves the desktop without dialogs and lock, then the desktop.
class Ending {
 public:
  Ending(StopRequest& request, proxy_protocol::StopSignal& stop, std::thread& serving,
         Desktop& desktop)
      : request_(request), thread_([&stop, &serving, &desktop, this] {
          request_.Wait();
          stop.Raise();
          serving.join();
          desktop.Quit();
        }) {}
  ~Ending() {
    request_.Raise();
    thread_.join();
  }
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;

 private:
  StopRequest& request_;
  std::thread thread_;
};

// The desktop belongs to this thread, which shows its windows. It may end by itself, with the
// session: then the server ends after it.
void ShowUntilTheEnd(Desktop& desktop, StopRequest& request, proxy_protocol::StopSignal& stop,
                     std::thread& serving) {
  const Ending ending(request, stop, serving, desktop);
  desktop.Run();
}

void WaitForTheEnd(StopRequest& request, proxy_protocol::StopSignal& stop, std::thread& serving) {
  request.Wait();
  stop.Raise();
  serving.join();
}

int Serve(const std::string& pipe, bool needsDisplay) {
  StopRequest request;  // before there are other threads
  const std::string language = UserLanguage();
  const ProxyWords words = WordsIn(Translations({ShippedTranslations()}, Log), language);
  const auto stop = std::make_shared<proxy_protocol::StopSignal>();
  auto listener = proxy_protocol::Listen(pipe, stop);
  const std::unique_ptr<Desktop> desktop = MakeDesktop(words.desktop, Log);
  if (!desktop && needsDisplay) {
    Log("there is no display to show anything on");
    return 1;
  }
  ProxySession session(OwnSession(language), words.dialog, desktop.get(), Log);
  ProxyServer server(
      std::move(listener), stop, [&] { return MakeCaller(session); }, Log);
  std::thread serving([&] {
    server.Run();
    request.Raise();  // where the server ended by itself
  });
  std::printf("zelproxy ready: %s\n", pipe.c_str());
  std::fflush(stdout);

  if (desktop) {
    ShowUntilTheEnd(*desktop, request, *stop, serving);
  } else {
    WaitForTheEnd(request, *stop, serving);
  }
  return 0;
}

int Main(const std::vector<std::string>& arguments) {
  std::string pipe;
  bool needsDisplay = false;
  CLI::App app("The agent's helper in a user's session", "zelproxy");
  app.add_option("--pipe", pipe, "Where to listen (default: the place of this session)");
  app.add_flag("--needs-display", needsDisplay, "End with status 1 where no window can be shown");
  app.set_version_flag("--version", "zelproxy " ZEL_VERSION);
  try {
    app.parse(std::vector<std::string>(arguments.rbegin(), arguments.rend()));
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? 0 : 1;
  }
  return Serve(pipe.empty() ? proxy_protocol::DefaultPipe() : pipe, needsDisplay);
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
