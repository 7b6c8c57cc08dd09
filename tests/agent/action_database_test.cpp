#include "agent/libZelCore/action_database.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

uint32_t AnswerSeven(ZelContainer*) {
  return 7;
}

TEST(ActionDatabase, NamesAnActionByItsSignatureUpToTheFirstBlank) {
  ActionDatabase actions;
  EXPECT_TRUE(actions.Register("Copy (string Path)", AnswerSeven, nullptr));
  EXPECT_TRUE(actions.Contains("Copy"));
  EXPECT_EQ(actions.Signature("Copy"), "Copy (string Path)");
  ZelContainer parameters;
  EXPECT_EQ(actions.Invoke("Copy", &parameters), 7u);
}

TEST(ActionDatabase, RefusesEmptyAndTakenNames) {
  ActionDatabase actions;
  EXPECT_FALSE(actions.Register("", AnswerSeven, nullptr));
  EXPECT_FALSE(actions.Register(" (string Path)", AnswerSeven, nullptr));
  EXPECT_FALSE(actions.Register("Copy", nullptr, nullptr));
  EXPECT_TRUE(actions.Register("Copy", AnswerSeven, nullptr));
  EXPECT_FALSE(actions.Register("Copy (int X)", AnswerSeven, nullptr));
  EXPECT_EQ(actions.Signature("Copy"), "Copy");
}

TEST(ActionDatabase, ListsInOrderOfRegistration) {
  ActionDatabase actions;
  for (const char* name : {"Zulu", "Alpha", "Mike"}) actions.Register(name, AnswerSeven, nullptr);
  const std::vector<ActionInfo> list = actions.List();
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[0].name, "Zulu");
  EXPECT_EQ(list[1].name, "Alpha");
  EXPECT_EQ(list[2].name, "Mike");
}

TEST(ActionDatabase, SaysThatAnActionIsUnknownAndLeavesItsParameters) {
  const ActionDatabase actions;
  ZelContainer parameters;
  parameters.SetInt32("Kept", 1, kNoIndex);
  EXPECT_EQ(actions.Invoke("Nothing", &parameters), kInvokeUnknownAction);
  EXPECT_EQ(parameters.CountKeys(), 1u);
}

TEST(ActionDatabase, TurnsAnExceptionIntoAFailureWithAnEmptyContainer) {
  ActionDatabase actions;
  actions.Register(
      "Throw", [](ZelContainer*) -> uint32_t { throw std::runtime_error("x"); }, nullptr);
  actions.Register(
      "ThrowOdd", [](ZelContainer*) -> uint32_t { throw 1; }, nullptr);
  for (const char* name : {"Throw", "ThrowOdd"}) {
    ZelContainer parameters;
    parameters.SetInt32("Half", 1, kNoIndex);
    EXPECT_EQ(actions.Invoke(name, &parameters), kInvokeFailed);
    EXPECT_EQ(parameters.CountKeys(), 0u);
  }
}

TEST(ActionDatabase, ForgetsAnOwnerWithItsActionsAndNoOthers) {
  ActionDatabase actions;
  ActionDatabase::Owner* const first = actions.AddOwner("first");
  ActionDatabase::Owner* const second = actions.AddOwner("second");
  actions.Register("A", AnswerSeven, first);
  actions.Register("B", AnswerSeven, second);
  EXPECT_TRUE(actions.IsOwner(first));
  EXPECT_FALSE(actions.IsOwner(&actions));

  actions.UnregisterAll(first);
  EXPECT_FALSE(actions.Contains("A"));
  EXPECT_TRUE(actions.Contains("B"));
  EXPECT_FALSE(actions.IsOwner(first));
  EXPECT_TRUE(actions.IsOwner(second));
}

TEST(ActionDatabase, LetsAnActionRunToItsEndWhenItIsUnregisteredMeanwhile) {
  ActionDatabase actions;
  const auto alive = std::make_shared<int>(5);
  ActionDatabase::Owner* const owner = actions.AddOwner("module");
  actions.Register(
      "Self",
      [&actions, owner, alive](ZelContainer*) -> uint32_t {
        actions.UnregisterAll(owner);
        return static_cast<uint32_t>(*alive);
      },
      owner);
  ZelContainer parameters;
  EXPECT_EQ(actions.Invoke("Self", &parameters), 5u);
  EXPECT_FALSE(actions.Contains("Self"));
}

}  // namespace
