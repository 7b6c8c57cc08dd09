#include "agent/libZel/network/name_lookup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/agent/library_log.h"

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

/// Longer than any answer takes here.
constexpr milliseconds kLongLimit{20'000};
constexpr milliseconds kShortLimit{50};
constexpr size_t kMaxLookUps = 64;

HostAddress V4(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
  HostAddress address;
  address.bytes = {a, b, c, d};
  return address;
}

HostAddress LoopbackV6() {
  HostAddress address;
  address.isV6 = true;
  address.bytes[15] = 1;
  return address;
}

NameAnswer NeverAsked(const std::string& name, AddressKind) {
  ADD_FAILURE() << "asked for " << name;
  return {};
}

/// A name service that answers nobody before it is let go. Who asked may be gone by then.
class StuckService {
 public:
  StuckService() : state_(std::make_shared<State>()) {}
  ~StuckService() { LetGo(); }

  NameService Service() const {
    return [state = state_](const std::string&, AddressKind) {
      ++state->asked;
      state->isOver.wait(false);
      return NameAnswer{{V4(1, 2, 3, 4)}, {}};
    };
  }
  void LetGo() {
    state_->isOver = true;
    state_->isOver.notify_all();
  }
  size_t Asked() const { return state_->asked; }

 private:
  struct State {
    std::atomic<bool> isOver{false};
    std::atomic<size_t> asked{0};
  };
  const std::shared_ptr<State> state_;
};

/// Whether `isSo` comes true in time.
bool ComesTrue(const std::function<bool()>& isSo) {
  const auto end = steady_clock::now() + kLongLimit;
  while (!isSo()) {
    if (steady_clock::now() > end) return false;
    std::this_thread::yield();
  }
  return true;
}

using Names = std::vector<std::string>;

/// Names that no other test uses: what is asked for one that is being looked up joins in.
Names MakeNames(size_t count) {
  static size_t last = 0;
  Names names;
  while (names.size() < count) names.push_back("host" + std::to_string(++last));
  return names;
}

NameAnswer AnswerAtOnce(const std::string&, AddressKind) {
  return {{V4(1, 1, 1, 1)}, {}};
}

/// Has the service look up each name, and gives it up at once.
void GiveUp(const StuckService& stuck, const Names& names, NameAsker asker = NameAsker::kProbe) {
  for (const std::string& name : names) {
    const size_t before = stuck.Asked();
    ASSERT_TRUE(ComesTrue([&] {
      EXPECT_THAT(LookUpHostWith(stuck.Service(), name, AddressKind::kAny, milliseconds(0), asker),
                  IsEmpty());
      return stuck.Asked() > before;
    })) << name;
  }
}

/// Waits until none of the names takes a place any more: who asks for one that does joins in, and
/// is answered when the place is free.
void WaitUntilEnded(const Names& names, NameAsker asker = NameAsker::kProbe) {
  for (const std::string& name : names) {
    ASSERT_THAT(LookUpHostWith(AnswerAtOnce, name, AddressKind::kAny, kLongLimit, asker),
                Not(IsEmpty()))
        << name;
  }
}

TEST(LookUpHost, FindsThisMachine) {
  EXPECT_THAT(LookUpHost("localhost", AddressKind::kAny, kLongLimit), Not(IsEmpty()));
  const auto found = LookUpHost("localhost", AddressKind::kV4, kLongLimit);
  ASSERT_THAT(found, Not(IsEmpty()));
  for (const HostAddress& address : found) {
    EXPECT_FALSE(address.isV6);
    EXPECT_EQ(address.bytes[0], 127);
  }
}

TEST(LookUpHost, TakesAddressesWithoutAskingAnybody) {
  const auto find = [](const std::string& name, AddressKind kind) {
    return LookUpHostWith(NeverAsked, name, kind, kLongLimit);
  };
  EXPECT_THAT(find("10.0.0.5", AddressKind::kV4), ElementsAre(V4(10, 0, 0, 5)));
  EXPECT_THAT(find("10.0.0.5", AddressKind::kAny), ElementsAre(V4(10, 0, 0, 5)));
  EXPECT_THAT(find("::1", AddressKind::kAny), ElementsAre(LoopbackV6()));
  EXPECT_THAT(find("::1", AddressKind::kV4), IsEmpty());
  EXPECT_THAT(find("::ffff:10.0.0.5", AddressKind::kV4), ElementsAre(V4(10, 0, 0, 5)));
  const auto scoped = find("fe80::2%7", AddressKind::kAny);
  ASSERT_EQ(scoped.size(), 1u);
  EXPECT_EQ(scoped[0].scope, 7u);
}

TEST(LookUpHost, AsksNobodyAboutWhatIsNoName) {
  LibraryLogText log;
  std::string withNul = "localhost";
  withNul += '\0';
  for (const std::string& name :
       {std::string(), std::string(256, 'a'), std::string(10'000, 'a'), withNul,
        std::string("\0", 1), std::string("127.1"), std::string("127.0.0.01"),
        std::string("010.0.0.1"), std::string("0x7F000001"), std::string("0X7f.1"),
        std::string("2130706433"), std::string("1.2.3.4."), std::string("256.0.0.1"),
        std::string("host.1"), std::string(":::"), std::string("[::1]"), std::string("host:80")}) {
    EXPECT_THAT(LookUpHostWith(NeverAsked, name, AddressKind::kAny, kLongLimit), IsEmpty()) << name;
  }
  EXPECT_LT(log.Text().size(), 10'000u);
}

TEST(LookUpHost, AsksAboutNames) {
  for (const std::string& name :
       {std::string("a"), std::string("host.example."), std::string("3com.example"),
        std::string("1.2.3.4a"), std::string("0xg"), std::string(255, 'a'),
        std::string("m\xC3\xBCller"), std::string("a b"), std::string("-"), std::string(".")}) {
    std::string asked;
    const auto found = LookUpHostWith(
        [&](const std::string& text, AddressKind) {
          asked = text;
          return NameAnswer{{V4(1, 2, 3, 4)}, {}};
        },
        name, AddressKind::kAny, kLongLimit);
    EXPECT_EQ(asked, name);
    EXPECT_THAT(found, ElementsAre(V4(1, 2, 3, 4)));
  }
}

TEST(LookUpHost, KeepsTheOrderOfTheAnswer) {
  const auto service = [](const std::string&, AddressKind) {
    return NameAnswer{{LoopbackV6(), V4(9, 9, 9, 9), V4(1, 1, 1, 1)}, {}};
  };
  EXPECT_THAT(LookUpHostWith(service, "host", AddressKind::kAny, kLongLimit),
              ElementsAre(LoopbackV6(), V4(9, 9, 9, 9), V4(1, 1, 1, 1)));
}

TEST(LookUpHost, SaysWhyThereIsNoAddress) {
  LibraryLogText log;
  EXPECT_THAT(LookUpHostWith(
                  [](const std::string&, AddressKind) {
                    return NameAnswer{{}, "gone"};
                  },
                  "pc-1", AddressKind::kAny, kLongLimit),
              IsEmpty());
  EXPECT_THAT(LookUpHostWith([](const std::string&,
                                AddressKind) -> NameAnswer { throw std::runtime_error("broken"); },
                             "pc-2", AddressKind::kAny, kLongLimit),
              IsEmpty());
  EXPECT_THAT(log.Text(), HasSubstr("There is no address for the host \"pc-1\": gone"));
  EXPECT_THAT(log.Text(), HasSubstr("There is no address for the host \"pc-2\": broken"));
}

TEST(LookUpHost, GivesUpInTime) {
  LibraryLogText log;
  StuckService stuck;
  const auto start = steady_clock::now();
  EXPECT_THAT(LookUpHostWith(stuck.Service(), "slow", AddressKind::kAny, kShortLimit), IsEmpty());
  const auto took = steady_clock::now() - start;
  EXPECT_GE(took, kShortLimit);
  EXPECT_LT(took, kLongLimit);
  EXPECT_THAT(log.Text(), HasSubstr("the name service did not answer in 50 ms"));
  stuck.LetGo();
  WaitUntilEnded({"slow"});
}

TEST(LookUpHost, LooksUpNoMoreThanSixtyFourNamesAtOnce) {
  StuckService stuck;
  std::vector<std::future<size_t>> callers;
  for (const std::string& name : MakeNames(kMaxLookUps)) {
    callers.push_back(std::async(std::launch::async, [&stuck, name] {
      return LookUpHostWith(stuck.Service(), name, AddressKind::kAny, kLongLimit).size();
    }));
  }
  ASSERT_TRUE(ComesTrue([&] { return stuck.Asked() == kMaxLookUps; }));

  LibraryLogText log;
  EXPECT_THAT(LookUpHostWith(NeverAsked, "other", AddressKind::kAny, kLongLimit), IsEmpty());
  EXPECT_THAT(log.Text(), HasSubstr("the name service is still busy with 64 other names"));

  stuck.LetGo();
  for (auto& caller : callers) EXPECT_EQ(caller.get(), 1u);
}

TEST(LookUpHost, CountsThoseThatWereGivenUpUntilTheyEnd) {
  StuckService stuck;
  const Names names = MakeNames(kMaxLookUps);
  ASSERT_NO_FATAL_FAILURE(GiveUp(stuck, names));
  EXPECT_THAT(LookUpHostWith(NeverAsked, "other", AddressKind::kAny, kLongLimit), IsEmpty());
  stuck.LetGo();
  WaitUntilEnded(names);
}

TEST(LookUpHost, NeverRefusesWhatNeedsNoNameService) {
  StuckService stuck;
  const Names names = MakeNames(kMaxLookUps);
  ASSERT_NO_FATAL_FAILURE(GiveUp(stuck, names));
  for (const char* const name : {"10.0.0.5", "::1", "localhost", "LocalHost."}) {
    EXPECT_THAT(LookUpHostWith(NeverAsked, name, AddressKind::kAny, kLongLimit), Not(IsEmpty()))
        << name;
  }
  EXPECT_THAT(LookUpHostWith(NeverAsked, "localhost", AddressKind::kV4, kLongLimit),
              ElementsAre(V4(127, 0, 0, 1)));
  EXPECT_THAT(LookUpHostWith(NeverAsked, "localhost", AddressKind::kAny, kLongLimit),
              ElementsAre(V4(127, 0, 0, 1), LoopbackV6()));
  stuck.LetGo();
  WaitUntilEnded(names);
}

TEST(LookUpHost, KeepsPlaceForTheAgentItself) {
  constexpr size_t kMaxOfAgent = 8;
  StuckService stuck;
  const Names names = MakeNames(kMaxLookUps);
  ASSERT_NO_FATAL_FAILURE(GiveUp(stuck, names));
  EXPECT_THAT(
      LookUpHostWith(AnswerAtOnce, names[0], AddressKind::kAny, kLongLimit, NameAsker::kAgent),
      ElementsAre(V4(1, 1, 1, 1)));
  // Nor does the agent hold an unlimited number of threads.
  const Names ofAgent(names.begin(), names.begin() + kMaxOfAgent);
  ASSERT_NO_FATAL_FAILURE(GiveUp(stuck, ofAgent, NameAsker::kAgent));
  EXPECT_THAT(LookUpHostWith(NeverAsked, "other", AddressKind::kAny, kLongLimit, NameAsker::kAgent),
              IsEmpty());
  stuck.LetGo();
  WaitUntilEnded(names);
  WaitUntilEnded(ofAgent, NameAsker::kAgent);
}

TEST(LookUpHost, AsksOnceForANameThatIsBeingLookedUp) {
  StuckService stuck;
  const std::string name = MakeNames(1)[0];
  // Were each of them to count, the rest would be refused.
  for (size_t i = 0; i < 2 * kMaxLookUps; ++i) {
    LookUpHostWith(stuck.Service(), name, AddressKind::kAny, milliseconds(0));
  }
  ASSERT_TRUE(ComesTrue([&] { return stuck.Asked() > 0; }));
  auto joined = std::async(std::launch::async, [&name] {
    return LookUpHostWith(NeverAsked, name, AddressKind::kAny, kLongLimit);
  });
  EXPECT_EQ(joined.wait_for(kShortLimit), std::future_status::timeout);
  // What is asked otherwise is another question.
  EXPECT_THAT(LookUpHostWith(AnswerAtOnce, name, AddressKind::kV4, kLongLimit),
              ElementsAre(V4(1, 1, 1, 1)));
  stuck.LetGo();
  EXPECT_THAT(joined.get(), ElementsAre(V4(1, 2, 3, 4)));
  EXPECT_EQ(stuck.Asked(), 1u);
}

TEST(LookUpHost, AsksAnewOnceALookUpEnded) {
  const std::string name = MakeNames(1)[0];
  int asked = 0;
  for (int i = 0; i < 3; ++i) {
    LookUpHostWith(
        [&](const std::string& text, AddressKind kind) {
          ++asked;
          return AnswerAtOnce(text, kind);
        },
        name, AddressKind::kAny, kLongLimit);
  }
  EXPECT_EQ(asked, 3);
}

TEST(LookUpHostDeathTest, LetsAProcessEndWhileItIsStuck) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        const auto stuck = std::make_shared<StuckService>();
        LookUpHostWith(
            [keep = stuck, service = stuck->Service()](const std::string& name, AddressKind kind) {
              return service(name, kind);
            },
            "host", AddressKind::kAny, milliseconds(1));
        std::exit(7);
      },
      testing::ExitedWithCode(7), "");
}

TEST(HostAddress, IsShownAsPeopleWriteIt) {
  EXPECT_EQ(V4(10, 0, 0, 5).Text(), "10.0.0.5");
  EXPECT_EQ(V4(10, 0, 0, 5).AsIpv4(), 0x0A000005u);
  EXPECT_EQ(LoopbackV6().Text(), "::1");
}

}  // namespace
