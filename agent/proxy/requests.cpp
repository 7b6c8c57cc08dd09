#include "agent/proxy/requests.h"

#include <stdexcept>
#include <utility>

#include "agent/libZel/process_start.h"

using namespace proxy_protocol;

namespace {

const char* YesOrNo(bool is) {
  return is ? "yes" : "no";
}

Message TellSession(const Message& request, const ProxySession& session) {
  const SessionFacts& facts = session.facts;
  Message reply = ReplyTo(request);
  reply.fields = {{"userName", facts.userName},
                  {"sessionId", facts.sessionId},
                  {"platform", facts.platform},
                  {"processId", std::to_string(facts.processId)},
                  {"startedAt", std::to_string(facts.startedAt)},
                  {"language", facts.language},
                  {"display", YesOrNo(session.desktop)}};
  return reply;
}

Message Run(const Message& request) {
  const std::string* const commandLine = request.Find("commandLine");
  if (!commandLine) return FailureOf(request, "the field commandLine is missing");
  const Outcome outcome = StartProgram(*commandLine);
  if (!outcome) return FailureOf(request, outcome.reason.Utf8(), outcome.code);
  return ReplyTo(request);
}

Message TellAbsence(const Message& request, const ProxySession& session) {
  if (!session.desktop) return FailureOf(request, "there is no display");
  const UserActivity activity = session.desktop->Activity();
  Message reply = ReplyTo(request);
  reply.fields = {{"idleMs", std::to_string(activity.idle.count())},
                  {"screenLocked", YesOrNo(activity.isScreenLocked)}};
  return reply;
}

// The connection itself owns dialogs and holds the lock.
class SessionCaller : public Caller {
 public:
  explicit SessionCaller(ProxySession& session) : session_(session) {}
  ~SessionCaller() override {
    session_.dialogs.Release(this);
    session_.lock.Release(this);
  }

  void Answer(const Message& request, Reply reply) override {
    if (request.name == "dialog-show") return ShowDialog(request, std::move(reply));
    if (request.name == "dialog-close") return CloseDialog(request, std::move(reply));
    reply(AnswerAtOnce(request));
  }

  bool IsBusy() const override {
    return session_.dialogs.HasAny(this) || session_.lock.IsHeldBy(this);
  }

 private:
  Message AnswerAtOnce(const Message& request) {
    if (request.name == "session") return TellSession(request, session_);
    if (request.name == "run") return Run(request);
    if (request.name == "absence") return TellAbsence(request, session_);
    if (request.name == "lock") return Lock(request);
    if (request.name == "lock-text") return SetLockText(request);
    if (request.name == "unlock") return Unlock(request);
    if (request.name == "dialog-create") return CreateDialog(request);
    if (request.name == "dialog-state") return TellDialogState(request);
    return FailureOf(request, "the request \"" + request.name + "\" is not known");
  }

  Message Lock(const Message& request) {
    session_.lock.Lock(this);
    return ReplyTo(request);
  }

  Message SetLockText(const Message& request) {
    session_.lock.SetText(ReadText(request, "title", kMaxLineCharacters),
                          ReadText(request, "text", kMaxLockTextCharacters));
    return ReplyTo(request);
  }

  Message Unlock(const Message& request) {
    session_.lock.Unlock();
    return ReplyTo(request);
  }

  Message CreateDialog(const Message& request) {
    const uint32_t number = session_.dialogs.Create(this, DialogOf(request, session_.words));
    Message reply = ReplyTo(request);
    reply.fields = {{"dialog", std::to_string(number)}};
    return reply;
  }

  void ShowDialog(const Message& request, Reply reply) {
    const uint32_t number = NeedNumber(request, "dialog");
    if (ReadFlag(request, "wait")) {
      session_.dialogs.Show(this, number, [empty = ReplyTo(request), reply](ButtonId button) {
        Message answer = empty;
        answer.fields = {{"button", std::to_string(button)}};
        reply(std::move(answer));
      });
      return;
    }
    session_.dialogs.Show(this, number, [](ButtonId) {});
    reply(ReplyTo(request));
  }

  void CloseDialog(const Message& request, Reply reply) {
    const uint32_t number = NeedNumber(request, "dialog");
    if (ReadFlag(request, "wait")) {
      session_.dialogs.Close(number);
      return reply(ReplyTo(request));
    }
    reply(ReplyTo(request));
    try {
      session_.dialogs.Close(number);
    } catch (const std::exception&) {
      // It has been answered; the dialog has ended all the same.
    }
  }

  Message TellDialogState(const Message& request) const {
    const DialogState state = session_.dialogs.State(NeedNumber(request, "dialog"));
    Message reply = ReplyTo(request);
    reply.fields = {{"isOpen", YesOrNo(state.isOpen)}, {"button", std::to_string(state.button)}};
    return reply;
  }

  ProxySession& session_;
};

}  // namespace

ProxySession::ProxySession(SessionFacts facts, DialogWords words, Desktop* desktop,
                           LockKeeper::Log log, std::chrono::milliseconds lockGrace)
    : facts(std::move(facts)),
      words(std::move(words)),
      desktop(desktop),
      dialogs(desktop),
      lock(desktop, lockGrace, std::move(log)) {}

ProxySession::~ProxySession() = default;

std::unique_ptr<Caller> MakeCaller(ProxySession& session) {
  return std::make_unique<SessionCaller>(session);
}
