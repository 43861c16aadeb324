#include "host/Watchdog.h"

#include <gmock/gmock.h>

#include <chrono>
#include <string>
#include <vector>

namespace tessard {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

struct LoggedLines : Syslog {
  void write(int /*priority*/, const char* /*format*/, const std::string& line) override {
    lines.push_back(line);
  }
  std::vector<std::string> lines;
};

class WatchdogTest : public testing::Test {
 protected:
  Watchdog watchdog(std::optional<std::chrono::microseconds> patience) {
    return Watchdog(
        patience, [this] { return status_; }, [this](const char* word) { told_.emplace_back(word); }, log_);
  }

  const Watchdog::Moment start_ = Watchdog::Moment() + seconds(1000);
  WorkSlot::Status status_;
  std::vector<std::string> told_;
  LoggedLines syslog_;
  HostLog log_{syslog_};
};

TEST_F(WatchdogTest, IsSilentWhereNobodyListens) {
  auto silent = watchdog(std::nullopt);
  silent.tick(start_);
  EXPECT_EQ(silent.interval(), std::nullopt);
  EXPECT_THAT(told_, IsEmpty());
}

TEST_F(WatchdogTest, SpeaksThreeTimesWhileTheServiceManagerWaitsForOneWord) {
  auto speaking = watchdog(seconds(3));
  EXPECT_EQ(speaking.interval(), milliseconds(1000));
  for (int tenth = 0; tenth < 30; ++tenth) speaking.tick(start_ + milliseconds(100) * tenth);
  EXPECT_THAT(told_, ElementsAre("WATCHDOG=1", "WATCHDOG=1", "WATCHDOG=1"));
}

TEST_F(WatchdogTest, IsNeverAskedToTickWithoutAPause) {
  EXPECT_EQ(watchdog(std::chrono::microseconds(2)).interval(), milliseconds(1));
}

TEST_F(WatchdogTest, FallsSilentWhenARequestDoesNotEndAndSaysWhyOnce) {
  auto speaking = watchdog(seconds(3));
  status_.running = "writeSettings";
  status_.runningSeconds = 900;
  speaking.tick(start_);
  EXPECT_EQ(told_.size(), 1U);
  status_.runningSeconds = 900.5;
  speaking.tick(start_ + seconds(2));
  speaking.tick(start_ + seconds(4));
  EXPECT_EQ(told_.size(), 1U);
  EXPECT_THAT(
      syslog_.lines,
      ElementsAre("\"writeSettings\" does not end; the service manager is to start the daemon anew."));
}

TEST_F(WatchdogTest, SpeaksAgainWhenTheRequestHasEndedAfterAll) {
  auto speaking = watchdog(seconds(3));
  status_.running = "getState";
  status_.runningSeconds = 1000;
  speaking.tick(start_);
  EXPECT_THAT(told_, IsEmpty());
  status_ = {};
  speaking.tick(start_ + milliseconds(10));
  EXPECT_THAT(told_, ElementsAre("WATCHDOG=1"));
}

}  // namespace
}  // namespace tessard
