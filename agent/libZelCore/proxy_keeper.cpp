#include "agent/libZelCore/proxy_keeper.h"

#include <algorithm>
#include <utility>

#include "agent/libZelCore/core_log.h"

namespace {

constexpr std::chrono::seconds kEndPatience{2};

}  // namespace

ProxySystem RealProxySystem(std::filesystem::path program) {
  return {UserSessions, ProxyPipeOf, IsProxyListening, MayStartIn,
          [program = std::move(program)](const UserSession& session) {
            // Listening without one, it would be left alone for ever.
            return StartInSession(program, session, {"--needs-display"});
          }};
}

std::map<std::string, ProxyKeeper::State> ProxyKeeper::Look(Clock::time_point now) {
  std::map<std::string, State> states;
  const auto sessions = system_.sessions();
  if (!sessions) return states;
  for (const UserSession& session : *sessions) {
    if (!session.isGraphical || !system_.mayStart(session)) continue;
    const std::string pipe = system_.pipeOf(session);
    if (pipe.empty() || states.contains(pipe)) continue;
    Kept& kept = kept_[pipe];
    Tend(session, kept, now);
    states[pipe] = kept.isListening ? State::kListening
                   : kept.program   ? State::kStarting
                                    : State::kPaused;
  }
  // What runs in a session that is not listed any more ends by itself with it.
  std::erase_if(kept_, [&](const auto& entry) {
    const Kept& kept = entry.second;
    return !states.contains(entry.first) && !(kept.program && kept.program->IsRunning());
  });
  return states;
}

void ProxyKeeper::Tend(const UserSession& session, Kept& kept, Clock::time_point now) {
  if (kept.program && !kept.program->IsRunning()) {
    kept.program.reset();
    if (now - kept.startedAt >= kSteadyRun) kept.pause = {};
    Failed(session, kept, now, "it ended");
  } else if (kept.program && kept.isListening) {
    return;
  }

  kept.isListening = system_.isListening(session);
  if (kept.isListening) {
    kept.lastError.clear();
  } else if (!kept.program) {
    if (now >= kept.notBefore) Start(session, kept, now);
  } else if (now - kept.startedAt >= kListenPatience) {
    kept.program->AskToEnd();
    kept.program->WaitForEnd(kEndPatience);
    kept.program.reset();
    Failed(session, kept, now, "it did not listen");
  }
}

void ProxyKeeper::Start(const UserSession& session, Kept& kept, Clock::time_point now) {
  StartedProgram started = system_.start(session);
  if (!started.program) return Failed(session, kept, now, started.error);
  kept.program = std::move(started.program);
  kept.startedAt = now;
  CoreLog().PrintWithNL("Started the proxy in session %S of %S", ZelString(session.id),
                        ZelString(session.userName));
}

void ProxyKeeper::Failed(const UserSession& session, Kept& kept, Clock::time_point now,
                         const std::string& error) {
  kept.isListening = false;
  kept.pause = std::clamp(2 * kept.pause, kShortestPause, kLongestPause);
  kept.notBefore = now + kept.pause;
  // Told once: it may go on like this for days.
  if (kept.lastError == error) return;
  kept.lastError = error;
  CoreLog().WarningWithNL("No proxy in session %S of %S: %S", ZelString(session.id),
                          ZelString(session.userName), ZelString(error));
}

void ProxyKeeper::EndAll() {
  for (auto& [pipe, kept] : kept_) {
    if (kept.program) kept.program->AskToEnd();
  }
  for (auto& [pipe, kept] : kept_) {
    if (kept.program) kept.program->WaitForEnd(kEndPatience);
  }
  kept_.clear();
}
