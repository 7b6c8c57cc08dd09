#include "libZel/container.h"

#include <gtest/gtest.h>

#include <limits>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace {

TEST(ZelContainer, GivesBackWhatWasSet) {
  ZelContainer container;
  container.SetString("Text", "täxt", kNoIndex);
  container.SetInt32("Small", -5, kNoIndex);
  container.SetInt64("Large", int64_t{1} << 40, kNoIndex);
  container.SetBool("Flag", true, kNoIndex);

  ZelString text;
  int32_t small = 0;
  int64_t large = 0;
  bool flag = false;
  ASSERT_TRUE(container.GetString("Text", &text, kNoIndex));
  ASSERT_TRUE(container.GetInt32("Small", &small, kNoIndex));
  ASSERT_TRUE(container.GetInt64("Large", &large, kNoIndex));
  ASSERT_TRUE(container.GetBool("Flag", &flag, kNoIndex));
  EXPECT_EQ(text, ZelString("täxt"));
  EXPECT_EQ(small, -5);
  EXPECT_EQ(large, int64_t{1} << 40);
  EXPECT_TRUE(flag);
}

TEST(ZelContainer, LeavesTheOutputAloneWhenTheKeyIsAbsentOrOfAnotherType) {
  ZelContainer container;
  container.SetString("Text", "5", kNoIndex);
  int32_t number = 7;
  bool flag = true;
  ZelString text("before");
  EXPECT_FALSE(container.GetInt32("Text", &number, kNoIndex));
  EXPECT_FALSE(container.GetBool("Text", &flag, kNoIndex));
  EXPECT_FALSE(container.GetString("Absent", &text, kNoIndex));
  EXPECT_EQ(number, 7);
  EXPECT_TRUE(flag);
  EXPECT_EQ(text, ZelString("before"));
}

TEST(ZelContainer, ConvertsIntegersWhereTheyFit) {
  ZelContainer container;
  container.SetInt32("Small", -1, kNoIndex);
  container.SetInt64("Fits", 5, kNoIndex);
  container.SetInt64("Unsigned", 3000000000, kNoIndex);
  container.SetInt64("Large", int64_t{1} << 40, kNoIndex);

  int64_t wide = 0;
  int32_t narrow = 0;
  uint32_t bits = 0;
  EXPECT_TRUE(container.GetInt64("Small", &wide, kNoIndex));
  EXPECT_EQ(wide, -1);
  EXPECT_TRUE(container.GetInt32("Fits", &narrow, kNoIndex));
  EXPECT_EQ(narrow, 5);
  EXPECT_TRUE(container.GetInt32("Small", &bits, kNoIndex));
  EXPECT_EQ(bits, ~0u);
  EXPECT_TRUE(container.GetInt32("Unsigned", &bits, kNoIndex));
  EXPECT_EQ(bits, 3000000000u);
  EXPECT_FALSE(container.GetInt32("Unsigned", &narrow, kNoIndex));
  EXPECT_FALSE(container.GetInt32("Large", &bits, kNoIndex));
}

TEST(ZelContainer, ReplacesASingleValueByAnotherType) {
  ZelContainer container;
  container.SetInt32("Result", 0, kNoIndex);
  container.SetBool("Result", false, kNoIndex);
  EXPECT_EQ(container.EntryAt(0).Type(), ZelValueType::kBool);
  EXPECT_EQ(container.CountKeys(), 1u);
}

TEST(ZelContainer, NumbersListsFromZeroWithoutGaps) {
  ZelContainer container;
  EXPECT_FALSE(container.SetString("List", "x", 1)) << "a list starts at 0";
  EXPECT_EQ(container.CountKeys(), 0u);
  EXPECT_TRUE(container.SetString("List", "a", 0));
  EXPECT_TRUE(container.SetString("List", "b", 1));
  EXPECT_FALSE(container.SetString("List", "d", 3));
  EXPECT_TRUE(container.SetString("List", "B", 1));
  EXPECT_EQ(container.CountValues("List"), 2);

  ZelString value;
  EXPECT_TRUE(container.GetString("List", &value, 1));
  EXPECT_EQ(value, ZelString("B"));
  EXPECT_FALSE(container.GetString("List", &value, 2));
  EXPECT_FALSE(container.GetString("List", &value, kNoIndex)) << "a list is no single value";
}

TEST(ZelContainer, KeepsListsOfOneType) {
  ZelContainer container;
  container.SetString("List", "a", 0);
  EXPECT_FALSE(container.SetInt32("List", 1, 1));
  EXPECT_TRUE(container.SetInt32("List", 1, 0)) << "the only element may change its type";
  EXPECT_TRUE(container.SetInt32("List", 2, 1));
  EXPECT_FALSE(container.SetString("List", "a", 0));
}

TEST(ZelContainer, TakesASingleValueAsTheFirstOfAList) {
  ZelContainer container;
  container.SetString("Key", "a", kNoIndex);
  ZelString value;
  EXPECT_TRUE(container.GetString("Key", &value, 0));
  EXPECT_EQ(container.CountValues("Key"), 1);
  EXPECT_TRUE(container.SetString("Key", "b", 1));
  EXPECT_EQ(container.CountValues("Key"), 2);
  EXPECT_TRUE(container.EntryAt(0).IsList());
}

TEST(ZelContainer, KeepsAListOfOneAList) {
  ZelContainer container;
  container.SetInt32("One", 1, 0);
  EXPECT_TRUE(container.EntryAt(0).IsList());
  EXPECT_EQ(container.EntryAt(0).Count(), 1u);
}

TEST(ZelContainer, NestsByValue) {
  ZelContainer row;
  row.SetString("Name", "first", kNoIndex);
  ZelContainer container;
  container.SetContainer("Values", row, 0);
  row.SetString("Name", "second", kNoIndex);
  container.SetContainer("Values", row, 1);

  ZelContainer read;
  ZelString name;
  ASSERT_TRUE(container.GetContainer("Values", &read, 0));
  read.GetString("Name", &name, kNoIndex);
  EXPECT_EQ(name, ZelString("first"));
  read.SetString("Name", "changed", kNoIndex);
  ASSERT_TRUE(container.GetContainer("Values", &read, 0));
  read.GetString("Name", &name, kNoIndex);
  EXPECT_EQ(name, ZelString("first")) << "what was read is a copy";
}

TEST(ZelContainer, CanHoldACopyOfItself) {
  ZelContainer container;
  container.SetInt32("Number", 1, kNoIndex);
  container.SetContainer("Self", container, kNoIndex);
  ZelContainer inner;
  ASSERT_TRUE(container.GetContainer("Self", &inner, kNoIndex));
  EXPECT_EQ(inner.CountKeys(), 1u);
}

TEST(ZelContainer, CopiesAreIndependent) {
  ZelContainer original;
  original.SetString("Key", "a", 0);
  ZelContainer copy = original;
  copy.SetString("Key", "b", 1);
  copy.SetInt32("Other", 1, kNoIndex);
  EXPECT_EQ(original.CountValues("Key"), 1);
  EXPECT_EQ(original.CountKeys(), 1u);
  EXPECT_EQ(copy.CountValues("Key"), 2);
}

TEST(ZelContainer, ClearsAndRemoves) {
  ZelContainer container;
  container.SetInt32("A", 1, kNoIndex);
  container.SetInt32("B", 2, kNoIndex);
  EXPECT_TRUE(container.Remove("A"));
  EXPECT_FALSE(container.Remove("A"));
  EXPECT_EQ(container.CountKeys(), 1u);
  container.Clear();
  EXPECT_EQ(container.CountKeys(), 0u);
  EXPECT_EQ(container.CountValues("B"), 0);
}

TEST(ZelContainer, KeepsKeysInTheOrderOfTheirFirstSetting) {
  ZelContainer container;
  container.SetInt32("z", 1, kNoIndex);
  container.SetInt32("a", 2, kNoIndex);
  container.SetInt32("z", 3, kNoIndex);
  EXPECT_EQ(container.EntryAt(0).Key(), "z");
  EXPECT_EQ(container.EntryAt(0).IntegerAt(0), 3);
  EXPECT_EQ(container.EntryAt(1).Key(), "a");
}

TEST(ZelContainer, FindsEachOfManyKeysAfterCopiesAndRemovals) {
  ZelContainer container;
  constexpr int kKeys = 20000;
  for (int i = 0; i < kKeys; ++i) container.SetInt32(ZelString::FromInt64(i), i, kNoIndex);
  ZelContainer copy = container;
  copy.Remove("17");
  for (int i = 0; i < kKeys; ++i) {
    int32_t value = -1;
    ASSERT_EQ(copy.GetInt32(ZelString::FromInt64(i), &value, kNoIndex), i != 17);
    if (i != 17) {
      ASSERT_EQ(value, i);
    }
  }
  EXPECT_EQ(container.CountKeys(), size_t{kKeys});
}

TEST(ZelContainer, KeysDifferInCaseAndMayHoldNul) {
  ZelContainer container;
  container.SetInt32("key", 1, kNoIndex);
  container.SetInt32("Key", 2, kNoIndex);
  container.SetInt32(ZelString(std::string_view("key\0", 4)), 3, kNoIndex);
  EXPECT_EQ(container.CountKeys(), 3u);
}

TEST(ZelContainer, ComparesByKeysTypesAndValues) {
  ZelContainer a;
  a.SetInt32("N", 1, kNoIndex);
  a.SetString("T", "x", 0);
  ZelContainer nested;
  nested.SetBool("B", true, kNoIndex);
  a.SetContainer("C", nested, kNoIndex);
  ZelContainer b;
  b.SetContainer("C", nested, kNoIndex);
  b.SetString("T", "x", 0);
  b.SetInt32("N", 1, kNoIndex);
  EXPECT_EQ(a, b);
  b.SetBool("N", true, kNoIndex);
  EXPECT_FALSE(a == b);
  b.SetInt32("N", 1, 0);
  EXPECT_FALSE(a == b) << "a list of one is not a single value";
}

TEST(ZelContainerThreads, CopiesOfOneContentAreReadAndChangedSideBySide) {
  ZelContainer shared;
  for (int i = 0; i < 100; ++i) shared.SetString("Values", ZelString::FromInt64(i), i);
  std::vector<ZelContainer> copies(4, shared);
  std::vector<std::thread> threads;
  for (ZelContainer& copy : copies) {
    threads.emplace_back([&copy] {
      for (uint32_t i = 0; i < 100; ++i) {
        ZelString value;
        copy.GetString("Values", &value, i);
        copy.SetString("Values", value + "!", i);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const ZelContainer& copy : copies) EXPECT_EQ(copy, copies[0]);
  ZelString first;
  shared.GetString("Values", &first, 0);
  EXPECT_EQ(first, ZelString("0"));
}

TEST(Container, TakesLargeTextsOver) {
  for (const size_t size : {0U, 100U, 65535U, 65536U, 1000000U}) {
    const std::string text(size, 't');
    ZelContainer container;
    ZelString value(text);
    EXPECT_TRUE(container.SetString("a", std::move(value), kNoIndex));
    EXPECT_TRUE(container.SetString("list", ZelString(text), 0));
    const ZelContainer copy = container;
    container.SetString("a", "other", kNoIndex);

    ZelString read;
    EXPECT_TRUE(copy.GetString("a", &read, kNoIndex));
    EXPECT_EQ(read.Utf8(), text);
    EXPECT_TRUE(copy.GetString("list", &read, 0));
    EXPECT_EQ(read.Utf8(), text);
    EXPECT_FALSE(copy == container);
  }
}

}  // namespace
