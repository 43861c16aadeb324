#include "host/MetricsText.h"

#include <gtest/gtest.h>

#include <cmath>

#include "host/RequestTally.h"

namespace tessard {
namespace {

TEST(MetricNumber, IsWholeWhereItCanBeAndReadsBackAsTheSameOtherwise) {
  EXPECT_EQ(metricNumber(0), "0");
  EXPECT_EQ(metricNumber(-3), "-3");
  EXPECT_EQ(metricNumber(1795226427), "1795226427");
  EXPECT_EQ(metricNumber(0.001), "0.001");
  EXPECT_EQ(std::stod(metricNumber(0.1 + 0.2)), 0.1 + 0.2);
  EXPECT_EQ(metricNumber(HUGE_VAL), "+Inf");
  EXPECT_EQ(metricNumber(-HUGE_VAL), "-Inf");
  EXPECT_EQ(metricNumber(std::nan("")), "NaN");
}

TEST(MetricsText, NamesACountersFamilyWithoutTotalInOpenMetricsAndMarksTheEnd) {
  MetricsText text(MetricsForm::openMetrics);
  text.family("tessard_http_answers", MetricKind::counter, "Answers by HTTP status.");
  text.sample({{"code", "200"}}, 3);
  EXPECT_EQ(text.finish(),
            "# HELP tessard_http_answers Answers by HTTP status.\n"
            "# TYPE tessard_http_answers counter\n"
            "tessard_http_answers_total{code=\"200\"} 3\n"
            "# EOF\n");
}

TEST(MetricsText, NamesACountersFamilyLikeItsSamplesInTheOlderForm) {
  MetricsText text(MetricsForm::prometheusText);
  text.family("tessard_http_answers", MetricKind::counter, "Answers by HTTP status.");
  text.sample({}, 3);
  EXPECT_EQ(text.finish(),
            "# HELP tessard_http_answers_total Answers by HTTP status.\n"
            "# TYPE tessard_http_answers_total counter\n"
            "tessard_http_answers_total 3\n");
}

TEST(MetricsText, EscapesWhatWouldEndALabelsValue) {
  MetricsText text(MetricsForm::prometheusText);
  text.family("a", MetricKind::gauge, "One.");
  text.sample({{"x", "back\\slash \"quote\"\nline"}, {"y", ""}}, 1);
  EXPECT_EQ(text.finish(),
            "# HELP a One.\n# TYPE a gauge\n"
            "a{x=\"back\\\\slash \\\"quote\\\"\\nline\",y=\"\"} 1\n");
}

TEST(RequestTally, CountsEveryDurationOnceAtTheFirstBoundThatItDoesNotExceed) {
  RequestTally tally;
  for (const double seconds : {0.0, 0.001, 0.0011, 60.0, 61.0}) {
    tally.requestEnded("notification", "getState", "done", seconds);
  }
  const auto counts = tally.counts();
  const auto& durations = counts.durations.at({"notification", "getState"});
  EXPECT_EQ(durations.counts, (std::array<std::uint64_t, 9>{2, 1, 0, 0, 0, 0, 0, 1, 1}));
  EXPECT_DOUBLE_EQ(durations.seconds, 121.0021);
  EXPECT_EQ(counts.requests.at({"notification", "getState", "done"}), 5U);
}

TEST(RequestTally, KnowsHowManyConnectionsAreOpen) {
  RequestTally tally;
  tally.connectionOpened();
  tally.connectionOpened();
  tally.connectionClosed();
  EXPECT_EQ(tally.counts().connections, 1);
}

}  // namespace
}  // namespace tessard
