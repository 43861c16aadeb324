#include "host/QuietTime.h"

#include <gtest/gtest.h>

namespace tessard {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr QuietTime::Moment kStart{std::chrono::hours(1)};

TEST(QuietTime, HasNoEndWithoutANotice) {
  EXPECT_EQ(QuietTime(seconds(2)).end(), std::nullopt);
}

TEST(QuietTime, EndsWhenNothingWasNoticedForLongEnough) {
  QuietTime burst(seconds(2));
  burst.notice(kStart);
  EXPECT_EQ(burst.end(), kStart + seconds(2));
  burst.notice(kStart + milliseconds(1500));
  EXPECT_EQ(burst.end(), kStart + milliseconds(3500));
}

TEST(QuietTime, EndsAfterFiveTimesThatAtTheLatest) {
  QuietTime burst(seconds(2));
  for (int second = 0; second < 30; ++second) burst.notice(kStart + seconds(second));
  EXPECT_EQ(burst.end(), kStart + seconds(10));
}

TEST(QuietTime, BeginsAnewOnceItIsCleared) {
  QuietTime burst(seconds(2));
  burst.notice(kStart);
  burst.clear();
  EXPECT_EQ(burst.end(), std::nullopt);
  burst.notice(kStart + seconds(60));
  EXPECT_EQ(burst.end(), kStart + seconds(62));
}

}  // namespace
}  // namespace tessard
