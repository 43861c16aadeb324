#include "platform/InParallel.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

namespace tessard {
namespace {

TEST(InParallel, TakesEachNumberOnce) {
  for (const std::size_t count : {0U, 1U, 31U, 32U, 33U, 10'000U}) {
    std::vector<std::atomic<int>> taken(count);
    inParallel(count, [&](std::size_t i) { ++taken[i]; });
    EXPECT_TRUE(std::ranges::all_of(taken, [](const auto& times) { return times == 1; })) << count;
  }
}

TEST(InParallel, TakesFewInThisThreadAlone) {
  std::set<std::thread::id> threads;
  inParallel(10, [&](std::size_t) { threads.insert(std::this_thread::get_id()); });
  EXPECT_EQ(threads, std::set{std::this_thread::get_id()});
}

TEST(InParallel, IsSharedByTwoWhereTheOneWaitsForTheOther) {
  if (std::thread::hardware_concurrency() < 2) GTEST_SKIP() << "needs two processors";
  std::atomic<int> arrived = 0;
  inParallel(100, [&](std::size_t i) {
    if (i > 1) return;
    ++arrived;
    while (arrived < 2) std::this_thread::yield();
  });
  EXPECT_EQ(arrived, 2);
}

TEST(InParallel, ThrowsWhatTheWorkThrowsWhenAllHaveStopped) {
  for (int round = 0; round < 100; ++round) {
    std::atomic<int> running = 0;
    const auto work = [&](std::size_t i) {
      ++running;
      const bool fails = i == 40;
      --running;
      if (fails) throw std::runtime_error("at 40");
    };
    EXPECT_THROW(inParallel(100, work), std::runtime_error);
    EXPECT_EQ(running, 0);
  }
}

}  // namespace
}  // namespace tessard
