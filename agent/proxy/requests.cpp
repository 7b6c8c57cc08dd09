#include "agent/proxy/requests.h"

#include "agent/libZel/process_start.h"

using namespace proxy_protocol;

namespace {

Message TellSession(const Message& request, const SessionFacts& session) {
  Message reply = ReplyTo(request);
  reply.fields = {{"userName", session.userName},
                  {"sessionId", session.sessionId},
                  {"platform", session.platform},
                  {"processId", std::to_string(session.processId)},
                  {"startedAt", std::to_string(session.startedAt)}};
  return reply;
}

Message Run(const Message& request) {
  const std::string* const commandLine = request.Find("commandLine");
  if (!commandLine) return FailureOf(request, "the field commandLine is missing");
  const Outcome outcome = StartProgram(*commandLine);
  if (!outcome) return FailureOf(request, outcome.reason.Utf8(), outcome.code);
  return ReplyTo(request);
}

}  // namespace

Message AnswerRequest(const Message& request, const SessionFacts& session) {
  if (request.name == "session") return TellSession(request, session);
  if (request.name == "run") return Run(request);
  return FailureOf(request, "the request \"" + request.name + "\" is not known");
}
