#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/agent/proxy_caller.h"
#include "tests/agent/scripted_desktop.h"
#include "tests/agent/test_proxy.h"

using proxy_protocol::Message;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

namespace {

using Fields = ProxyCaller::Fields;

Fields NumberOf(const std::string& number) {
  return {{"dialog", number}};
}

Fields AwaitOf(const std::string& number) {
  return {{"dialog", number}, {"wait", "1"}};
}

std::string ButtonOf(const Message& reply) {
  return ProxyCaller::TextOf(reply, "button");
}

// Shows the dialog and tells what the desktop was given.
DialogContent ShownAs(const Fields& fields) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  EXPECT_EQ(caller.WhyNot("dialog-show", NumberOf(caller.Create(fields))), "");
  return desktop.Content(desktop.WaitForDialog()).value_or(DialogContent());
}

std::vector<std::pair<ButtonId, std::string>> ButtonsOf(const DialogContent& content) {
  std::vector<std::pair<ButtonId, std::string>> buttons;
  for (const DialogButton& button : content.buttons) buttons.emplace_back(button.id, button.label);
  return buttons;
}

}  // namespace

TEST(ProxyDialog, HandsTheDesktopWhatItIsToShow) {
  const DialogContent content = ShownAs({{"text", "a & _b <b>%s</b>"},
                                         {"buttons", "2"},
                                         {"firstButton", "Go"},
                                         {"secondButton", "Stay"},
                                         {"closeButton", "unused"},
                                         {"title", "T"},
                                         {"imagePath", "/images/x.png"},
                                         {"timeoutS", "4294967295"},
                                         {"topMost", "1"}});
  EXPECT_EQ(content.text, "a & _b <b>%s</b>");
  EXPECT_THAT(ButtonsOf(content),
              ElementsAre(testing::Pair(100u, "Go"), testing::Pair(101u, "Stay")));
  EXPECT_EQ(content.closeButton, 101u);
  EXPECT_EQ(content.title, "T");
  EXPECT_EQ(content.imagePath, "/images/x.png");
  EXPECT_EQ(content.timeoutS, 4294967295u);
  EXPECT_TRUE(content.staysOnTop);
}

TEST(ProxyDialog, HasTheProxysOwnWordsWhereNoneAreGiven) {
  const DialogContent two = ShownAs({{"buttons", "2"}, {"firstButton", ""}, {"title", ""}});
  EXPECT_THAT(ButtonsOf(two), ElementsAre(testing::Pair(100u, "Ja"), testing::Pair(101u, "Nein")));
  EXPECT_EQ(two.title, "Nachricht");
  EXPECT_EQ(two.timeoutS, 0u);
  EXPECT_FALSE(two.staysOnTop);

  const DialogContent one = ShownAs({{"buttons", "1"}, {"firstButton", "unused"}});
  EXPECT_THAT(ButtonsOf(one), ElementsAre(testing::Pair(102u, "Zu")));
  EXPECT_EQ(one.closeButton, 102u);

  const DialogContent none = ShownAs({{"buttons", "0"}});
  EXPECT_THAT(none.buttons, IsEmpty());
  EXPECT_EQ(none.closeButton, 0u) << "the person cannot close it";
}

TEST(ProxyDialog, CarriesOddTexts) {
  const std::string odd = std::string("\0\x01\r\n\xE2\x80\xAE&amp;\"]]>", 16);
  const std::string text = odd + std::string(10000, 'x');
  const DialogContent content =
      ShownAs({{"text", text}, {"buttons", "1"}, {"closeButton", odd}, {"title", odd}});
  EXPECT_EQ(content.text, text);
  EXPECT_EQ(content.title, odd);
  EXPECT_EQ(content.buttons.at(0).label, odd);
  EXPECT_EQ(ShownAs({{"buttons", "0"}, {"imagePath", std::string("/a\0b", 4)}}).imagePath, "");
}

TEST(ProxyDialog, RefusesFieldsThatMakeNoSense) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const std::string many(10000, '9');
  for (const std::string& bad : {std::string("-1"), std::string("7"), std::string(" 1"),
                                 std::string("1 "), std::string("x"), many}) {
    EXPECT_THAT(caller.WhyNot("dialog-create", {{"buttons", bad}}), HasSubstr("field buttons"));
    EXPECT_THAT(caller.WhyNot("dialog-create", {{"buttons", "0"}, {"topMost", bad}}),
                HasSubstr("field topMost"));
  }
  for (const std::string& bad : {std::string("-1"), std::string("4294967296"), std::string("1.5"),
                                 std::string("1s"), many}) {
    EXPECT_THAT(caller.WhyNot("dialog-create", {{"buttons", "0"}, {"timeoutS", bad}}),
                HasSubstr("field timeoutS"));
    EXPECT_THAT(caller.WhyNot("dialog-close", NumberOf(bad)), HasSubstr("field dialog"));
  }
  EXPECT_THAT(caller.WhyNot("dialog-create"), HasSubstr("buttons is missing"));
  EXPECT_THAT(caller.WhyNot("dialog-show"), HasSubstr("dialog is missing"));
  const std::string dialog = caller.Create();
  EXPECT_THAT(caller.WhyNot("dialog-show", {{"dialog", dialog}, {"wait", "2"}}),
              HasSubstr("field wait"));
  EXPECT_EQ(desktop.CountShown(), 0u);
}

// Laid out whole they would hold up the desktop's thread for seconds.
TEST(ProxyDialog, CutsLongTexts) {
  const DialogContent content = ShownAs({{"text", std::string(300'000, 't')},
                                         {"buttons", "2"},
                                         {"firstButton", std::string(501, 'f')},
                                         {"secondButton", std::string(500, 's')},
                                         {"title", std::string(200'000, 'x')}});
  EXPECT_EQ(content.text, std::string(100'000, 't') + "…");
  EXPECT_EQ(content.title, std::string(500, 'x') + "…");
  EXPECT_THAT(ButtonsOf(content), ElementsAre(Pair(100u, std::string(500, 'f') + "…"),
                                              Pair(101u, std::string(500, 's'))));
}

TEST(ProxyDialog, NeedsADisplay) {
  const TestProxy proxy;
  ProxyCaller caller(proxy.Pipe());
  EXPECT_EQ(caller.WhyNot("dialog-create", {{"buttons", "1"}}), "there is no display");
  EXPECT_EQ(caller.WhyNot("dialog-close", NumberOf("1")), "");
  EXPECT_THAT(caller.WhyNot("dialog-state", NumberOf("1")), HasSubstr("no dialog 1"));
  EXPECT_EQ(caller.WhyNot("absence"), "there is no display");
  EXPECT_EQ(ProxyCaller::TextOf(caller.Ask("session"), "display"), "no");
}

TEST(ProxyDialog, TellsWhichButtonEndedIt) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const std::string dialog = caller.Create();
  const Message before = caller.Ask("dialog-state", NumberOf(dialog));
  EXPECT_EQ(ProxyCaller::TextOf(before, "isOpen"), "yes");
  EXPECT_EQ(ButtonOf(before), "0");

  caller.SendShow(dialog);
  desktop.Press(desktop.WaitForDialog(), 101);
  EXPECT_EQ(ButtonOf(caller.Receive()), "101");
  const Message after = caller.Ask("dialog-state", NumberOf(dialog));
  EXPECT_EQ(ProxyCaller::TextOf(after, "isOpen"), "no");
  EXPECT_EQ(ButtonOf(after), "101");
}

TEST(ProxyDialog, MayBeShownWithoutWaiting) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const std::string dialog = caller.Create();
  const Message shown = caller.Ask("dialog-show", NumberOf(dialog));
  EXPECT_EQ(shown.code, 0);
  EXPECT_THAT(shown.fields, IsEmpty());
  EXPECT_EQ(desktop.CountOpen(), 1u);
  desktop.Press(desktop.WaitForDialog(), 100);
  EXPECT_EQ(ButtonOf(caller.Ask("dialog-state", NumberOf(dialog))), "100");
}

TEST(ProxyDialog, IsShownOnce) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const std::string dialog = caller.Create();
  EXPECT_EQ(caller.WhyNot("dialog-show", NumberOf(dialog)), "");
  EXPECT_THAT(caller.WhyNot("dialog-show", NumberOf(dialog)), HasSubstr("shown before"));
  desktop.Press(desktop.WaitForDialog(), 100);
  EXPECT_THAT(caller.WhyNot("dialog-show", AwaitOf(dialog)), HasSubstr("shown before"));
  EXPECT_EQ(desktop.CountShown(), 1u);
}

TEST(ProxyDialog, LetsItsConnectionAskOtherThingsMeanwhile) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const std::string first = caller.Create(), second = caller.Create();
  caller.SendShow(first);
  caller.SendShow(second);
  const uint32_t secondShown = desktop.WaitForDialog(2), firstShown = desktop.WaitForDialog(1);
  EXPECT_EQ(ProxyCaller::TextOf(caller.Ask("session"), "userName"), "alice");
  desktop.Press(secondShown, 100);
  const Message one = caller.Receive();
  EXPECT_EQ(ButtonOf(one), "100");
  EXPECT_EQ(one.id, 4u) << "the second show";
  EXPECT_EQ(caller.WhyNot("dialog-state", NumberOf(first)), "");
  desktop.Press(firstShown, 101);
  const Message other = caller.Receive();
  EXPECT_EQ(ButtonOf(other), "101");
  EXPECT_EQ(other.id, 3u);
}

TEST(ProxyDialog, IsClosedByAnotherConnection) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe()), other(proxy.Pipe());
  for (const char* const wait : {"0", "1"}) {
    const std::string dialog = caller.Create();
    caller.SendShow(dialog);
    desktop.WaitForDialog(*wait == '0' ? 1 : 2);
    EXPECT_EQ(other.WhyNot("dialog-close", {{"dialog", dialog}, {"wait", wait}}), "");
    if (*wait == '1') {
      EXPECT_EQ(desktop.CountOpen(), 0u);
    }
    EXPECT_EQ(ButtonOf(caller.Receive()), "0");
    EXPECT_EQ(ProxyCaller::TextOf(other.Ask("dialog-state", NumberOf(dialog)), "isOpen"), "no");
    EXPECT_EQ(other.WhyNot("dialog-close", AwaitOf(dialog)), "") << "closed already";
  }
}

TEST(ProxyDialog, IsShownByItsOwnConnectionAlone) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe()), other(proxy.Pipe());
  const std::string dialog = caller.Create();
  EXPECT_THAT(other.WhyNot("dialog-show", AwaitOf(dialog)), HasSubstr("another connection"));
  EXPECT_THAT(other.WhyNot("dialog-show", NumberOf("12345")), HasSubstr("no dialog 12345"));
  EXPECT_EQ(desktop.CountShown(), 0u);
}

TEST(ProxyDialog, ThatIsClosedBeforeItIsShownNeverAppears) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const std::string dialog = caller.Create();
  EXPECT_EQ(caller.WhyNot("dialog-close", AwaitOf(dialog)), "");
  EXPECT_EQ(ButtonOf(caller.Ask("dialog-show", AwaitOf(dialog))), "0");
  EXPECT_THAT(caller.WhyNot("dialog-show", AwaitOf(dialog)), HasSubstr("shown before"));
  EXPECT_EQ(desktop.CountShown(), 0u);
}

TEST(ProxyDialog, ThatIsClosedWhileItAppearsGoesAway) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe()), other(proxy.Pipe());
  const std::string dialog = caller.Create();
  // The close is under way, or soon will be, when the window comes.
  desktop.SetWhenShown([&](uint32_t) { other.Send("dialog-close", AwaitOf(dialog)); });
  caller.SendShow(dialog);
  EXPECT_EQ(ButtonOf(caller.Receive()), "0");
  EXPECT_EQ(other.Receive().code, 0);
  EXPECT_EQ(desktop.CountOpen(), 0u);
}

TEST(ProxyDialog, GoesWithItsConnection) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe()), other(proxy.Pipe());
  const std::string waiting = caller.Create(), shown = caller.Create(), made = caller.Create();
  caller.SendShow(waiting);
  const uint32_t id = desktop.WaitForDialog();
  EXPECT_EQ(caller.WhyNot("dialog-show", NumberOf(shown)), "");
  const std::string kept = other.Create();
  EXPECT_EQ(other.WhyNot("dialog-show", NumberOf(kept)), "");

  caller.HangUp();
  while (desktop.CountOpen() > 1) std::this_thread::yield();
  EXPECT_FALSE(desktop.IsOpen(id));
  EXPECT_EQ(desktop.CountOpen(), 1u) << "the other connection's";
  for (const std::string& gone : {waiting, shown, made}) {
    while (other.WhyNot("dialog-state", NumberOf(gone)).empty()) std::this_thread::yield();
    EXPECT_THAT(other.WhyNot("dialog-state", NumberOf(gone)), HasSubstr("no dialog"));
  }
}

TEST(ProxyDialog, GoesWithTheProxy) {
  ScriptedDesktop desktop;
  {
    const TestProxy proxy(desktop);
    ProxyCaller caller(proxy.Pipe());
    caller.SendShow(caller.Create());
    desktop.WaitForDialog();
  }
  EXPECT_EQ(desktop.CountOpen(), 0u);
}

TEST(ProxyDialog, ThatTheDesktopCannotShowHasEnded) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const std::string dialog = caller.Create();
  desktop.Break("the display was lost");
  EXPECT_EQ(caller.WhyNot("dialog-show", AwaitOf(dialog)), "the display was lost");
  EXPECT_EQ(ProxyCaller::TextOf(caller.Ask("dialog-state", NumberOf(dialog)), "isOpen"), "no");
  EXPECT_EQ(caller.WhyNot("dialog-close", AwaitOf(dialog)), "");
  EXPECT_EQ(caller.WhyNot("absence"), "the display was lost");
}

TEST(ProxyDialog, SurvivesAThousandRacesOfShowAndClose) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe()), other(proxy.Pipe());
  for (int i = 0; i < 1000; ++i) {
    const std::string dialog = caller.Create();
    caller.SendShow(dialog);
    ASSERT_EQ(other.WhyNot("dialog-close", AwaitOf(dialog)), "");
    ASSERT_EQ(ButtonOf(caller.Receive()), "0");
    ASSERT_EQ(desktop.CountOpen(), 0u);
  }
}

TEST(ProxyDialog, EndsOnceWhoeverComesFirst) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe()), other(proxy.Pipe());
  for (size_t i = 1; i <= 200; ++i) {
    const std::string dialog = caller.Create();
    caller.SendShow(dialog);
    const uint32_t id = desktop.WaitForDialog(i);
    std::thread person([&] { desktop.Press(id, 100); });
    ASSERT_EQ(other.WhyNot("dialog-close", AwaitOf(dialog)), "");
    person.join();
    const std::string button = ButtonOf(caller.Receive());
    ASSERT_TRUE(button == "0" || button == "100") << button;
    ASSERT_EQ(ButtonOf(caller.Ask("dialog-state", NumberOf(dialog))), button);
  }
}

TEST(ProxyDialog, AreNotTooMany) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  std::vector<ProxyCaller> callers;
  for (int i = 0; i < 4; ++i) {
    callers.emplace_back(proxy.Pipe());
    for (int j = 0; j < 16; ++j) EXPECT_NE(callers.back().Create(), "");
  }
  const Fields fields = {{"buttons", "1"}};
  EXPECT_THAT(callers[0].WhyNot("dialog-create", fields), HasSubstr("connection has too many"));
  ProxyCaller one(proxy.Pipe());
  EXPECT_THAT(one.WhyNot("dialog-create", fields), HasSubstr("there are too many dialogs"));

  EXPECT_EQ(one.WhyNot("dialog-close", AwaitOf("1")), "");
  const std::string last = one.Create();
  EXPECT_THAT(callers[0].WhyNot("dialog-create", fields), HasSubstr("there are too many dialogs"));
  EXPECT_EQ(one.WhyNot("dialog-state", NumberOf("1")), "") << "it made room for none";
  EXPECT_EQ(one.WhyNot("dialog-close", AwaitOf(last)), "");
  EXPECT_EQ(callers[0].WhyNot("dialog-create", fields), "") << "one that has ended makes room";
  EXPECT_THAT(one.WhyNot("dialog-state", NumberOf("1")), HasSubstr("no dialog 1"));
}

// Has reason to stay silent some times.
class BusyCaller : public Caller {
 public:
  static constexpr int kTimes = 5;

  explicit BusyCaller(std::atomic<int>& asked) : asked_(asked) {}
  void Answer(const Message& request, Reply reply) override { reply(request); }
  bool IsBusy() const override { return ++asked_ <= kTimes; }

 private:
  std::atomic<int>& asked_;
};

TEST(ProxyServer, LeavesSilentConnectionsOpenForAsLongAsTheirCallersAreBusy) {
  std::atomic<int> asked = 0;
  {
    const CallerFactory factory = [&] { return std::make_unique<BusyCaller>(asked); };
    const TestProxy proxy(factory, ProxyLimits{.idle = milliseconds(1)});
    EXPECT_TRUE(ProxyCaller(proxy.Pipe()).IsClosed());
  }
  EXPECT_EQ(asked, BusyCaller::kTimes + 1);
}

// A connection's side of the proxy, without the connection.
class OwnCaller {
 public:
  explicit OwnCaller(ProxySession& session) : caller_(MakeCaller(session)) {}

  /// The reply when there is one at once.
  Message Ask(const std::string& name, const Fields& fields = {}) {
    const auto reply = std::make_shared<Message>();
    caller_->Answer({Message::Kind::kRequest, name, 1, 0, fields},
                    [reply](Message message) { *reply = std::move(message); });
    return *reply;
  }
  bool IsBusy() const { return caller_->IsBusy(); }

 private:
  const std::unique_ptr<Caller> caller_;
};

TEST(ProxyCallers, AreBusyWhileTheyOwnADialog) {
  ScriptedDesktop desktop;
  ProxySession session({}, {}, &desktop, [](const std::string&) {});
  OwnCaller owner(session), waiting(session);
  EXPECT_FALSE(owner.IsBusy());
  owner.Ask("dialog-create", {{"text", "Well?"}, {"buttons", "2"}});
  EXPECT_TRUE(owner.IsBusy());
  EXPECT_FALSE(waiting.IsBusy());

  const Message made = waiting.Ask("dialog-create", {{"text", "Well?"}, {"buttons", "2"}});
  waiting.Ask("dialog-show", AwaitOf(ProxyCaller::TextOf(made, "dialog")));
  EXPECT_TRUE(waiting.IsBusy());
  EXPECT_TRUE(desktop.Press(desktop.WaitForDialog(), 100));
}

TEST(ProxyCallers, AreBusyWhileTheyHoldTheLock) {
  ScriptedDesktop desktop;
  ProxySession session(
      {}, {}, &desktop, [](const std::string&) {}, milliseconds(0));
  OwnCaller holder(session);
  EXPECT_FALSE(holder.IsBusy());
  EXPECT_EQ(holder.Ask("lock").code, 0u);
  EXPECT_TRUE(holder.IsBusy());
  EXPECT_FALSE(OwnCaller(session).IsBusy());
  EXPECT_EQ(holder.Ask("unlock").code, 0u);
  EXPECT_FALSE(holder.IsBusy());

  desktop.BreakLockHalfWay("another program holds the keyboard");
  EXPECT_THROW(holder.Ask("lock"), std::runtime_error);
  EXPECT_FALSE(holder.IsBusy());
}

// The person's dialog ends although nobody reads the reply, and others are served meanwhile.
TEST(ProxyServer, IsNotHeldUpByWhoDoesNotRead) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop, ProxyLimits{.message = milliseconds(300)});
  ProxyCaller deaf(proxy.Pipe()), other(proxy.Pipe());
  deaf.SendShow(deaf.Create());
  const uint32_t id = desktop.WaitForDialog();
  const Message question{Message::Kind::kRequest, "session", 99, 0, {}};
  while (proxy_protocol::Send(deaf.Channel(), question, proxy_protocol::After(milliseconds(100)))) {
  }
  EXPECT_EQ(ProxyCaller::TextOf(other.Ask("session"), "userName"), "alice");
  desktop.Press(id, 100);
  EXPECT_TRUE(desktop.WaitUntilNoneIsOpen());
  EXPECT_EQ(ProxyCaller::TextOf(other.Ask("session"), "userName"), "alice");
}

TEST(ProxyServer, SaysSoWhenAReplyIsTooLong) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  desktop.Break(std::string(2'000'000, 'x'));
  EXPECT_EQ(caller.WhyNot("absence"), "the reply is too long");
  EXPECT_EQ(ProxyCaller::TextOf(caller.Ask("session"), "userName"), "alice") << "goes on";
}

TEST(Proxy, TellsLanguageDisplayAndActivity) {
  ScriptedDesktop desktop;
  const TestProxy proxy(desktop);
  ProxyCaller caller(proxy.Pipe());
  const Message session = caller.Ask("session");
  EXPECT_EQ(ProxyCaller::TextOf(session, "language"), "de-AT");
  EXPECT_EQ(ProxyCaller::TextOf(session, "display"), "yes");
  desktop.SetActivity({milliseconds(61234), true});
  Message absence = caller.Ask("absence");
  EXPECT_EQ(ProxyCaller::TextOf(absence, "idleMs"), "61234");
  EXPECT_EQ(ProxyCaller::TextOf(absence, "screenLocked"), "yes");
  desktop.SetActivity({milliseconds(0), false});
  EXPECT_EQ(ProxyCaller::TextOf(caller.Ask("absence"), "screenLocked"), "no");
}
