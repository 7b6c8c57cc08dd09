#include "libZel/exec.h"

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "agent/libZel/debug_context.h"
#include "libZel/proxy_client.h"
#include "tests/agent/test_proxy.h"

using proxy_protocol::Message;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char* kMissing = "zel-no-such-program-anywhere secret";

struct Answer {
  int started = -1;
  bool failed = false;
};

Answer Execute(const ZelString& commandLine, bool inUserSession, const ZelString& pipe = "",
               XmlProxyClient* proxy = nullptr) {
  Answer answer;
  answer.started = ExecRedirect(commandLine, answer.failed, proxy, pipe, "", "", 0, false,
                                inUserSession, nullptr, false, nullptr);
  return answer;
}

// The library's log, as it is written during a test.
class CapturedLog {
 public:
  CapturedLog() : context_({.logFile = directory_.Native("log")}) {
    LibraryLog().SetContext(&context_);
  }
  ~CapturedLog() { LibraryLog().SetContext(nullptr); }
  std::string Text() const { return ReadFile(directory_.Native("log")); }

 private:
  TemporaryDirectory directory_;
  ZelDebugContext context_;
};

// A proxy that notes what it should start and says that it did.
class NotingProxy {
 public:
  explicit NotingProxy(int32_t code = 0)
      : proxy_([this, code](const Message& request) { return Note(request, code); }, {}) {}
  const std::string& Pipe() const { return proxy_.Pipe(); }
  // To be read when the proxy has answered.
  const std::vector<std::string>& Lines() const { return lines_; }

 private:
  Message Note(const Message& request, int32_t code) {
    if (request.name != "run") return ReplyTo(request);
    lines_.push_back(*request.Find("commandLine"));
    return code == 0 ? ReplyTo(request) : FailureOf(request, "it does not want to", code);
  }

  std::vector<std::string> lines_;
  TestProxy proxy_;
};

}  // namespace

TEST(ExecRedirect, TellsInTheLogWhyAProgramDidNotStart) {
  const CapturedLog log;
  const Answer answer = Execute(kMissing, false);
  EXPECT_EQ(answer.started, 0);
  EXPECT_FALSE(answer.failed) << "no proxy was needed";
  EXPECT_THAT(log.Text(), HasSubstr("start of \"zel-no-such-program-anywhere\" failed: "));
  EXPECT_THAT(log.Text(), testing::Not(HasSubstr("secret")));
}

TEST(ExecRedirect, NeedsAProxyForTheUsersSession) {
  const CapturedLog log;
  const Answer answer = Execute(kMissing, true);
  EXPECT_EQ(answer.started, 0);
  EXPECT_TRUE(answer.failed);
  EXPECT_THAT(log.Text(), HasSubstr("nobody is logged on, or no proxy runs"));
}

TEST(ExecRedirect, FailsWhereNoProxyListens) {
  const CapturedLog log;
  const TestPipe pipe;
  const Answer answer = Execute(kMissing, true, pipe.Name());
  EXPECT_EQ(answer.started, 0);
  EXPECT_TRUE(answer.failed);
  EXPECT_THAT(log.Text(), HasSubstr("cannot be asked"));
}

TEST(ExecRedirect, HasTheProxyStartTheProgram) {
  NotingProxy proxy;
  const Answer answer = Execute("\"C:\\a b\" \xC3\xA4 \"c\\\"\"", true, proxy.Pipe());
  EXPECT_EQ(answer.started, 1);
  EXPECT_FALSE(answer.failed);
  EXPECT_THAT(proxy.Lines(), ElementsAre("\"C:\\a b\" \xC3\xA4 \"c\\\"\""));
}

TEST(ExecRedirect, UsesTheConnectionThatItIsGiven) {
  NotingProxy proxy;
  XmlProxyClient client;
  ASSERT_TRUE(client.Initialise(proxy.Pipe(), 10000, XmlProxyClient::kUserSession));
  EXPECT_EQ(Execute("one", true, "", &client).started, 1);
  EXPECT_EQ(Execute("two", true, "", &client).started, 1);
  EXPECT_THAT(proxy.Lines(), ElementsAre("one", "two"));

  XmlProxyClient closed;
  const Answer answer = Execute("three", true, proxy.Pipe(), &closed);
  EXPECT_EQ(answer.started, 0);
  EXPECT_TRUE(answer.failed);
}

TEST(ExecRedirect, DoesNotTakeARefusalForASilentProxy) {
  const CapturedLog log;
  NotingProxy proxy(5);
  const Answer answer = Execute("one", true, proxy.Pipe());
  EXPECT_EQ(answer.started, 0);
  EXPECT_FALSE(answer.failed);
  EXPECT_THAT(log.Text(), HasSubstr("it does not want to"));
}

TEST(ExecRedirect, LeavesFailedAsItWas) {
  NotingProxy proxy;
  bool failed = true;
  EXPECT_EQ(ExecRedirect("one", failed, nullptr, proxy.Pipe(), "", "", 0, false, true, nullptr,
                         false, nullptr),
            1);
  EXPECT_TRUE(failed);
}

TEST(ExecRedirect, RefusesValuesOfReservedArguments) {
  NotingProxy proxy;
  const CapturedLog log;
  const ZelString pipe = proxy.Pipe();
  bool failed = false;
  int code = 0;
  EXPECT_EQ(
      ExecRedirect("p", failed, nullptr, pipe, "x", "", 0, false, true, nullptr, false, nullptr),
      0);
  EXPECT_EQ(
      ExecRedirect("p", failed, nullptr, pipe, "", "x", 0, false, true, nullptr, false, nullptr),
      0);
  EXPECT_EQ(
      ExecRedirect("p", failed, nullptr, pipe, "", "", 1, false, true, nullptr, false, nullptr), 0);
  EXPECT_EQ(
      ExecRedirect("p", failed, nullptr, pipe, "", "", 0, true, true, nullptr, false, nullptr), 0);
  EXPECT_EQ(ExecRedirect("p", failed, nullptr, pipe, "", "", 0, false, true, &code, false, nullptr),
            0);
  EXPECT_EQ(
      ExecRedirect("p", failed, nullptr, pipe, "", "", 0, false, true, nullptr, true, nullptr), 0);
  EXPECT_EQ(ExecRedirect("p", failed, nullptr, pipe, "", "", 0, false, true, nullptr, false, &code),
            0);
  EXPECT_THAT(proxy.Lines(), IsEmpty());
  EXPECT_FALSE(failed);
  EXPECT_THAT(log.Text(), HasSubstr("a reserved argument has a value"));
}
