#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <thread>

#include "agent/libZelCore/action_pool.h"
#include "agent/libZelCore/core_platform.h"

// Of the C library's own allocator: a sanitizer has another one.

namespace {

constexpr long kMiB = 1 << 20;
constexpr long kBlockBytes = 16 * kMiB;  // what the check of a password takes

long ResidentBytes() {
  long all = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> all >> resident;
  return resident * ::sysconf(_SC_PAGESIZE);
}

void UseAndFreeABlock() {
  char* const block = static_cast<char*>(std::malloc(kBlockBytes));
  for (long i = 0; i < kBlockBytes; i += 4096) static_cast<volatile char*>(block)[i] = 1;
  std::free(block);
}

void ExpectThatABlockIsKeptUntilItIsReturned() {
  void* const heapOfThisThread = std::malloc(100);
  const long before = ResidentBytes();
  UseAndFreeABlock();
  EXPECT_GT(ResidentBytes(), before + kBlockBytes - kMiB);
  core_platform::ReturnFreeMemory();
  EXPECT_LT(ResidentBytes(), before + kMiB);
  std::free(heapOfThisThread);
}

TEST(FreeMemory, IsKeptAndReturnedInTheFirstHeap) {
  core_platform::KeepFreeMemory();
  ExpectThatABlockIsKeptUntilItIsReturned();
}

TEST(FreeMemory, GoesBackFromTheHeapsOfThreadsThatHaveNoMoreJobs) {
  core_platform::KeepFreeMemory();
  const long before = ResidentBytes();
  std::promise<long> afterJob;
  ActionPool pool(1, 1);
  ASSERT_TRUE(pool.Submit([&] {
    UseAndFreeABlock();
    afterJob.set_value(ResidentBytes());
  }));
  EXPECT_GT(afterJob.get_future().get(), before + kBlockBytes - kMiB);

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (ResidentBytes() >= before + kMiB && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_LT(ResidentBytes(), before + kMiB);
}

TEST(FreeMemory, IsKeptAndReturnedInTheHeapOfAnotherThread) {
  core_platform::KeepFreeMemory();
  std::thread(ExpectThatABlockIsKeptUntilItIsReturned).join();
}

}  // namespace
