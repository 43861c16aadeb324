#include "host/WorkSlot.h"

#include <gmock/gmock.h>

#include <future>
#include <stdexcept>
#include <vector>

namespace tessard {
namespace {

using Clock = std::chrono::steady_clock;
using Refusal = WorkSlot::Refusal;

// A job that holds the slot until it is let go, and one that reports what became of it.
class WorkSlotTest : public testing::Test {
 protected:
  void hold() {
    WorkSlot::Job job;
    job.label = "held";
    job.run = [this] {
      begun_.set_value();
      release_.get_future().wait();
    };
    job.refuse = [](Refusal) { FAIL(); };
    slot_.submit(std::move(job));
    begun_.get_future().wait();
  }

  void release() { release_.set_value(); }

  std::future<std::string> submit(WorkSlot::Moment deadline, bool abandoned = false) {
    auto outcome = std::make_shared<std::promise<std::string>>();
    WorkSlot::Job job;
    job.deadline = deadline;
    job.run = [outcome] { outcome->set_value("run"); };
    job.refuse = [outcome](Refusal reason) {
      outcome->set_value(reason == Refusal::late        ? "late"
                         : reason == Refusal::abandoned ? "abandoned"
                                                        : "stopping");
    };
    job.isAbandoned = [abandoned] { return abandoned; };
    slot_.submit(std::move(job));
    return outcome->get_future();
  }

  std::promise<void> begun_;
  std::promise<void> release_;
  WorkSlot slot_{std::chrono::seconds(0), [](int) { FAIL(); }};
};

TEST_F(WorkSlotTest, RunsJobsInTheirOrder) {
  std::vector<int> order;
  hold();
  for (int number = 0; number < 3; ++number) {
    WorkSlot::Job job;
    job.run = [&order, number] { order.push_back(number); };
    job.refuse = [](Refusal) { FAIL(); };
    slot_.submit(std::move(job));
  }
  release();
  EXPECT_TRUE(slot_.callAndWait([] {}));
  EXPECT_THAT(order, testing::ElementsAre(0, 1, 2));
}

TEST_F(WorkSlotTest, UsersTakeTurnsAndEachKeepsItsOrder) {
  std::vector<std::string> order;
  std::promise<void> all;
  hold();
  const auto want = [&](uid_t user, const std::string& name) {
    WorkSlot::Job job;
    job.user = user;
    job.run = [&order, &all, name] {
      order.push_back(name);
      if (order.size() == 7) all.set_value();
    };
    job.refuse = [](Refusal) { FAIL(); };
    slot_.submit(std::move(job));
  };
  for (int number = 1; number <= 4; ++number) want(1000, "a" + std::to_string(number));
  for (int number = 1; number <= 2; ++number) want(1001, "b" + std::to_string(number));
  want(0, "root1");
  release();
  all.get_future().wait();
  EXPECT_THAT(order, testing::ElementsAre("a1", "b1", "a2", "b2", "root1", "a3", "a4"));
}

TEST_F(WorkSlotTest, TellsWhatRunsAndHowManyWait) {
  EXPECT_EQ(slot_.status().running, std::nullopt);
  hold();
  auto waiting = submit(WorkSlot::Moment::max());
  EXPECT_EQ(slot_.status().running, "held");
  EXPECT_GE(slot_.status().runningSeconds, 0);
  EXPECT_EQ(slot_.status().waiting, 1U);
  release();
  EXPECT_EQ(waiting.get(), "run");
}

TEST_F(WorkSlotTest, RefusesJobsThatWaitedTooLongAndKeepsTheOthers) {
  hold();
  const auto now = Clock::now();
  auto late = submit(now);
  auto inTime = submit(now + std::chrono::hours(1));
  slot_.refuseLateJobs(now);
  EXPECT_EQ(late.get(), "late");
  release();
  EXPECT_EQ(inTime.get(), "run");
}

TEST_F(WorkSlotTest, DoesNotBeginAJobWhoseDeadlineHasPassed) {
  EXPECT_EQ(submit(Clock::now()).get(), "late");
}

TEST_F(WorkSlotTest, DoesNotBeginAJobThatNobodyWaitsFor) {
  EXPECT_EQ(submit(WorkSlot::Moment::max(), true).get(), "abandoned");
}

TEST_F(WorkSlotTest, StoppingRefusesWhatWaitsAndLetsTheRunningJobEnd) {
  hold();
  auto waiting = submit(WorkSlot::Moment::max());
  auto stopped = std::async(std::launch::async, [this] { slot_.stop(); });
  EXPECT_EQ(waiting.get(), "stopping");
  EXPECT_EQ(submit(WorkSlot::Moment::max()).get(), "stopping");
  EXPECT_FALSE(slot_.callAndWait([] { FAIL(); }));
  release();
  stopped.get();
  EXPECT_EQ(slot_.status().running, std::nullopt);
}

TEST_F(WorkSlotTest, HandsOnWhatACallThrows) {
  EXPECT_THROW(slot_.callAndWait([] { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_TRUE(slot_.callAndWait([] {}));
}

TEST(WorkSlot, CountsIdleTimesInARowAndBeginsAnewAfterAJob) {
  std::promise<void> second;
  std::promise<void> anew;
  std::vector<int> counts;
  bool jobDone = false;
  WorkSlot slot(std::chrono::seconds(1), [&](int count) {
    counts.push_back(count);
    if (counts.size() == 2) second.set_value();
    if (jobDone && count == 1) anew.set_value();
  });
  second.get_future().wait();
  slot.callAndWait([&] { jobDone = true; });
  anew.get_future().wait();
  slot.stop();
  EXPECT_EQ(counts[0], 1);
  EXPECT_EQ(counts[1], 2);
}

TEST(WorkSlot, TidiesUpAfterEachJobWhenItsResultIsOnItsWay) {
  std::vector<std::string> order;
  WorkSlot slot(
      std::chrono::seconds(0), [](int) { FAIL(); }, [&] { order.emplace_back("afterwards"); });
  EXPECT_TRUE(slot.callAndWait([&] { order.emplace_back("job"); }));
  EXPECT_TRUE(slot.callAndWait([&] { order.emplace_back("job"); }));
  slot.stop();
  EXPECT_THAT(order, testing::ElementsAre("job", "afterwards", "job", "afterwards"));
}

}  // namespace
}  // namespace tessard
